"""The store, the worker's lock and the log-in, in both profiles: classic
shows the behaviour the design keeps, safe shows the fix. The database fault
loop (test_fault_loops.py) covers failed store calls."""

import signal
import sqlite3
import threading
import time

import pytest

import qshost
from test_login import assert_no_secrets_logged, authorized_code, token_requests

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
    assert_no_secrets_logged(root)


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
