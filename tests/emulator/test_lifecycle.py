"""Restart on the same data folder and side-by-side instances."""

import json

from conftest import Raw
from emulator_client import start_emulator


def test_restart_keeps_state_and_instances_run_side_by_side(tmp_path):
    a_dir, b_dir = str(tmp_path / "a"), str(tmp_path / "b")
    first = start_emulator(a_dir, ["alice:TA:dbid:AAH4f99T0taONIb-OurWxbNQ6ywGRopQngc"])
    other = start_emulator(b_dir, ["alice:TB"], extra_args=["--costs", "real", "--write-hold", "0"])
    try:
        assert first.port != other.port
        assert (other.costs()["rpc_delay"], other.costs()["write_hold"], first.costs()["rpc_delay"]) == (0.3, 0, 0)
        first.put_file("alice", "/Keep/Book.epub", b"pages")
        raw = Raw(first)
        raw_cursor = json.loads(raw.json("/2/files/list_folder", {"path": "", "recursive": True}, "TA").data)["cursor"]
        first.restrict("alice", "/Keep/Book.epub")
        other.put_file("alice", "/only-b.txt", b"b")
        before = first.tree("alice")
        ca = open(first.ca_file, "rb").read()
        octet = {"Content-Type": "application/octet-stream"}
        session, closed = (json.loads(raw("POST", "/2/files/upload_session/start", data, octet, "TA", arg).data)
                           ["session_id"] for data, arg in ((b"half ", {}), (b"small", {"close": True})))
    finally:
        first.stop()
    assert first.process.returncode == 0
    try:
        again = start_emulator(a_dir, [])
        assert again.tree("alice") == before and open(again.ca_file, "rb").read() == ca
        assert [e["path_display"] for e in other.tree("alice")] == ["/only-b.txt"]
        again.put_file("alice", "/Keep/Next.epub", b"more")
        raw = Raw(again)
        feed = json.loads(raw.json("/2/files/list_folder/continue", {"cursor": raw_cursor}, "TA").data)["entries"]
        assert [e["path_display"] for e in feed] == ["/Keep/Next.epub"]     # cursors survive a restart
        revs = [e["rev"] for e in again.tree("alice") if e["tag"] == "file"]
        assert len(set(revs)) == 2             # counters continue after a restart
        finish = {"cursor": {"session_id": session, "offset": 5},
                  "commit": {"path": "/Keep/Whole.txt"}}
        done = raw("POST", "/2/files/upload_session/finish", b"whole", octet, "TA", finish)
        assert done.status == 200, done.data   # an open session survives a restart
        batch = {"entries": [{"cursor": {"session_id": closed, "offset": 5},
                              "commit": {"path": "/Keep/Small.txt"}}]}
        done = raw("POST", "/2/files/upload_session/finish_batch_v2", batch, None, "TA")
        assert json.loads(done.data)["entries"][0][".tag"] == "success", done.data  # a closed one too
        assert again.read_file("alice", "/Keep/Small.txt") == b"small"
    finally:
        again.stop()
        other.stop()
