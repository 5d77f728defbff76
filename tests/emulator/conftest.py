"""One emulator per test session, driven by the official Python SDK and raw HTTP.

Each test takes a fresh account (`acct`) so tests do not see each other's trees.
"""

import http.client
import importlib
import itertools
import json
import os
import ssl
import sys
import types

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "tools", "dropbox_emulator"))

from emulator_client import start_emulator  # noqa: E402

APP_KEY, APP_SECRET = "emu-app-key", "emu-app-secret"
_counter = itertools.count()


@pytest.fixture(scope="session")
def emu(tmp_path_factory):
    data = tmp_path_factory.mktemp("emulator")
    client = start_emulator(str(data), ["alice:TOKEN_A", "bob:TOKEN_B:dbid:AABOLtA1rT6rRK4vajKZrWqLZ7wVnV863u4"],
                            stderr=open(os.path.join(str(data), "stderr.log"), "w"))
    yield client
    client.stop()


@pytest.fixture(scope="session")
def sdk(emu):
    """The dropbox package, pointed at the emulator through its host variables."""
    os.environ.update(DROPBOX_API_HOST=emu.host, DROPBOX_API_CONTENT_HOST=emu.host,
                      DROPBOX_API_NOTIFY_HOST=emu.host,
                      DROPBOX_WEB_HOST=emu.host, REQUESTS_CA_BUNDLE=emu.ca_file)
    for name in [m for m in sys.modules if m == "dropbox" or m.startswith("dropbox.")]:
        del sys.modules[name]      # the hosts are read at import time
    return importlib.import_module("dropbox")


@pytest.fixture
def acct(emu, sdk):
    n = next(_counter)
    name, token = "user%d" % n, "token-user-%d" % n
    emu.add_account(name, token)
    emu.settings(page_size=None, empty_pages=0)
    return types.SimpleNamespace(name=name, token=token, dbx=sdk.Dropbox(
        token, max_retries_on_error=0, max_retries_on_rate_limit=0))


class Raw:
    """Plain HTTPS requests on one kept-alive connection."""

    def __init__(self, emu):
        self.ctx = ssl.create_default_context(cafile=emu.ca_file)
        self.host, self.port = "127.0.0.1", emu.port
        self.conn = None

    def __call__(self, method, path, body=None, headers=None, token=None, arg=None):
        headers = dict(headers or {})
        if token:
            headers.setdefault("Authorization", "Bearer " + token)
        if arg is not None:
            headers["Dropbox-API-Arg"] = arg if isinstance(arg, str) else json.dumps(arg)
        if isinstance(body, (dict, list)):
            body = json.dumps(body)
            headers.setdefault("Content-Type", "application/json")
        if self.conn is None:
            self.conn = http.client.HTTPSConnection(self.host, self.port, context=self.ctx, timeout=30)
        try:
            self.conn.request(method, path, body=body, headers=headers)
            resp = self.conn.getresponse()
            resp.data = resp.read()
        except Exception:
            self.conn.close()
            self.conn = None
            raise
        if resp.getheader("Connection", "").lower() == "close":
            self.conn.close()
            self.conn = None
        return resp

    def json(self, path, body, token):
        return self("POST", path, body, {"Content-Type": "application/json"}, token)


@pytest.fixture
def raw(emu):
    r = Raw(emu)
    yield r
    if r.conn:
        r.conn.close()
