"""The sync worker's outcome channels: exit status, sync_error, token marker,
and the store's account check."""

import os

import qshost
from conftest import new_account


def test_unreachable_server_is_no_network(tmp_path, account):
    device = qshost.DeviceRoot.create(str(tmp_path / "root"))
    device.settings(qshost.SERVICE, "set", "api_url", "https://127.0.0.1:1/2")
    device.settings(qshost.SERVICE, "set", "content_url", "https://127.0.0.1:1/2")
    device.login(account.token)
    result = device.run_sync()
    assert (result.returncode, result.sync_error) == (2, 2)
    assert device.token() == account.token  # a dead network is no refusal


def test_refused_token_is_marked_expired_and_missing_token_is_kept(root, account, server):
    server.expire_token(token=account.token)
    result = root.run_sync()
    assert (result.returncode, result.sync_error) == (4, 4)
    assert root.token() == "<expired>"

    root.login("not-a-token")
    assert root.run_sync().sync_error == 4
    assert root.token() == "<expired>"

    # Logged out: the service refuses an empty bearer as malformed input (400,
    # a failure the engine does not name) and there is nothing to mark.
    root.login("")
    assert root.run_sync().sync_error in (4, 7)
    assert root.token() == ""


def test_store_of_another_account_is_left_untouched(root, server):
    assert root.run_sync().sync_error == 0
    db = root.database()
    with open(db, "rb") as f:
        before = f.read()
    folder_before = sorted(os.listdir(root.sync_folder()))

    root.login(new_account(server).token)
    result = root.run_sync()
    assert (result.returncode, result.sync_error) == (5, 5)
    with open(db, "rb") as f:
        assert f.read() == before
    assert sorted(os.listdir(root.sync_folder())) == folder_before
    assert "Wrong User" in root.log()


def test_sd_card_folder_without_card(root):
    # Folder settings hold real paths: on a host, paths under the root.
    folder = root.real("/mnt/ext2/Dropbox")
    root.settings(qshost.SETTINGS, "set", "dropbox_folder", folder)
    assert not os.path.exists(root.real("/mnt/ext2"))  # the slot is empty
    result = root.run_sync()
    assert (result.returncode, result.sync_error) == (6, 6)
    assert not os.path.exists(folder)
