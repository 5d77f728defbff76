"""In-process use and the command line of the Dropbox API emulator.

    emu = Emulator(data_dir, accounts=[("alice", "TOKEN_A", None)]).start()
    emu = Emulator(data_dir, ..., costs={"preset": "real"})   # as slow as the service
    emu.store.account("alice")      # direct access to the state, under emu.store.lock
    emu.info                        # the same dict the command line prints
    emu.stop()
"""

import argparse
import json
import os
import signal
import sys
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
if HERE not in sys.path:
    sys.path.insert(0, HERE)

from server import Server, make_tls_context  # noqa: E402
from store import Store  # noqa: E402
from tls import ensure_certificates  # noqa: E402
from traffic import COST_PRESETS, Costs  # noqa: E402


def parse_account(text):
    """NAME:TOKEN[:ACCOUNT_ID]; the account id itself contains a colon (dbid:...)."""
    parts = text.split(":", 2)
    if len(parts) < 2 or not parts[0] or not parts[1]:
        raise argparse.ArgumentTypeError("expected NAME:TOKEN[:ACCOUNT_ID], got %r" % text)
    account_id = parts[2] if len(parts) == 3 else None
    if account_id is not None and not (account_id.startswith("dbid:") and len(account_id) == 40):
        raise argparse.ArgumentTypeError("account id must be dbid: followed by 35 characters")
    return parts[0], parts[1], account_id


def parse_oauth1(text):
    parts = text.split(":", 2)
    if len(parts) != 3 or not all(parts):
        raise argparse.ArgumentTypeError("expected NAME:TOKEN:SECRET, got %r" % text)
    return tuple(parts)


class Emulator:
    """One emulator: a store in `data_dir` served over HTTPS on 127.0.0.1."""

    def __init__(self, data_dir, port=0, accounts=(), oauth1=(), app_key=None, app_secret=None,
                 page_size=None, host="127.0.0.1", verbose=False, settings=None, costs=None):
        os.makedirs(data_dir, exist_ok=True)
        self.data_dir = os.path.abspath(data_dir)
        self.store = Store(self.data_dir)
        if app_key:
            self.store.app_key = app_key
        if app_secret:
            self.store.app_secret = app_secret
        for name, token, account_id in accounts:
            self.store.add_account(name, token, account_id)
        for name, token, secret in oauth1:
            self.store.set_oauth1(name, token, secret)
        if page_size is not None:
            self.store.settings["page_size"] = page_size
        if settings:
            self.store.settings.update(settings)
        self.store.save()
        self.ca_file, cert, key = ensure_certificates(self.data_dir)
        self.server = Server((host, port), self.store, make_tls_context(cert, key), verbose)
        if costs:
            self.server.costs.set(costs)
        self.port = self.server.server_address[1]
        base = "https://%s:%d" % (host, self.port)
        self.info = {
            "api_url": base + "/2",
            "content_url": base + "/2",
            "authorize_url": base + "/oauth2/authorize",
            "token_url": base + "/oauth2/token",
            "redirect_uri": base + "/misc/dropbox/index.html",
            "admin_url": base + "/_admin",
            "host": "%s:%d" % (host, self.port),
            "port": self.port,
            "ca_file": self.ca_file,
            "data_dir": self.data_dir,
            "app_key": self.store.app_key,
            "app_secret": self.store.app_secret,
            "accounts": {a.name: a.account_id for a in self.store.accounts.values()},
            "pid": os.getpid(),
        }
        self._thread = None

    @property
    def faults(self):
        return self.server.faults

    @property
    def costs(self):
        return self.server.costs

    @property
    def log(self):
        return self.server.log

    def start(self):
        self._thread = threading.Thread(target=self.server.serve_forever, kwargs={"poll_interval": 0.2},
                                        name="emulator-%d" % self.port, daemon=True)
        self._thread.start()
        return self

    def stop(self):
        self.server.stopping.set()
        if self._thread is not None:
            self.server.shutdown()
            self._thread.join()
        self.server.server_close()
        self.store.close()


def main(argv=None):
    p = argparse.ArgumentParser(description="Dropbox API emulator (HTTPS, one port for all hosts)")
    p.add_argument("--port", type=int, default=0, help="0 picks a free port")
    p.add_argument("--data-dir", required=True, help="state, file contents and the TLS CA live here")
    p.add_argument("--account", action="append", type=parse_account, default=[],
                   metavar="NAME:TOKEN[:ACCOUNT_ID]", help="account with a long-lived access token")
    p.add_argument("--oauth1", action="append", type=parse_oauth1, default=[],
                   metavar="NAME:TOKEN:SECRET", help="OAuth 1 pair that auth/token/from_oauth1 converts")
    p.add_argument("--app-key", default=None, help="app key (default emu-app-key)")
    p.add_argument("--app-secret", default=None, help="app secret (default emu-app-secret)")
    p.add_argument("--page-size", type=int, default=None, help="entries per listing page (default about 500)")
    p.add_argument("--auto-approve", metavar="ACCOUNT", help="/oauth2/authorize approves for ACCOUNT at once")
    p.add_argument("--auto-deny", action="store_true", help="/oauth2/authorize denies at once")
    p.add_argument("--redirect-uri", action="append", default=[], help="registered redirect URI (default: any)")
    p.add_argument("--legacy-tokens", action="store_true", help="OAuth issues long-lived tokens (no expires_in)")
    p.add_argument("--token-lifetime", type=int, default=None, help="seconds a short-lived token lasts (14400)")
    p.add_argument("--costs", choices=sorted(COST_PRESETS), help="what each request costs (default off); "
                   "the options below change single costs")
    for field in Costs.FIELDS:
        p.add_argument("--" + field.replace("_", "-"), type=float, default=None, metavar="N")
    p.add_argument("--verbose", action="store_true")
    a = p.parse_args(argv)

    settings = {}
    if a.auto_approve:
        settings.update(oauth_mode="allow", oauth_account=a.auto_approve)
    if a.auto_deny:
        settings["oauth_mode"] = "deny"
    if a.redirect_uri:
        settings["redirect_uris"] = a.redirect_uri
    if a.legacy_tokens:
        settings["legacy_tokens"] = True
    if a.token_lifetime:
        settings["token_lifetime"] = a.token_lifetime
    costs = {f: getattr(a, f) for f in Costs.FIELDS if getattr(a, f) is not None}
    if a.costs:
        costs["preset"] = a.costs
    try:
        emu = Emulator(a.data_dir, a.port, a.account, a.oauth1, a.app_key, a.app_secret,
                       a.page_size, verbose=a.verbose, settings=settings, costs=costs)
    except (ValueError, RuntimeError, OSError) as e:
        sys.stderr.write("emulator: %s\n" % e)
        return 2
    done = threading.Event()
    for sig in (signal.SIGTERM, signal.SIGINT):
        signal.signal(sig, lambda *_: done.set())
    emu.start()
    sys.stderr.write("emulator: CA certificate at %s\n" % emu.ca_file)
    sys.stdout.write(json.dumps(emu.info) + "\n")
    sys.stdout.flush()
    while not done.wait(1):
        pass
    emu.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
