"""Local changes go up: new, edited and deleted files and folders, case
conflicts, chunked uploads and their resumption, refusals and bad files, each
story checked against the local tree, the store and the server's tree, with
every request the worker made counted."""

import os
import signal
import sqlite3

import qshost

MiB = 1024 * 1024
CHUNK = 4 * MiB
UPLOAD = "files/upload"
START, APPEND, FINISH = ("files/upload_session/start", "files/upload_session/append_v2",
                         "files/upload_session/finish")
DELETE, CREATE, DOWNLOAD = "files/delete", "files/create_folder", "files/download"


def info_value(root, key):
    """A key of the store's Info table, read while a worker may be writing."""
    try:
        return root.store_rows()["info"].get(key)
    except sqlite3.Error:
        return None


def test_new_edited_and_deleted_items_reach_the_server(scene):
    scene.device(put={"/Books/Fiction/Road.epub": b"road " * 3000,
                      "/Books/Fiction/\u00dcber \u00e4lles \u2014 \u65e5\u672c.epub": b"unicode",
                      "/Books/Poetry/empty.txt": b"",
                      "/Books/Poetry/Big.pdf": os.urandom(3 * MiB + 17),
                      "/Top.pdf": b"top level",
                      "/Shelf/a.txt": b"a", "/Shelf/Inner/b.txt": b"b"},
                 mkdir=["/Empty/Nested"])
    scene.sync(requests={UPLOAD: 7, CREATE: 7})
    rows = scene.check()
    assert all(status == 1 for status, _ in rows["folders"].values())

    # Nothing changed: the scan digests every file and sends nothing.
    scene.sync(requests={})

    # A file and a folder deleted on the device, each with one request.
    scene.device(delete=["/Books/Poetry/empty.txt", "/Shelf"])
    run = scene.sync(requests={DELETE: 2})
    assert sorted(run.paths(DELETE)) == ["/Books/Poetry/empty.txt", "/Shelf"]
    scene.check()


def test_case_conflicts_move_the_new_item_aside(scene):
    scene.device(put={"/report.pdf": b"old report", "/books/a.txt": b"a", "/x.txt": b"x"})
    scene.sync(requests={UPLOAD: 3, CREATE: 1})

    # New items that differ from known ones only in case are renamed before
    # they go up; the known ones are left alone.
    scene.device(put={"/Report.pdf": b"new report", "/Books/b.txt": b"b"})
    run = scene.sync(requests={UPLOAD: 2, CREATE: 1})
    assert run.paths(CREATE) == ["/Books (Case Conflict)"]
    scene.device(put={"/Report.pdf": b"third report", "/Books/c.txt": b"c"})
    scene.sync(requests={UPLOAD: 2, CREATE: 1})
    scene.model = qshost.tree_of({
        "/report.pdf": b"old report", "/books/a.txt": b"a", "/x.txt": b"x",
        "/Report (Case Conflict).pdf": b"new report",
        "/Report.pdf (Case Conflict (1)).pdf": b"third report",
        "/Books (Case Conflict)/b.txt": b"b", "/Books (Case Conflict (1))/c.txt": b"c"})
    scene.check()

    # A name changed in case alone is a deletion and an addition: the new
    # name goes up as it is.
    scene.device(move=[("/x.txt", "/X.txt")])
    run = scene.sync(requests={DELETE: 1, UPLOAD: 1})
    assert (run.paths(DELETE), run.paths(UPLOAD)) == (["/x.txt"], ["/X.txt"])
    scene.check()


def test_chunked_uploads_and_their_resumption(scene, root, server):
    one_request, three_chunks = os.urandom(2 * CHUNK), os.urandom(2 * CHUNK + 1)
    scene.device(put={"/one.bin": one_request, "/three.bin": three_chunks})
    run = scene.sync(requests={UPLOAD: 1, START: 1, APPEND: 1, FINISH: 1})
    assert run.paths(UPLOAD) == ["/one.bin"]
    scene.check()

    # Killed after its first chunk, the upload goes on in the next process at
    # the stored offset, in the same session.
    scene.device(put={"/resume.bin": os.urandom(3 * CHUNK - 5)})
    server.add_fault(route=APPEND, delay=3, count=1)
    proc = root.start_sync()
    # The offset is stored before the session's id: wait for both.
    def first_chunk_stored():
        return (str(info_value(root, "/resume.bin:uploaded_offset")) == str(CHUNK)
                and info_value(root, "/resume.bin:upload_id"))

    assert qshost.wait_for(first_chunk_stored, timeout=60)
    session = info_value(root, "/resume.bin:upload_id")
    # The second chunk is held by the fault when the process dies; once the
    # emulator has given up on it, the next run's requests are its own.
    held = {"session_id": session, "offset": CHUNK}

    def second_chunk_open():
        return [r for r in server.pending_requests()
                if r["route"] == APPEND and (r.get("args") or {}).get("cursor") == held]

    assert qshost.wait_for(second_chunk_open, timeout=20)
    proc.send_signal(signal.SIGKILL)
    proc.communicate()
    server.clear_faults()
    assert qshost.wait_for(lambda: not second_chunk_open(), timeout=20)
    scene.new_requests()
    run = scene.sync(requests={APPEND: 1, FINISH: 1})
    assert [r["args"]["cursor"] for r in run.requests if r["route"] in (APPEND, FINISH)] == [
        held, {"session_id": session, "offset": 2 * CHUNK}]
    scene.check()
    assert info_value(root, "/resume.bin:upload_id") is None

    # A stop during an upload ends the run with sync error 1 and no row.
    scene.device(put={"/stopped.txt": b"stop me"})
    server.add_fault(route=UPLOAD, delay=10, count=1)
    proc = root.start_sync()
    assert qshost.wait_for(lambda: (UPLOAD, "/stopped.txt") in [
        (r["route"], (r.get("args") or {}).get("path")) for r in server.pending_requests()],
                           timeout=20)
    proc.send_signal(signal.SIGTERM)
    proc.communicate(timeout=30)
    assert proc.returncode == 1 and root.sync_error() == 1
    assert "/stopped.txt" not in scene.rows()["files"]
    # The held upload is logged when its delay ends: here, not in a later test.
    assert qshost.wait_for(lambda: any((r.get("args") or {}).get("path") == "/stopped.txt"
                                       for r in server.requests(route=UPLOAD)), timeout=30)
    scene.new_requests()


def test_a_file_that_cannot_be_read_ends_the_pass(scene):
    # A link to nothing is listed as a file, and opens no more than a file
    # that vanished after the scan: the upload fails before any request, the
    # pass ends, and what went up before it keeps its row.
    scene.device(put={"/a.txt": b"a", "/c.txt": b"c"})
    os.symlink("/nonexistent/target", scene.path("/b.txt"))
    scene.sync(expect=7, requests={UPLOAD: 1})
    assert set(scene.rows()["files"]) == {"/a.txt"}
    os.unlink(scene.path("/b.txt"))
    scene.sync(requests={UPLOAD: 1})
    scene.check()
