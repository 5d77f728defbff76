"""Log-in through the browser stand-in and migration of an old OAuth 1 pair,
with the real dropbox_auth worker against the emulator."""

import http.client
import ssl
import urllib.parse

import pytest

import qshost

OLD_KEYS = ("access_token", "access_token_secret", "user_uid")


@pytest.fixture
def device(root, server, account):
    """`root`, whose person signs in as `account` on the authorisation page."""
    server.settings(oauth_mode="page", oauth_account=account.name)
    return root


def token_requests(server):
    return server.routes().count("oauth2/token")


def test_allow_logs_in_and_out_and_a_sync_works(device, account, server):
    device.login("")
    device.person(browser="allow")
    proc = device.run_auth()
    assert proc.returncode == 0, device.log()[-2000:]
    token = device.token()
    assert token.startswith("sl.")
    assert device.setting("account_id") == account.account_id
    assert device.setting("user_name") and device.setting("user_email")
    # The new account gets the default folder, under its own key and the plain one.
    assert device.setting("dropbox_folder" + account.account_id) == device.sync_folder()
    assert device.setting("dropbox_folder") == device.sync_folder()
    server.put_file(account.name, "/Books/a.epub", b"book")
    assert device.run_sync().sync_error == 0
    assert device.local_tree() == {"/Books": None, "/Books/a.epub": b"book"}

    # The same through the host program and the facade.
    assert "logged out" in device.host("logout").stdout
    assert device.token() == ""
    out = device.host("login")
    assert out.returncode == 0 and "logged in as " in out.stdout, out.stdout
    assert device.setting("account_id") == account.account_id
    assert device.host("sync").returncode == 0


def authorized_code(emulator):
    """A real code for some account, as an attacker could get for their own."""
    info = emulator.info
    conn = http.client.HTTPSConnection(info["host"].split(":")[0], info["port"],
                                       context=ssl.create_default_context(cafile=info["ca_file"]))
    query = urllib.parse.urlencode({"client_id": info["app_key"], "response_type": "code",
                                    "redirect_uri": info["redirect_uri"], "state": "theirs",
                                    "decision": "allow"})
    conn.request("GET", "/oauth2/authorize?" + query)
    location = conn.getresponse().getheader("Location")
    conn.close()
    return urllib.parse.parse_qs(urllib.parse.urlparse(location).query)["code"][0]


def test_bad_token_reply_ends_with_a_logged_failure(device, account, server):
    # A token reply that is JSON but no object: a logged failure, not an abort.
    device.person(browser="allow")
    server.add_fault(route="oauth2/token", status=200, body=[1])
    proc = device.run_auth()
    assert proc.returncode == 70
    assert "the log-in failed:" in device.log()
    assert device.token() == account.token


def test_old_pair_is_migrated_at_start(device, account, server):
    folder = device.real("/mnt/ext1/Old Folder")
    device.login("")
    for key, value in (("user_uid", "77"), ("dropbox_folder77", folder)):
        device.settings(qshost.SETTINGS, "set", key, value)
    for key, value in (("access_token", "v1-token"), ("access_token_secret", "v1-secret")):
        device.settings(qshost.SETTINGS, "set-secret", key, value)
    # The person would close the browser: only a migration can log in.
    device.person(browser="close")
    server.set_oauth1(account.name, "v1-token", "v1-secret")
    assert device.run_auth().returncode == 0
    assert device.token() and device.token() != account.token
    assert device.setting("account_id") == account.account_id
    assert device.setting("dropbox_folder" + account.account_id) == folder
    assert [device.setting(k) for k in OLD_KEYS] == [None, None, None]
    assert device.setting("dropbox_folder77") == folder
    server.put_file(account.name, "/n.txt", b"new")
    result = device.run_sync()
    assert result.sync_error == 0
    with open(folder + "/n.txt", "rb") as f:
        assert f.read() == b"new"
