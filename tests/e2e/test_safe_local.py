"""Local changes in both profiles: what the classic profile does with an edit,
a book that exists in two versions, a deletion racing another device's edit,
a name the service refuses and a refused deletion, and what the safe profile
does instead. Each story runs once per profile."""

import os
import sqlite3
import time

import pytest

import qshost
from conftest import copy_of

UPLOAD, DELETE, DOWNLOAD, CREATE = ("files/upload", "files/delete", "files/download",
                                    "files/create_folder")
CREATE_BATCH = "files/create_folder_batch"
START, APPEND, FINISH = ("files/upload_session/start", "files/upload_session/append_v2",
                         "files/upload_session/finish")
BATCH = "files/upload_session/finish_batch_v2"

profiles = pytest.mark.parametrize("profile", ["classic", "safe"])


@profiles
def test_two_versions_of_a_book_before_the_first_sync(scene, root, profile):
    root.set_profile(profile)
    scene.server(put={"/todo.txt": b"server's list", "/same.epub": b"same book",
                      "/Shelf/a.txt": b"a"})
    scene.device(put={"/todo.txt": b"device's list", "/same.epub": b"same book",
                      "/Shelf": b"a file where the server has a folder"})
    if profile == "classic":
        # Every local file goes up under a name the service picks; the
        # server's folder stops the first run, the second deletes it with its
        # file, and the device's list is then only a renamed copy up there.
        scene.sync(expect=3, requests={UPLOAD: 3})
        assert scene.server_tree()["/todo (1).txt"] == b"device's list"
        scene.sync(requests={DELETE: 3, UPLOAD: 2, DOWNLOAD: 1})
        assert root.local_tree()["/todo.txt"] == b"server's list"
        assert "/Shelf/a.txt" not in scene.server_tree()
        return
    # Both versions are kept, the device's under a name that says so; the
    # same bytes on both sides are recorded with no transfer. One transfer at
    # a time, so the copies go up as single uploads whose paths the log shows.
    root.settings(qshost.SETTINGS, "set", "transfers", "1")
    run = scene.sync(requests={UPLOAD: 2, DOWNLOAD: 2})
    assert sorted(run.paths(UPLOAD)) == ["/" + copy_of("Shelf"), "/" + copy_of("todo", ".txt")]
    scene.model = qshost.tree_of({
        "/todo.txt": b"server's list", "/same.epub": b"same book", "/Shelf/a.txt": b"a",
        "/" + copy_of("todo", ".txt"): b"device's list",
        "/" + copy_of("Shelf"): b"a file where the server has a folder"})
    scene.check()
    scene.sync(requests={})


@profiles
def test_a_new_local_folder_where_the_server_has_a_file(scene, root, server, profile):
    root.set_profile(profile)
    scene.server(put={"/Notes": b"the server's notes"})
    scene.device(put={"/Notes/n.txt": b"n"})
    if profile == "classic":
        # The folder's file cannot go up under a file: every pass ends there,
        # and the server's changes never come down.
        for create in ({CREATE: 1}, {CREATE: 1}):
            run = scene.sync(expect=7, requests=dict(create, **{UPLOAD: 1}))
            assert run.paths(UPLOAD) == ["/Notes/n.txt"]
        assert root.local_tree() == {"/Notes": None, "/Notes/n.txt": b"n"}
        return
    # Both are kept: the local folder under a name that says so.
    scene.sync(requests={CREATE: 2, UPLOAD: 1, DOWNLOAD: 1})
    scene.model = qshost.tree_of({"/Notes": b"the server's notes",
                                  "/" + copy_of("Notes") + "/n.txt": b"n"})
    scene.check()
    scene.sync(requests={})

    # New sibling folders are created in one request, and each answer is
    # taken as a single folder's: the one where the server has a file is kept
    # under another name. A batch that fails as a whole creates nothing; the
    # next run asks again.
    for n, fault in enumerate(({"status": 500}, {"status": 429, "retry_after": 0})):
        scene.device(mkdir=["/Empty%d/a" % n, "/Empty%d/b" % n])
        server.add_fault(route=CREATE_BATCH, count=1, **fault)
        scene.sync(requests={CREATE: 1, CREATE_BATCH: 1})
        scene.sync(requests={CREATE_BATCH: 1})
        scene.check()
    scene.server(put={"/Plans": b"the server's plans"})
    scene.device(put={"/Plans/p.txt": b"p", "/Drafts/d.txt": b"d"})
    scene.sync(requests={CREATE_BATCH: 1, CREATE: 1, UPLOAD: 2, DOWNLOAD: 1})
    scene.model = dict(scene.model, **qshost.tree_of({"/Plans": b"the server's plans",
                                                      "/" + copy_of("Plans") + "/p.txt": b"p"}))
    del scene.model["/Plans/p.txt"]
    scene.check()
    scene.sync(requests={})


@profiles
def test_edits_and_deletions_carry_the_revision(scene, root, profile):
    root.set_profile(profile)
    scene.device(put={"/Top.pdf": b"top level", "/a.txt": b"a"})
    scene.sync(requests={UPLOAD: 2})

    scene.device(put={"/Top.pdf": b"top level, edited"})
    if profile == "classic":
        # An edit goes up beside the server's file: the service keeps its own
        # version at the plain name and stores the upload under a name it
        # picks, which then comes down as a new file. The store keeps the old
        # digest for the plain name, so every later run uploads the same edit
        # once more.
        run = scene.sync(requests={UPLOAD: 1, DOWNLOAD: 1})
        assert run.paths(DOWNLOAD) == ["/top (1).pdf"]
        local = dict(scene.model, **{"/Top (1).pdf": b"top level, edited"})
        scene.check(local=local, server=dict(local, **{"/Top.pdf": b"top level"}))
        run = scene.sync(requests={UPLOAD: 1, DOWNLOAD: 1})
        assert run.paths(DOWNLOAD) == ["/top (2).pdf"]
        assert "/Top (2).pdf" in scene.server_tree()
        # A deletion carries no revision: another device's newer edit goes.
        scene.server(put={"/a.txt": b"a, edited elsewhere"})
        scene.device(delete=["/a.txt"])
        scene.sync(requests={DELETE: 1, UPLOAD: 1, DOWNLOAD: 1})
        assert "/a.txt" not in scene.server_tree()
        return

    # In place, once: the row takes the new revision and digest.
    revs = scene.server_revs()
    run = scene.sync(requests={UPLOAD: 1})
    assert [r["args"]["mode"] for r in run.requests if r["route"] == UPLOAD] == [
        {".tag": "update", "update": revs["/top.pdf"]}]
    scene.check()
    scene.sync(requests={})
    # Changed on both sides: the server's version keeps the name, the
    # device's is kept beside it.
    scene.server(put={"/Top.pdf": b"server's edit"})
    scene.device(put={"/Top.pdf": b"device's edit"})
    scene.sync(requests={UPLOAD: 2, DOWNLOAD: 1})
    scene.model["/" + copy_of("Top", ".pdf")] = b"device's edit"
    scene.model["/Top.pdf"] = b"server's edit"
    scene.check()
    # The same for a file that goes up in a session, whose refusal comes
    # without a reason: what the server holds tells.
    big = os.urandom(9 * 1024 * 1024)
    scene.device(put={"/big.bin": big})
    scene.sync(requests={START: 1, APPEND: 1, FINISH: 1})
    scene.server(put={"/big.bin": b"server's big"})
    scene.device(put={"/big.bin": big[::-1]})
    run = scene.sync(requests={START: 2, APPEND: 2, FINISH: 2, DOWNLOAD: 1})
    assert run.paths(FINISH) == ["/big.bin", "/" + copy_of("big", ".bin")]
    scene.model["/" + copy_of("big", ".bin")] = big[::-1]
    scene.model["/big.bin"] = b"server's big"
    scene.check()
    # A deletion of a version another device has replaced deletes nothing,
    # and that version comes down again.
    scene.server(put={"/a.txt": b"a, edited elsewhere"})
    scene.device(delete=["/a.txt"])
    run = scene.sync(requests={DELETE: 1, DOWNLOAD: 1})
    assert [r["args"]["parent_rev"] for r in run.requests if r["route"] == DELETE] == [
        revs["/a.txt"]]
    scene.model["/a.txt"] = b"a, edited elsewhere"
    scene.check()
    scene.sync(requests={})


@profiles
def test_refused_names_and_deletions(scene, root, server, profile):
    root.set_profile(profile)
    scene.device(put={"/Later/b.txt": b"b"})
    scene.server(put={"/from server.txt": b"s"})
    names = ("/desktop.ini", "/ends in a blank ", "/back\\slash.txt")
    if profile == "classic":
        # The root folder comes first in byte order: a refused name there
        # ends the pass before the later folder's file and before the
        # server's changes, in every run until the file is gone.
        create = {CREATE: 1}
        for name in names:
            with open(scene.path(name), "wb") as f:
                f.write(b"refused")
            for _ in range(2):
                run = scene.sync(expect=7, requests=dict(create, **{UPLOAD: 1}))
                assert run.paths(UPLOAD) == [name]
                create = {}
            assert "/from server.txt" not in root.local_tree()
            os.unlink(scene.path(name))
        scene.sync(requests={UPLOAD: 1, DOWNLOAD: 1})
    else:
        # The refused file gets a failed row and stays; everything else goes
        # on, and the run says it did not sync all.
        first = {CREATE: 1, UPLOAD: 1, DOWNLOAD: 1}
        for name in names:
            with open(scene.path(name), "wb") as f:
                f.write(b"refused")
            run = scene.sync(expect=7, requests=dict(first, **{UPLOAD: first.get(UPLOAD, 0) + 1}))
            assert name in run.paths(UPLOAD)
            first = {}
            scene.check(local=dict(scene.model, **{name: b"refused"}), server=scene.model,
                        statuses={name: (4, 3)})
            scene.sync(requests={})  # not asked again until it changes
            os.unlink(scene.path(name))
            scene.sync(requests={})
    scene.check()

    scene.device(put={"/gone.txt": b"g", "/Shelf/a.txt": b"a", "/Shelf/b.txt": b"b",
                      "/Shelf/Sub/c.txt": b"c"})
    scene.sync(requests={UPLOAD: 4, CREATE: 2} if profile == "classic" else
               {START: 4, BATCH: 1, CREATE: 2})
    # A file whose deletion is refused with 429 stays on the server, its row
    # failed. Classic never asks again; safe asks again once the wait the
    # service asked for is over.
    server.add_fault(route=DELETE, path="/gone.txt", status=429, count=1, retry_after=600)
    refused_at = time.time()
    scene.device(delete=["/gone.txt"])
    scene.sync(requests={DELETE: 1})
    kept = dict(scene.model, **{"/gone.txt": b"g"})
    failed = {"/gone.txt": (4, 1)}
    rows = set(p for p, v in kept.items() if v is not None)
    scene.check(server=kept, files=rows, statuses=failed)
    scene.sync(requests={})
    if profile == "safe":
        # The store keeps when the wait ends; here it ends at once.
        db = sqlite3.connect(root.database())
        with db:
            key = ("/gone.txt:delete_after",)
            (until,) = db.execute("SELECT value FROM Info WHERE key = ?", key).fetchone()
            assert refused_at + 590 < int(until) < time.time() + 610
            db.execute("UPDATE Info SET value = '0' WHERE key = ?", key)
        db.close()
        scene.sync(requests={DELETE: 1})
        failed = {}
    kept = {"/gone.txt": b"g"} if profile == "classic" else {}

    # A folder whose deletion is refused: classic empties it file by file;
    # safe leaves it whole. Its own row stays, so the next run deletes the
    # folder itself.
    server.add_fault(route=DELETE, path="/Shelf", status=429, count=1, retry_after=0)
    scene.device(delete=["/Shelf"])
    if profile == "classic":
        run = scene.sync(requests={DELETE: 4})
        assert run.paths(DELETE) == ["/Shelf", "/Shelf/Sub", "/Shelf/a.txt", "/Shelf/b.txt"]
        assert scene.server_tree()["/Shelf"] is None
    else:
        scene.sync(requests={DELETE: 1})
        assert scene.server_tree()["/Shelf/Sub/c.txt"] == b"c"
    assert scene.rows()["folders"]["/Shelf"] == (4, 1)
    scene.sync(requests={DELETE: 1})
    kept = dict(scene.model, **kept)
    scene.check(server=kept, files=set(p for p, v in kept.items() if v is not None),
                statuses=failed)


@profiles
def test_an_emptied_sync_folder_deletes_nothing_until_confirmed(scene, root, server, profile):
    root.set_profile(profile)
    # One upload per file in both profiles: no batch, whose requests differ.
    root.settings(qshost.SETTINGS, "set", "transfers", "1")
    scene.device(put={"/Books/%s.epub" % n: n.encode() for n in "abcd"})
    scene.device(put={"/top1.txt": b"1", "/top2.txt": b"2", "/Notes/n.txt": b"n"})
    scene.sync(requests={UPLOAD: 7, **({CREATE: 2} if profile == "classic" else {CREATE_BATCH: 1})})
    # A folder renamed in case alone is one deletion and one new folder, in
    # both profiles, though safe sends the deletion after the walk.
    scene.device(move=[("/Notes", "/NOTES")])
    run = scene.sync(requests={DELETE: 1, CREATE: 1, UPLOAD: 1})
    assert run.paths(UPLOAD) == ["/NOTES/n.txt"]
    scene.check()
    # The sync folder is empty, as a swapped or half-mounted card shows it.
    scene.device(delete=["/Books", "/NOTES", "/top1.txt", "/top2.txt"])
    if profile == "classic":
        scene.sync(requests={DELETE: 4})
        scene.check()
        return
    kept = qshost.tree_of({"/Books/%s.epub" % n: n.encode() for n in "abcd"})
    kept.update(qshost.tree_of({"/top1.txt": b"1", "/top2.txt": b"2", "/NOTES/n.txt": b"n"}))
    for _ in range(2):
        scene.sync(expect=7, requests={})
        scene.check(server=kept, files=[p for p, v in kept.items() if v is not None],
                    folders=[p for p, v in kept.items() if v is None])
    # The person confirms through the host program; that run deletes.
    result = root.host("sync", "--confirm-deletions")
    assert result.returncode == 0, result
    assert qshost.wait_for(lambda: not server.pending_requests(), timeout=30)
    assert [r["route"] for r in scene.new_requests()
            if r["route"] not in qshost.BASELINE_ROUTES] == [DELETE] * 4
    scene.check()
    scene.sync(requests={})
