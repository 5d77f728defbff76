"""Client of the emulator's admin API, for test code in other processes.

    emu = start_emulator("/tmp/d", accounts=["alice:TOKEN_A"])   # or EmulatorClient(info)
    emu.put_file("alice", "/Books/a.epub", b"...")
    emu.add_fault(route="files/upload", status=429, count=1)
    routes = [r["route"] for r in emu.requests()]
    emu.stop()

Uses one kept-alive HTTPS connection verified against the emulator's CA file.
Standard library only.
"""

import base64
import http.client
import json
import os
import ssl
import subprocess
import threading
import urllib.parse

RUN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "run")


class AdminError(Exception):
    def __init__(self, status, body):
        super().__init__("admin request failed with HTTP %d: %s" % (status, body))
        self.status, self.body = status, body


class EmulatorClient:
    """Admin calls of one emulator. `info` is the JSON line the emulator printed."""

    def __init__(self, info, process=None):
        self.info = info
        self.process = process
        url = urllib.parse.urlsplit(info["admin_url"])
        self._host, self._port, self._prefix = url.hostname, url.port, url.path
        self._ctx = ssl.create_default_context(cafile=info["ca_file"])
        self._conn = None
        self._lock = threading.Lock()

    def __getattr__(self, name):
        # api_url, content_url, ca_file, port... straight from the ready line.
        try:
            return self.info[name]
        except KeyError:
            raise AttributeError(name)

    def _call(self, method, op, body=None, query=None):
        path = "%s/%s" % (self._prefix, op)
        if query:
            path += "?" + urllib.parse.urlencode({k: v for k, v in query.items() if v is not None})
        data = json.dumps(body).encode() if body is not None else None
        headers = {"Content-Type": "application/json"} if data is not None else {}
        with self._lock:
            for attempt in (0, 1):
                if self._conn is None:
                    self._conn = http.client.HTTPSConnection(self._host, self._port, context=self._ctx, timeout=60)
                try:
                    self._conn.request(method, path, body=data, headers=headers)
                    resp = self._conn.getresponse()
                    raw = resp.read()
                    break
                except (http.client.HTTPException, OSError):
                    self._conn.close()
                    self._conn = None
                    if attempt:
                        raise
        result = json.loads(raw) if raw else None
        if resp.status != 200:
            raise AdminError(resp.status, result)
        return result

    # ----- the tree, as another device changes it -----

    def put_file(self, account, path, data, client_modified=None):
        """Adds or overwrites a file with `data` (bytes or str). Returns its metadata."""
        if isinstance(data, str):
            data = data.encode("utf-8")
        return self._call("POST", "files/put", {"account": account, "path": path,
                                                "content_b64": base64.b64encode(data).decode(),
                                                "client_modified": client_modified})

    edit_file = put_file

    def mkdir(self, account, path):
        return self._call("POST", "files/mkdir", {"account": account, "path": path})

    def delete(self, account, path):
        return self._call("POST", "files/delete", {"account": account, "path": path})

    def move(self, account, src, dst):
        """Moves or renames; a change of case only is not reported in the change feed."""
        return self._call("POST", "files/move", {"account": account, "from": src, "to": dst})

    rename = move

    def restrict(self, account, path, restricted=True):
        return self._call("POST", "files/restrict", {"account": account, "path": path, "restricted": restricted})

    def release(self, account, path):
        return self.restrict(account, path, False)

    def tree(self, account, content=False):
        """Entries (tag, path_display, path_lower, id, size, rev, content_hash...), parents first."""
        return self._call("GET", "tree", query={"account": account, "content": "1" if content else None})["entries"]

    def paths(self, account):
        return [e["path_display"] for e in self.tree(account)]

    def read_file(self, account, path):
        entry = self._call("GET", "file", query={"account": account, "path": path})
        return base64.b64decode(entry["content_b64"])

    # ----- accounts and tokens -----

    def accounts(self):
        return self._call("GET", "accounts")["accounts"]

    def add_account(self, name, token=None, account_id=None):
        return self._call("POST", "accounts", {"name": name, "token": token, "account_id": account_id})

    def add_token(self, account, token):
        return self._call("POST", "tokens/add", {"account": account, "token": token})

    def expire_token(self, token=None, account=None):
        """Later requests with the token (or all the account's tokens) get 401 expired_access_token."""
        return self._call("POST", "tokens/expire", {"token": token, "account": account})["expired"]

    def set_oauth1(self, account, token, secret):
        return self._call("POST", "oauth1", {"account": account, "token": token, "secret": secret})

    def oauth_mode(self, mode, account=None):
        """'allow' or 'deny' answer /oauth2/authorize at once; 'page' shows the Allow/Deny page."""
        return self.settings(oauth_mode=mode, oauth_account=account)

    # ----- behaviour -----

    def settings(self, **values):
        """page_size, empty_pages, oauth_mode, oauth_account, token_lifetime, legacy_tokens,
        delete_limit, session_ttl, redirect_uris. With no arguments, reads them."""
        if not values:
            return self._call("GET", "settings")
        return self._call("POST", "settings", values)

    def set_page_size(self, n):
        return self.settings(page_size=n)

    def reset_cursors(self, account):
        return self._call("POST", "cursors/reset", {"account": account})

    def expire_sessions(self, account=None):
        return self._call("POST", "sessions/expire", {"account": account})["expired"]

    def add_fault(self, route="*", count=1, path=None, **action):
        """Misbehaves on the next `count` requests of `route` (e.g. "files/upload"), optionally
        only for an argument path at or under `path`. Actions: status=N (with body, headers,
        retry_after, reason), drop_after=K response body bytes (the request takes effect),
        drop_request_after=K request body bytes (it does not), delay=S, stall=S; skip=N lets
        the first N matching requests pass."""
        fields = dict(action, route=route, count=count)
        if path is not None:
            fields["path"] = path
        return self._call("POST", "faults", fields)

    def set_costs(self, preset=None, **costs):
        """What each request costs from now on: preset "real" or "off" sets them all,
        then rpc_delay, content_delay (seconds), bandwidth (bytes/s per account),
        rate_limit (requests per token per rate_window seconds), write_hold
        (seconds) change single ones. Returns them all."""
        if preset is not None:
            costs["preset"] = preset
        return self._call("POST", "costs", costs)

    def costs(self):
        return self._call("GET", "costs")

    def faults(self):
        return self._call("GET", "faults")["faults"]

    def clear_faults(self):
        return self._call("POST", "faults/clear", {})

    def requests(self, since=0, route=None):
        """Logged API requests: seq, method, route, account, args, status, error, bytes_out."""
        return self._call("GET", "log", query={"since": since, "route": route})["requests"]

    def pending_requests(self):
        """Requests begun and not yet answered (no seq, status or bytes_out yet);
        `time` is when each began."""
        return self._call("GET", "log/pending")["requests"]

    def routes(self, since=0):
        return [r["route"] for r in self.requests(since)]

    def clear_requests(self):
        return self._call("POST", "log/clear", {})

    # ----- lifetime -----

    def close(self):
        with self._lock:
            if self._conn is not None:
                self._conn.close()
                self._conn = None

    def stop(self, timeout=10):
        """Stops an emulator started by start_emulator (SIGTERM, then waits)."""
        self.close()
        if self.process is not None and self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


def start_emulator(data_dir, accounts=(), port=0, extra_args=(), stderr=None):
    """Runs the emulator in a child process; returns an EmulatorClient once it is ready.

    accounts: "NAME:TOKEN[:ACCOUNT_ID]" strings.
    """
    cmd = [RUN, "--port", str(port), "--data-dir", data_dir]
    for a in accounts:
        cmd += ["--account", a]
    cmd += list(extra_args)
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=stderr, text=True)
    line = proc.stdout.readline()
    if not line:
        proc.wait()
        raise RuntimeError("emulator exited with %s before it was ready" % proc.returncode)
    return EmulatorClient(json.loads(line), proc)
