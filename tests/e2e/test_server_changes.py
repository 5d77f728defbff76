"""Server changes come down: first sync, later changes, restricted content,
stops and a device that cannot store a file. (Lost connections:
test_safe_transfers.py.)"""

import os
import resource
import signal
import subprocess

import qshost

DOWNLOAD = "files/download"

SEED = {
    "/Books/Fiction/Road.epub": b"road " * 3000,
    "/Books/Fiction/\u00dcber \u00e4lles \u2014 \u65e5\u672c.epub": b"unicode name",
    "/Books/Poetry/empty.txt": b"",
    "/Books/Poetry/Big.pdf": os.urandom(5 * 1024 * 1024 + 123),
    "/Papers/2026/deep/deeper/note.txt": b"deep",
    "/Top.pdf": b"top level",
}


def test_first_sync_then_changes_come_down(scene, root):
    scene.server(put=SEED)
    explorer = root.start_explorer()
    try:
        scene.sync(requests={"files/download": len(SEED)})
        rows = scene.check()
        # Folders are changed while a run adds them and synced after it.
        assert all(status == 1 for status, _ in rows["folders"].values())
        progress = root.download_status()
        assert progress is not None and progress.get("phase") == 0 and progress["done"] == progress["total"] == len(SEED)

        scene.sync(requests={})  # nothing new: nothing fetched

        # Another device: an edit, an addition, a file and a folder deleted.
        scene.server(put={"/Top.pdf": b"top level, second edition",
                          "/Books/New/fresh.epub": b"fresh"},
                     delete=["/Papers/2026/deep", "/Books/Poetry"])
        run = scene.sync(requests={"files/download": 2})
        assert sorted(run.paths("files/download")) == ["/books/new/fresh.epub", "/top.pdf"]
        scene.check()
    finally:
        explorer.terminate()
        explorer.communicate()
    with open(root.real("/tmp/explorer_events.log")) as f:
        events = [line.split() for line in f]
    assert events and all(e == ["73", "0", "0"] for e in events)


def test_case_of_the_local_tree_is_kept(scene):
    scene.server(put={"/Books/a.txt": b"a"})
    scene.sync(requests={"files/download": 1})
    # The server renames the folder in case only, then a file arrives in it:
    # the file lands in the folder the device already has.
    scene.server(move=[("/Books", "/BOOKS")], put={"/BOOKS/B.txt": b"b"})
    scene.sync(requests={"files/download": 1})
    scene.check(local=qshost.tree_of({"/Books/a.txt": b"a", "/Books/B.txt": b"b"}),
                server=scene.model)


def test_restricted_content_waits_in_the_failed_state(scene, server, account):
    scene.server(put={"/free.pdf": b"free", "/banned.pdf": b"banned",
                      "/Docs/banned2.pdf": b"banned too", "/Docs/ok.txt": b"ok"})
    banned = ("/banned.pdf", "/Docs/banned2.pdf")
    for path in banned:
        server.restrict(account.name, path)
    assert scene.sync(expect=8, requests={"files/download": 4}).returncode == 8
    files = [p for p, v in scene.model.items() if v is not None]
    scene.check(local={p: v for p, v in scene.model.items() if p not in banned}, server=scene.model,
                files=files, statuses={p: (4, 2) for p in banned})

    # Released: the root file arrives through the retry; the one in a folder
    # is asked for by a joined path the service does not know, and stays.
    for path in banned:
        server.release(account.name, path)
    scene.sync(requests={"files/download": 2})
    scene.check(local={p: v for p, v in scene.model.items() if p != banned[1]}, server=scene.model,
                files=files, statuses={banned[1]: (4, 2)})


def test_stop_or_failure_leaves_no_trace_of_the_file_fetched_ahead(scene, root, server, account):
    # The second file is fetched while the first one downloads; it is
    # complete when the run ends, but only its own entry may put it in place.
    files = {"/a-slow.bin": b"s" * 100000, "/b-next.bin": b"next"}
    scene.server(put=files)
    server.add_fault(route="files/download", path="/a-slow.bin", delay=30, count=1)
    mark = max((r["seq"] for r in server.requests()), default=0)
    proc = root.start_sync()

    def held_and_fetched_ahead():
        held = [(r.get("args") or {}).get("path") for r in server.pending_requests()]
        done = [(r["args"]["path"], r["status"]) for r in server.requests(mark, route=DOWNLOAD)
                if r["account"] == account.name]
        return "/a-slow.bin" in held and done == [("/b-next.bin", 200)]

    assert qshost.wait_for(held_and_fetched_ahead, timeout=30)
    proc.send_signal(signal.SIGTERM)
    proc.communicate(timeout=30)
    assert proc.returncode == 1 and root.sync_error() == 1
    assert root.local_tree() == {} and root.store_rows()["files"] == {}

    # The failure comes slowly, so the file after it has been asked for by
    # then: the one request that a failure makes needless.
    server.add_fault(route=DOWNLOAD, path="/a-slow.bin", status=500, delay=3, count=1)
    scene.new_requests()
    run = scene.sync(expect=7, requests={DOWNLOAD: 2})
    assert sorted(run.paths(DOWNLOAD)) == ["/a-slow.bin", "/b-next.bin"]
    assert root.local_tree() == {} and root.store_rows()["files"] == {}
    scene.sync(requests={DOWNLOAD: 2})
    scene.check()


def test_device_that_cannot_store_a_file(scene, root, server, account):
    long_name = "/" + "\u00e4" * 200 + ".txt"  # 400 bytes: longer than a local name may be
    scene.server(put={long_name: b"x", "/fine.txt": b"fine"})
    scene.sync(expect=3)
    assert long_name not in root.store_rows()["files"]

    # A full disk: writes past 1 MiB fail in the worker.
    server.delete(account.name, long_name)
    server.put_file(account.name, "/huge.bin", os.urandom(2 * 1024 * 1024))

    def limit_file_size():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (1024 * 1024, 1024 * 1024))

    proc = subprocess.run(qshost.program(root.real("/fwroot/bin/dropbox_sync")), env=root.env(),
                          capture_output=True, text=True, timeout=300, preexec_fn=limit_file_size)
    assert proc.returncode == 3, proc.stderr
    assert "/huge.bin" not in root.local_tree()
    assert "/huge.bin" not in root.store_rows()["files"]
