"""Dangers of the device's design that the README warns of, each shown as it
happens; none of them is a fault of this client's making."""

import signal

import qshost


def seed(server, account, files):
    for path, data in files.items():
        server.put_file(account.name, path, data)


def test_server_folder_with_a_star_removes_its_siblings(root, server, account):
    seed(server, account, {"/Bo*/a.txt": b"a", "/Books/keep.txt": b"keep", "/Box/k.txt": b"k"})
    assert root.run_sync().sync_error == 0
    server.delete(account.name, "/Bo*")
    assert root.run_sync().sync_error == 0
    # The removal command globs: the sibling folders went with it, while the
    # server and the store still have them.
    tree = root.local_tree()
    assert "/Books/keep.txt" not in tree and "/Box/k.txt" not in tree
    assert "/Books/keep.txt" in root.store_rows()["files"]


def test_listing_of_several_pages_repeats_until_stopped(root, server, account):
    seed(server, account, {"/f%d.txt" % i: b"x" for i in range(5)})
    server.settings(page_size=2)
    mark = server.requests()[-1]["seq"]
    proc = root.start_sync()
    # Every page is asked for with the cursor of the pass's start: the first
    # page comes again and again, and the run ends only when stopped.
    assert qshost.wait_for(lambda: len(server.requests(mark, route="files/list_folder")) >= 3,
                           timeout=30)
    proc.send_signal(signal.SIGTERM)
    proc.communicate(timeout=30)
    assert proc.returncode == 1 and root.sync_error() == 1


def test_deletions_after_an_interrupted_first_sync_never_arrive(root, server, account):
    seed(server, account, {"/a.txt": b"a", "/b.txt": b"b"})
    server.add_fault(route="files/download", path="/b.txt", status=500, count=1)
    assert root.run_sync().sync_error == 7
    assert root.local_tree() == {"/a.txt": b"a"}
    # Without a saved cursor the next run lists anew, and a new listing holds
    # no deleted entries: the device keeps the file for good.
    server.delete(account.name, "/a.txt")
    for _ in range(2):
        assert root.run_sync().sync_error == 0
    assert root.local_tree() == {"/a.txt": b"a", "/b.txt": b"b"}


def test_cursor_reset_by_the_service_fails_every_run(root, server, account):
    seed(server, account, {"/a.txt": b"a"})
    assert root.run_sync().sync_error == 0
    server.reset_cursors(account.name)
    server.put_file(account.name, "/new.txt", b"new")
    for _ in range(2):
        result = root.run_sync()
        assert (result.returncode, result.sync_error) == (7, 7)
    assert "/new.txt" not in root.local_tree()
