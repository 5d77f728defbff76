"""What passes between the HTTP front and the handlers behind it: a request
after its checks (`Call`) and the answer to write (`Reply`).

A leaf: it imports no other module of the emulator, so the server, the API
routes, the OAuth pages, the admin API and the fault injection all take these
types from here. Values are built and read on one connection's thread.
"""

import json


class Reply:
    """status, content type, body bytes, extra headers; or a file slice to stream."""

    def __init__(self, status=200, body=b"", ctype="application/json", headers=None,
                 file=None, reason=None):
        self.status, self.body, self.ctype = status, body, ctype
        self.headers = headers or []
        self.file = file            # (path, start, length) for downloads
        self.reason = reason


class Call:
    """One API request after auth and argument checks."""

    def __init__(self, handler, route, store, account, args, where):
        self.handler, self.route, self.store = handler, route, store
        self.account, self.args, self.where = account, args, where


def dumps(obj):
    # The service escapes everything outside ASCII, in bodies and in headers.
    return json.dumps(obj, ensure_ascii=True).encode("ascii")


def json_reply(obj, status=200):
    return Reply(status, dumps(obj))


def plain_reply(status, text, reason=None):
    return Reply(status, text.encode("utf-8"), "text/plain; charset=utf-8", reason=reason)
