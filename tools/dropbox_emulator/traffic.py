"""What the emulator does to the requests it serves, apart from answering
them, and what it keeps of them: injected faults and the request log.

Conditions laid on requests from outside the API (a test's faults, and any
cost a request is made to pay) live here, beside the log that shows them;
the HTTP front asks them per request. `Faults` and `RequestLog` are shared
by every connection thread and take their own lock.
"""

import collections
import threading

from errors import AuthFailure, RouteError
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
                body = {"error": {"reason": {".tag": self.reason}, "retry_after": self.retry_after}}
                body = dict({"error_summary": self.reason + "/.."}, **body)
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
