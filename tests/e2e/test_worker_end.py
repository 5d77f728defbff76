"""A reply of a shape the library does not expect ends the run by an
exception that nothing in the library catches; the worker still ends cleanly
with sync error 7 and the run state idle, and the next run recovers."""

import pytest

FILE = {".tag": "file", "name": "a.txt", "path_lower": "/a.txt", "path_display": "/a.txt",
        "id": "id:a", "rev": "0123456789abcdef", "size": 1}

MALFORMED = {
    "has_more": ("files/list_folder", 200, {"entries": [], "cursor": "c", "has_more": "yes"}),
    "size": ("files/list_folder", 200,
             {"entries": [dict(FILE, size="one")], "cursor": "c", "has_more": False}),
    "409 body": ("files/list_folder", 409, {"error_summary": "x/", "error": ["not", "a", "union"]}),
}


@pytest.mark.parametrize("case", sorted(MALFORMED))
def test_exception_ends_the_worker_cleanly(root, server, account, case):
    server.put_file(account.name, "/a.txt", b"a")
    route, status, body = MALFORMED[case]
    server.add_fault(route=route, status=status, body=body, count=1)
    root.settings("/mnt/ext1/system/config/dropbox/sync_err.cfg", "set", "sync_error", "0")
    result = root.run_sync()
    assert (result.returncode, result.sync_error, root.run_state()) == (7, 7, 1), result.stderr
    assert "Uncaught exception" in root.log()
    result = root.run_sync()
    assert result.sync_error == 0 and root.local_tree() == {"/a.txt": b"a"}
