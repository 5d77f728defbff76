"""The store, the worker's lock and the log-in, in both profiles: classic
shows the behaviour the design keeps, safe shows the fix. The database fault
loop (test_fault_loops.py) covers failed store calls."""

import signal
import sqlite3
import threading
import time

import pytest

import qshost
from test_login import authorized_code, token_requests

PROFILES = ["classic", "safe"]


@pytest.mark.parametrize("profile", PROFILES)
def test_a_failed_login_and_the_stored_token(root, emulator, server, account, profile):
    """Classic: a denied log-in and every redirect without a valid code empty
    the stored token, and a code the service refuses saves an empty one.
    Safe: all of them leave the token as it was. A browser closed without an
    answer keeps it in both."""
    server.settings(oauth_mode="page", oauth_account=account.name)
    root.set_profile(profile)
    redirect = emulator.info["redirect_uri"]
    code = authorized_code(emulator)
    forged = [redirect + "?code=%s&state=theirs" % code, redirect + "?code=" + code,
              redirect + "?state=theirs"]
    for location in [None, "closed", "refused"] + forged:
        root.login("was-logged-in")
        before = token_requests(server)
        root.person(browser={None: "deny", "closed": "close"}.get(location, "allow"))
        if location == "refused":
            server.add_fault(route="oauth2/token", status=400,
                             body={"error": "invalid_grant"})
        elif location is not None:
            server.add_fault(route="oauth2/authorize", status=302, headers={"Location": location})
        status = root.run_auth().returncode
        server.clear_faults()
        if profile == "safe" or location == "closed":
            assert (status, root.token()) == (10, "was-logged-in"), location
        elif location == "refused":
            assert (status, root.token()) == (0, ""), location
        else:
            assert (status, root.token()) == (10, ""), location
        if location != "refused":
            assert token_requests(server) == before, "a forged code was redeemed"


@pytest.mark.parametrize("profile", PROFILES)
def test_two_workers_on_one_store_and_a_stop(scene, server, profile):
    """Classic: a second worker syncs the same store while the first runs.
    Safe: it ends at once with sync error 1 and leaves the first alone. A
    stop during a download ends a worker within moments with sync error 1
    and the run state idle in both. While the service holds a request,
    classic waits for the answer and loses the stop; safe ends after a grace
    of 3 s with sync error 1."""
    root = scene.root
    root.set_profile(profile)
    scene.server(put={"/slow.bin": b"s" * 100000, "/a.txt": b"a"})
    server.add_fault(route="files/download", path="/slow.bin", delay=10)
    first = root.start_sync()
    try:
        assert qshost.wait_for(lambda: root.run_state() == 2 and any(
            (r.get("args") or {}).get("path") == "/slow.bin"
            for r in server.pending_requests()), timeout=20)
        began = time.time()
        second = root.run_sync(timeout=60)
        if profile == "safe":
            assert time.time() - began < 5
            assert (second.returncode, second.sync_error) == (1, 1)
            assert "another sync of" in root.log()
            assert root.run_state() == 2  # the first one's
            assert first.poll() is None
        else:
            assert "another sync of" not in root.log()
            assert second.sync_error == 0

        began = time.time()
        first.send_signal(signal.SIGTERM)
        first.communicate(timeout=30)
        assert time.time() - began < 3
        assert (first.returncode, root.sync_error(), root.run_state()) == (1, 1, 1)
    finally:
        if first.poll() is None:
            first.kill()
            first.wait()
        # The emulator logs the stopped download once its delay is over.
        qshost.wait_for(lambda: not server.pending_requests(), timeout=15, step=0.2)
    scene.sync()
    scene.check()

    server.add_fault(route="users/get_current_account", delay=10)
    first = root.start_sync()
    assert qshost.wait_for(lambda: server.pending_requests(), timeout=20)
    began = time.time()
    first.send_signal(signal.SIGTERM)
    first.communicate(timeout=30)
    took = time.time() - began
    if profile == "safe":
        assert took < 5
        assert (first.returncode, root.sync_error(), root.run_state()) == (1, 1, 1)
    else:
        # The stop is lost: the run goes on after the answer, with nothing
        # to do here, and reports success.
        assert took > 6
        assert (first.returncode, root.sync_error(), root.run_state()) == (0, 0, 1)
    qshost.wait_for(lambda: not server.pending_requests(), timeout=15, step=0.2)


@pytest.mark.parametrize("profile", PROFILES)
def test_a_store_held_busy_by_the_host(scene, profile):
    """The host holds the store's write lock for longer than a classic
    worker waits. Classic: the rows are not written and the run reports
    success. Safe: the worker waits, and the run records everything."""
    root = scene.root
    root.set_profile(profile)
    scene.sync()
    scene.server(put={"/Books/new.epub": b"new book"})
    host = sqlite3.connect(root.database(), isolation_level=None, check_same_thread=False)
    host.execute("BEGIN IMMEDIATE")
    release = threading.Timer(12, host.rollback)
    release.start()
    try:
        run = scene.sync()
    finally:
        release.join()
        host.close()
    if profile == "safe":
        assert run.sync_error == 0
        scene.check()
    else:
        assert run.sync_error == 0 and "/Books/new.epub" not in scene.rows()["files"]
