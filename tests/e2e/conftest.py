"""Fixtures of the end-to-end tests: the emulator, device roots, accounts."""

import itertools
import os
import re
import sys
import time
import types

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))

import qshost  # noqa: E402

_serial = itertools.count(1)


@pytest.fixture(scope="session")
def emulator(tmp_path_factory):
    emu = qshost.Emulator(str(tmp_path_factory.mktemp("emulator")), [])
    emu.start()
    yield emu
    emu.stop()


@pytest.fixture
def server(emulator):
    """The emulator's admin client; no faults are left over after a test."""
    client = emulator.client()
    yield client
    client.clear_faults()
    client.settings(page_size=500)
    client.close()


def new_account(server):
    n = next(_serial)
    account = types.SimpleNamespace(name="user%d" % n, token="token-user%d-0123456789abcdef" % n,
                                    account_id="dbid:AA%033d" % n)
    server.add_account(account.name, account.token, account.account_id)
    return account


@pytest.fixture
def account(server):
    """A fresh, empty account of its own for each test."""
    return new_account(server)


@pytest.fixture
def root(tmp_path, emulator, account):
    """A fresh device root logged in to `account` and pointed at the emulator."""
    device = qshost.DeviceRoot.create(str(tmp_path / "root"))
    device.trust(emulator)
    device.login(account.token)
    yield device
    device.remove_shared_state()
    assert_no_secret_logged(device, account.token)


# What must never reach a log line: the account's token and the app secrets.
APP_SECRETS = ("emu-app-secret", "qsdevsecret0001", "qsptnsecret0013")


def assert_no_secret_logged(device, token):
    log = device.log()
    for secret in (token,) + APP_SECRETS:
        assert secret not in log, "a secret is in the log of %s" % device.path
    # Nor a log-in's code, nor a token that the service handed out.
    assert not re.search(r"[?&]code=(?!<hidden>)", log), device.path
    assert not re.findall(r"sl\.[\w-]+", log), device.path


def copy_of(stem, ext=""):
    """The name the safe profile gives the device's version of a conflict today."""
    return "%s (conflicted copy %s)%s" % (stem, time.strftime("%Y-%m-%d"), ext)


@pytest.fixture
def scene(root, server, account):
    """A scenario on a fresh device root and an empty account (qshost.Scenario)."""
    return qshost.Scenario(root, server, account.name)
