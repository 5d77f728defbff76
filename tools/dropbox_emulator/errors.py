"""Error values the emulator answers with, shaped like the real service's.

Route handlers raise these; the HTTP layer turns each into one reply.
"""

import json
import random


class BadInput(Exception):
    """HTTP 400, plain text: 'Error in call to API function "<route>": <message>'."""

    def __init__(self, message):
        super().__init__(message)
        self.message = message


class AuthFailure(Exception):
    """HTTP 401 with an AuthError union such as invalid_access_token."""

    def __init__(self, tag):
        super().__init__(tag)
        self.tag = tag

    def body(self):
        return {"error_summary": summary_of({".tag": self.tag}), "error": {".tag": self.tag}}


class RouteError(Exception):
    """HTTP 409 with the route's error union."""

    def __init__(self, error):
        super().__init__(json.dumps(error))
        self.error = error

    def body(self):
        return {"error_summary": summary_of(self.error), "error": self.error}


class RateLimited(Exception):
    """HTTP 429 with a RateLimitError: `reason` too_many_requests or
    too_many_write_operations, and whole seconds to wait, sent in the body and
    in Retry-After (clients read one or the other)."""

    def __init__(self, reason, retry_after):
        super().__init__(reason)
        self.reason, self.retry_after = reason, int(retry_after)

    def body(self):
        return {"error_summary": self.reason + "/..",
                "error": {"reason": {".tag": self.reason}, "retry_after": self.retry_after}}


class Malformed(Exception):
    """A path that passes the argument pattern but names nothing valid.

    `tag` is the LookupError/WriteError member: malformed_path or disallowed_name.
    Each route wraps it in its own union.
    """

    def __init__(self, tag="malformed_path"):
        super().__init__(tag)
        self.tag = tag


def summary_tags(error):
    """The chain of union tags, following nested members and flattened structs."""
    tags = []
    node = error
    while isinstance(node, dict) and ".tag" in node:
        tag = node[".tag"]
        tags.append(tag)
        inner = node.get(tag)
        if not isinstance(inner, dict):
            # Flattened struct members (UploadWriteFailed.reason) carry the next union.
            inner = next((v for k, v in node.items()
                          if k != ".tag" and isinstance(v, dict) and ".tag" in v), None)
        node = inner
    return tags


def summary_of(error):
    # The service pads summaries with 0-3 dots; clients must not parse them.
    return "/".join(summary_tags(error)) + "/" + "." * random.randint(0, 3)


def tag(name, inner=None, **flat):
    """A union value: {".tag": name} plus a nested member or flattened fields."""
    value = {".tag": name}
    if inner is not None:
        value[name] = inner
    value.update(flat)
    return value


def write_conflict(kind):
    return tag("conflict", tag(kind))
