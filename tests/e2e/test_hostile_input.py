"""Input the sync must not trust: a listing page with paths that lead out of
the sync folder, and local entries that cannot be read or named to the
service. (Server names as long as the disk allows: test_safe_transfers.py.)"""

import os

# (what, entry of the page): each ends the run before anything outside the
# sync folder, or anything at all, is touched. One row per kind of entry; the
# forms of a path the check refuses are tried one by one in server_path_test.
HOSTILE = [
    ("file above the folder", {".tag": "file", "path_display": "/../outside.txt"}),
    ("deleted folder above the folder", {".tag": "deleted", "path_display": "/a/../../x"}),
    ("deleted file above the folder", {".tag": "deleted", "path_display": "/../outside.txt"}),
    ("folder above the folder", {".tag": "folder", "path_display": "/../made"}),
    ("name of ..", {".tag": "file", "path_display": "/a/y.txt", "name": ".."}),
    ("no path at all", {".tag": "file", "name": "ghost.txt"}),
]


def snapshot(top, *skip):
    """Every path below `top` but those in `skip`, with the content of the files."""
    seen = {}
    for dirpath, dirnames, filenames in os.walk(top):
        dirnames[:] = [d for d in dirnames if os.path.join(dirpath, d) not in skip]
        for name in dirnames + filenames:
            path = os.path.join(dirpath, name)
            seen[path] = None if os.path.isdir(path) else open(path, "rb").read()
    return seen


def test_hostile_listing_touches_nothing_outside(scene, root, server):
    scene.server(put={"/a/keep.txt": b"keep"})
    scene.sync()
    folder = root.sync_folder()
    beside = os.path.dirname(folder)
    with open(os.path.join(beside, "outside.txt"), "wb") as f:
        f.write(b"not the server's")
    os.makedirs(os.path.join(beside, "x", "inner"))
    settings = os.path.join(beside, "system")  # where the run writes its outcome
    before_outside, before_inside = snapshot(beside, folder, settings), snapshot(folder)

    for what, entry in HOSTILE:
        entry = dict(entry)
        if "path_display" in entry:
            entry.setdefault("path_lower", entry["path_display"].lower())
            entry.setdefault("name", entry["path_display"].rsplit("/", 1)[-1])
        if entry[".tag"] == "file":
            entry.update(id="id:hostile", rev="0123456789abcdef", size=5,
                         client_modified="2026-01-01T00:00:00Z", server_modified="2026-01-01T00:00:00Z")
        server.add_fault("files/list_folder/continue", status=200,
                         body={"entries": [entry], "cursor": "hostile", "has_more": False})
        scene.sync(expect=7, requests={})
        assert snapshot(beside, folder, settings) == before_outside, what
        assert snapshot(folder) == before_inside, what
        assert "Refused server entry" in root.log(), what

    # The page was never taken: the next listing goes on from the good cursor.
    scene.server(put={"/a/new.txt": b"new"})
    scene.sync(requests={"files/download": 1})
    scene.check()


def test_unreadable_and_unnamable_local_entries_are_skipped(scene, root):
    scene.device(put={"/Books/a.txt": b"a"})
    folder = root.sync_folder()
    os.mkfifo(os.path.join(folder, "Books", "pipe"))
    os.symlink("pipe", os.path.join(folder, "Books", "link to pipe"))
    bad = os.fsencode(folder) + b"/Books/bad\xff.txt"
    with open(bad, "wb") as f:
        f.write(b"bad")
    os.makedirs(os.fsencode(folder) + b"/dir\xfe")
    with open(os.fsencode(folder) + b"/dir\xfe/inner.txt", "wb") as f:
        f.write(b"inner")

    # Everything else goes up; the run ends by itself and says it left some out.
    scene.sync(expect=7, requests={"files/create_folder": 1, "files/upload": 1})
    assert set(scene.server_tree()) == {"/Books", "/Books/a.txt"}
    assert sorted(scene.rows()["files"]) == ["/Books/a.txt"]
    log = root.log()
    assert log.count("not a regular file") == 2 and log.count("is not UTF-8") == 2
    scene.sync(expect=7, requests={})
