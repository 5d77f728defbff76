"""Server changes where the two profiles part: classic keeps the device's
old behaviour with its dangers, safe lists page by page, relists after a
reset and removes only what it can give back."""

import signal

import pytest

import qshost

PROFILES = pytest.mark.parametrize("profile", ["classic", "safe"])


@PROFILES
def test_listing_of_several_pages(scene, root, server, account, profile):
    root.set_profile(profile)
    scene.server(put={"/f%d.txt" % i: b"x%d" % i for i in range(5)})
    server.settings(page_size=2)
    if profile == "classic":
        mark = (server.requests() or [{"seq": 0}])[-1]["seq"]
        proc = root.start_sync()
        # Every page is asked for with the cursor of the pass's start: the
        # first page comes again and again, and the run ends only when stopped.
        assert qshost.wait_for(
            lambda: len(server.requests(mark, route="files/list_folder")) >= 3, timeout=30)
        proc.send_signal(signal.SIGTERM)
        proc.communicate(timeout=30)
        assert proc.returncode == 1 and root.sync_error() == 1
        return
    # Page by page, each page's cursor saved: a run that fails on the second
    # page resumes there, and the changes made meanwhile arrive.
    server.add_fault(route="files/download", path="/f3.txt", status=500, count=1)
    scene.sync(expect=7)
    assert sorted(root.local_tree()) == ["/f0.txt", "/f1.txt", "/f2.txt"]
    scene.server(delete=["/f0.txt"], move=[("/f1.txt", "/g1.txt")])
    run = scene.sync(requests={"files/download": 3})
    assert sorted(run.paths("files/download")) == ["/f3.txt", "/f4.txt", "/g1.txt"]
    assert not [r for r in run.requests if r["route"] == "files/list_folder"]
    scene.sync(requests={})  # the changes after the listing's start come with the next page
    scene.check()


@PROFILES
def test_deletions_after_an_interrupted_first_sync(scene, root, server, profile):
    root.set_profile(profile)
    scene.server(put={"/a.txt": b"a", "/b.txt": b"b"})
    server.add_fault(route="files/download", path="/b.txt", status=500, count=1)
    scene.sync(expect=7)
    assert root.local_tree() == {"/a.txt": b"a"}
    scene.server(delete=["/a.txt"])
    scene.sync(requests={"files/download": 1})
    scene.sync(requests={})
    if profile == "classic":
        # Without a saved cursor the next run lists anew, and a new listing
        # holds no deleted entries: the device keeps the file for good.
        assert root.local_tree() == {"/a.txt": b"a", "/b.txt": b"b"}
    else:
        # The new listing lacks a row's file, unchanged since: it goes.
        scene.check()


@PROFILES
def test_cursor_reset_by_the_service(scene, root, server, account, profile):
    root.set_profile(profile)
    scene.server(put={"/a.txt": b"a", "/Old/o.txt": b"o", "/keep.txt": b"k"})
    scene.sync()
    server.reset_cursors(account.name)
    scene.server(put={"/new.txt": b"new"}, delete=["/a.txt", "/Old"])
    if profile == "classic":
        for _ in range(2):
            run = scene.sync(expect=7)
            assert run.returncode == 7
        assert "/new.txt" not in root.local_tree()
        return
    # The whole account is listed anew; what the store has and the listing
    # lacks goes, and the cursor is saved once the listing is applied.
    cursor = root.store_rows()["info"]["cursor"]
    run = scene.sync(requests={"files/download": 1})
    assert [r["route"] for r in run.requests if "list_folder" in r["route"]] == [
        "files/list_folder/continue", "files/list_folder"]
    scene.check()
    assert root.store_rows()["info"]["cursor"] not in ("", cursor)
    scene.sync(requests={})
    # A reply with no cursor at all is met the same way.
    server.add_fault(route="files/list_folder/continue", status=200, body="<html>busy</html>")
    scene.server(put={"/later.txt": b"later"})
    run = scene.sync(requests={"files/download": 1})
    assert [r["route"] for r in run.requests if "list_folder" in r["route"]] == [
        "files/list_folder/continue", "files/list_folder"]
    scene.check()


@PROFILES
def test_server_folder_with_a_star(scene, root, profile):
    root.set_profile(profile)
    scene.server(put={"/Bo*/a.txt": b"a", "/Books/keep.txt": b"keep", "/Box/k.txt": b"k"})
    scene.sync(requests={"files/download": 3})
    scene.server(delete=["/Bo*"])
    scene.sync(requests={})
    if profile == "classic":
        # The removal command globs: the sibling folders went with it, while
        # the server and the store still have them.
        assert "/Books/keep.txt" in root.store_rows()["files"]
        assert "/Books/keep.txt" not in root.local_tree() and "/Box/k.txt" not in root.local_tree()
    else:
        scene.check()


@PROFILES
def test_server_kinds_and_folders_that_cannot_be_made(scene, root, profile):
    root.set_profile(profile)
    scene.server(put={"/k.txt": b"k", "/d/x.txt": b"x"})
    scene.sync()
    # Another device turns a file into a folder and a folder into a file, and
    # adds a folder whose local path is longer than the device's system takes.
    deep = "".join("/" + "d" * 200 for _ in range(21))
    scene.server(delete=["/k.txt", "/d"])
    scene.server(put={"/k.txt/in.txt": b"in", "/d": b"d", deep + "/a.txt": b"a"})
    if profile == "classic":
        # A folder row is written over the file, and the file below it can
        # never be stored: every run fails there.
        for _ in range(2):
            scene.sync(expect=3)
        assert root.local_tree()["/k.txt"] == b"k" and "/k.txt/in.txt" not in root.local_tree()
        return
    scene.sync(expect=7)
    rows = root.store_rows()
    local = root.local_tree()
    assert deep not in rows["folders"] and deep + "/a.txt" not in local
    # The old file is kept under another name and goes up; the folder that
    # cannot be made fails again, and the server keeps it.
    aside = [p for p in local if p.startswith("/k (conflicted copy ")]
    assert len(aside) == 1 and local[aside[0]] == b"k" and local["/k.txt/in.txt"] == b"in"
    assert local["/d"] == b"d" and "/d" in rows["files"] and "/d" not in rows["folders"]
    run = scene.sync(expect=7)
    assert deep + "/a.txt" in scene.server_tree()
    assert run.paths("files/upload") == [aside[0]]
