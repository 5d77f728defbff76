"""The sync worker's outcome channels: exit status, sync_error, token marker,
run state, and the store's account check, with bad input around them."""

import os
import signal
import time

import qshost
from conftest import new_account


def test_empty_account_syncs_and_reports_success(root, account):
    result = root.run_sync()
    assert result.returncode == 0 and result.sync_error == 0, result.stderr
    assert root.run_state() == 1
    rows = root.store_rows()
    assert rows["info"]["account_id"] == account.account_id
    assert rows["info"].get("cursor")
    assert "[pid:" in root.log()


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


def test_garbage_database_and_settings_are_recovered(root, account):
    os.makedirs(os.path.dirname(root.database()), exist_ok=True)
    with open(root.database(), "wb") as f:
        f.write(os.urandom(8192))
    # Garbage lines around the real keys of the settings file.
    settings = root.real(qshost.SETTINGS)
    with open(settings, "a") as f:
        f.write("\x00\x01 not a setting\n===\n\xff\xfe\n")
    result = root.run_sync()
    assert result.sync_error == 0, result.stderr
    assert root.store_rows()["info"]["account_id"] == account.account_id


def test_sd_card_folder_without_card(root):
    # Folder settings hold real paths: on a host, paths under the root.
    folder = root.real("/mnt/ext2/Dropbox")
    root.settings(qshost.SETTINGS, "set", "dropbox_folder", folder)
    assert not os.path.exists(root.real("/mnt/ext2"))  # the slot is empty
    result = root.run_sync()
    assert (result.returncode, result.sync_error) == (6, 6)
    assert not os.path.exists(folder)


def test_killall_signal_stops_the_run_gently(root, server, account):
    server.put_file(account.name, "/slow.bin", b"x" * 200000)
    server.add_fault(route="files/download", delay=30, count=1)
    proc = root.start_sync()
    assert qshost.wait_for(lambda: root.run_state() == 2, timeout=20)
    time.sleep(1.0)
    proc.send_signal(signal.SIGTERM)
    out, err = proc.communicate(timeout=30)
    assert proc.returncode == 1, err
    assert root.sync_error() == 1
    assert root.run_state() == 1
    assert not os.path.exists(os.path.join(root.sync_folder(), "slow.bin"))
