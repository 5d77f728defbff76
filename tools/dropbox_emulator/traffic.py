"""What the emulator does to the requests it serves, apart from answering
them, and what it keeps of them: injected faults, the costs of the service,
and the request log.

Conditions laid on requests from outside the API (a test's faults, and the
cost each request is made to pay) live here, beside the log that shows them;
the HTTP front asks them per request. `Faults`, `Costs` and `RequestLog` are
shared by every connection thread and take their own lock. A cost that waits
sleeps in the request's own thread, never under a lock, so it holds up no
other connection.
"""

import collections
import contextlib
import math
import threading
import time

from errors import AuthFailure, RateLimited, RouteError
from reply import Reply, dumps


class Fault:
    """An injected misbehaviour for the next `count` matching requests, after
    letting the first `skip` of them pass (so a test can hit the i-th)."""

    FIELDS = ("route", "path", "count", "skip", "status", "body", "headers", "retry_after",
              "reason", "drop_after", "drop_request_after", "delay", "stall")

    def __init__(self, fields):
        unknown = set(fields) - set(self.FIELDS)
        if unknown:
            raise ValueError("unknown fault fields: %s" % ", ".join(sorted(unknown)))
        self.route = fields.get("route", "*").strip("/")
        if self.route.startswith("2/"):
            self.route = self.route[2:]
        self.path = fields.get("path")
        self.count = int(fields.get("count", 1))
        self.skip = int(fields.get("skip", 0))
        self.status = fields.get("status")
        self.body = fields.get("body")
        self.headers = fields.get("headers") or {}
        self.retry_after = int(fields.get("retry_after", 1))
        self.reason = fields.get("reason", "too_many_requests")
        self.drop_after = fields.get("drop_after")
        self.drop_request_after = fields.get("drop_request_after")
        self.delay = float(fields.get("delay", 0))
        self.stall = fields.get("stall")
        if not (self.status or self.drop_after is not None or self.drop_request_after is not None
                or self.delay or self.stall):
            raise ValueError("a fault needs status, drop_after, drop_request_after, delay or stall")

    def matches(self, route, path):
        if self.route not in ("*", route):
            return False
        if self.path is None:
            return True
        if not isinstance(path, str):
            return False
        p, want = path.lower(), self.path.lower()
        return p == want or p.startswith(want.rstrip("/") + "/")

    def describe(self):
        return {k: getattr(self, k) for k in self.FIELDS}

    def reply(self, route):
        """The canned reply of a status fault, with the body the service would send."""
        status = int(self.status)
        headers = [(k, str(v)) for k, v in self.headers.items()]
        body = self.body
        if status == 429:
            headers.append(("Retry-After", str(self.retry_after)))
            if body is None:
                body = RateLimited(self.reason, self.retry_after).body()
        elif status == 401 and body is None:
            body = AuthFailure("expired_access_token").body()
            headers.append(("WWW-Authenticate", 'Bearer realm="Dropbox-API"'))
        elif status == 409 and isinstance(body, dict) and "error" in body and "error_summary" not in body:
            body = RouteError(body["error"]).body()
        elif status == 409 and body is None:
            body = RouteError({".tag": "other"}).body()
        if body is None:
            text = {500: "Internal Server Error", 503: "Service Unavailable", 400: "Bad Request"}.get(status, "Error")
            return Reply(status, text.encode(), "text/plain; charset=utf-8", headers)
        if isinstance(body, str):
            return Reply(status, body.encode(), "text/plain; charset=utf-8", headers)
        return Reply(status, dumps(body), "application/json", headers)


class Faults:
    def __init__(self):
        self.lock = threading.Lock()
        self.items = []

    def add(self, fields):
        fault = Fault(fields)
        with self.lock:
            self.items.append(fault)
        return fault

    def take(self, route, path):
        with self.lock:
            for fault in self.items:
                if fault.count > 0 and fault.matches(route, path):
                    if fault.skip > 0:
                        fault.skip -= 1
                        continue
                    fault.count -= 1
                    if fault.count == 0:
                        self.items.remove(fault)
                    return fault
        return None

    def clear(self):
        with self.lock:
            self.items = []

    def list(self):
        with self.lock:
            return [f.describe() for f in self.items]


# Each cost is off (0) unless set. "real" resembles the service as its users
# report it (it publishes no figures); the emulator's README gives the
# reasoning behind each value.
COST_PRESETS = {
    "off": {"rpc_delay": 0, "content_delay": 0, "bandwidth": 0, "rate_limit": 0, "rate_window": 15,
            "write_hold": 0},
    "real": {"rpc_delay": 0.3, "content_delay": 0.5, "bandwidth": 2 << 20, "rate_limit": 300,
             "rate_window": 15, "write_hold": 0.2},
}


class Costs:
    """What each API request pays, as on the real service:

    rpc_delay, content_delay   seconds before an RPC or a content request is served
    bandwidth                  bytes per second of content bodies (upload requests,
                               download replies), shared by all transfers of an account
    rate_limit, rate_window    requests a token may make per window of seconds; beyond
                               that, 429 too_many_requests until the window ends
    write_hold                 seconds a namespace write (a commit, a folder made, a
                               delete) holds its account; another one arriving meanwhile
                               gets 429 too_many_write_operations
    """

    FIELDS = tuple(COST_PRESETS["off"])

    def __init__(self, stopping):
        self.stopping = stopping        # an Event: waits end early when the server stops
        self.lock = threading.Lock()
        self.values = dict(COST_PRESETS["off"])
        self.windows = {}               # token: [end of its window, requests left in it]
        self.links = {}                 # account: when its link has sent what it was given
        self.writing = set()            # accounts with a namespace write in its hold

    def set(self, fields):
        """Changes the given costs (after `preset`, which sets them all); returns them all.
        Raises ValueError and changes nothing on a bad field."""
        fields = dict(fields)
        preset = fields.pop("preset", None)
        if preset is not None and preset not in COST_PRESETS:
            raise ValueError("unknown cost preset %r (known: %s)" % (preset, ", ".join(COST_PRESETS)))
        unknown = set(fields) - set(self.FIELDS)
        if unknown:
            raise ValueError("unknown cost fields: %s" % ", ".join(sorted(unknown)))
        with self.lock:
            values = dict(COST_PRESETS[preset] if preset else self.values)
            for key, value in fields.items():
                if isinstance(value, bool) or not isinstance(value, (int, float)) or value < 0:
                    raise ValueError("cost %s must be a number >= 0, got %r" % (key, value))
                values[key] = value
            if values["rate_window"] <= 0:
                raise ValueError("cost rate_window must be > 0")
            self.values = values
            self.windows.clear()
        return self.get()

    def get(self):
        """The costs, and under "writing" the accounts whose namespace a write holds now."""
        with self.lock:
            return dict(self.values, writing=sorted(self.writing))

    def delay(self, style):
        seconds = self.values["rpc_delay" if style == "rpc" else "content_delay"]
        if seconds:
            self.stopping.wait(seconds)

    def admit(self, token):
        """Counts one request of `token`; raises RateLimited once its window's budget is spent."""
        with self.lock:
            limit = self.values["rate_limit"]
            if not limit:
                return
            now = time.monotonic()
            window = self.windows.get(token)
            if window is None or now >= window[0]:
                window = self.windows[token] = [now + self.values["rate_window"], limit]
            if window[1] <= 0:
                raise RateLimited("too_many_requests", max(1, math.ceil(window[0] - now)))
            window[1] -= 1

    def pacer(self, account):
        """A function that returns once `n` more body bytes have had their time on the
        account's link; None when bandwidth is not capped."""
        rate = self.values["bandwidth"]
        if not rate:
            return None

        def pace(n):
            with self.lock:
                # Time the link stood idle is not banked: no burst after a pause.
                start = max(time.monotonic(), self.links.get(account, 0))
                end = self.links[account] = start + n / rate
            wait = end - time.monotonic()
            if wait > 0:
                self.stopping.wait(wait)
        return pace

    @contextlib.contextmanager
    def namespace_write(self, account):
        """Holds the account's namespace for `write_hold` seconds before the write in the
        block; raises RateLimited when another write of the account holds it."""
        with self.lock:
            hold = self.values["write_hold"]
            busy = bool(hold) and account in self.writing
            if hold and not busy:
                self.writing.add(account)
        if busy:
            raise RateLimited("too_many_write_operations", 1)
        if not hold:
            yield
            return
        try:
            self.stopping.wait(hold)
            yield
        finally:
            with self.lock:
                self.writing.discard(account)


class RequestLog:
    """The last requests: route, arguments, status. Bounded.

    A request is open from the moment its head is read until it is answered
    (`begin` to `add`), so a client that has its answers can wait for the
    log to hold them without guessing how long the server takes to log.
    """

    def __init__(self, limit=20000):
        self.lock = threading.Lock()
        self.items = collections.deque(maxlen=limit)
        self.seq = 0
        self.open = {}

    def begin(self, entry):
        with self.lock:
            self.open[id(entry)] = entry

    def forget(self, entry):
        with self.lock:
            self.open.pop(id(entry), None)

    def add(self, entry):
        with self.lock:
            self.open.pop(id(entry), None)
            self.seq += 1
            entry["seq"] = self.seq
            self.items.append(entry)

    def pending(self):
        """Copies of the requests begun and not yet answered."""
        with self.lock:
            return [dict(e) for e in self.open.values()]

    def since(self, seq=0, route=None):
        with self.lock:
            return [e for e in self.items if e["seq"] > seq and (route is None or e["route"] == route)]

    def clear(self):
        with self.lock:
            self.items.clear()
