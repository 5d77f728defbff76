"""Local changes in both profiles: what the classic profile does with an edit,
a book that exists in two versions, a deletion racing another device's edit,
a name the service refuses and a refused deletion, and what the safe profile
does instead. Each story runs once per profile."""

import time

import pytest

import qshost

UPLOAD, DELETE, DOWNLOAD, CREATE = ("files/upload", "files/delete", "files/download",
                                    "files/create_folder")

profiles = pytest.mark.parametrize("profile", ["classic", "safe"])


def copy_of(stem, ext=""):
    return "%s (conflicted copy %s)%s" % (stem, time.strftime("%Y-%m-%d"), ext)


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
    # same bytes on both sides are recorded with no transfer.
    run = scene.sync(requests={UPLOAD: 2, DOWNLOAD: 2})
    assert sorted(run.paths(UPLOAD)) == ["/" + copy_of("Shelf"), "/" + copy_of("todo", ".txt")]
    scene.model = qshost.tree_of({
        "/todo.txt": b"server's list", "/same.epub": b"same book", "/Shelf/a.txt": b"a",
        "/" + copy_of("todo", ".txt"): b"device's list",
        "/" + copy_of("Shelf"): b"a file where the server has a folder"})
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
