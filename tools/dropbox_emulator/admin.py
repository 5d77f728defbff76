"""The control API for tests, under /_admin/. JSON in, JSON out.

Tree changes made here go through the same journal as API writes, so clients
see them in their change feed as if another device had made them.
"""

import base64
import json

from errors import Malformed
from reply import Reply
from store import check_components

SETTINGS = {"page_size", "empty_pages", "oauth_mode", "oauth_account", "token_lifetime",
            "legacy_tokens", "delete_limit", "session_ttl", "redirect_uris", "listing_order"}


class AdminError(Exception):
    def __init__(self, status, message):
        super().__init__(message)
        self.status, self.message = status, message


def node_entry(store, node, with_content):
    e = {"tag": "folder" if node.folder else "file", "path_display": node.pd, "path_lower": node.pl,
         "id": node.id}
    if not node.folder:
        e.update(size=node.size, rev=node.rev, content_hash=node.hash, restricted=node.restricted,
                 client_modified=node.cm, server_modified=node.sm)
        if with_content:
            e["content_b64"] = base64.b64encode(store.blobs.read(node.hash)).decode()
    return e


def check_path(path):
    if not isinstance(path, str) or not path.startswith("/"):
        raise AdminError(400, "path must start with /")
    try:
        check_components(path)
    except Malformed:
        raise AdminError(400, "malformed path: %r" % path)
    return path


def content_of(body):
    if "content_b64" in body:
        return base64.b64decode(body["content_b64"])
    content = body.get("content", "")
    return content.encode("utf-8") if isinstance(content, str) else bytes(content)


def op_put(store, body):
    """Adds or replaces a file, as another device saving it."""
    data = content_of(body)
    digest, size = store.blobs.put_bytes(data)
    with store.lock:
        acct = store.account(body["account"])
        node = acct.commit_file(check_path(body["path"]), digest, size, mode="overwrite",
                                client_modified=body.get("client_modified"))
        return node.md(True)


def op_mkdir(store, body):
    with store.lock:
        acct = store.account(body["account"])
        path = check_path(body["path"])
        node = acct.nodes.get(path.lower())
        if node is not None and node.folder:
            return node.md(True)
        return acct.create_folder(path).md(True)


def op_delete(store, body):
    with store.lock:
        node = store.account(body["account"]).delete(check_path(body["path"]))
        return {"deleted": node.pd}


def op_move(store, body):
    with store.lock:
        node = store.account(body["account"]).move(check_path(body["from"]), check_path(body["to"]))
        return node.md(True)


def op_restrict(store, body):
    with store.lock:
        node = store.account(body["account"]).set_restricted(check_path(body["path"]),
                                                             body.get("restricted", True))
        return node.md(True)


def op_tree(store, q):
    with store.lock:
        acct = store.account(q["account"])
        return {"entries": [node_entry(store, n, q.get("content") in ("1", "true", True))
                            for n in acct.tree()],
                "cursor_epoch": acct.epoch, "changes": len(acct.events)}


def op_file(store, q):
    with store.lock:
        acct = store.account(q["account"])
        node = acct.nodes.get(q["path"].lower())
        if node is None or node.folder:
            raise AdminError(404, "no such file")
        return node_entry(store, node, True)


def op_accounts_add(store, body):
    acct = store.add_account(body["name"], body.get("token"), body.get("account_id"))
    return {"name": acct.name, "account_id": acct.account_id}


def op_accounts(store, q):
    with store.lock:
        return {"accounts": [{"name": a.name, "account_id": a.account_id,
                              "namespace_id": a.namespace_id,
                              "tokens": sorted(t for t, e in store.tokens.items()
                                               if e["account"] == a.name and not e["expired"])}
                             for a in store.accounts.values()]}


def op_settings(store, body):
    unknown = set(body) - SETTINGS
    if unknown:
        raise AdminError(400, "unknown settings: %s" % ", ".join(sorted(unknown)))
    with store.lock:
        store.settings.update(body)
        store.save()
        return dict(store.settings)


def handle(handler, op):
    """Serves one admin request; returns a Reply."""
    server, store = handler.server, handler.server.store
    try:
        body = {}
        if handler.command == "POST":
            raw = handler.read_small_body(64 << 20)
            body = json.loads(raw) if raw.strip() else {}
            if not isinstance(body, dict):
                raise AdminError(400, "body must be a JSON object")
        q = {k: v[0] for k, v in handler.query.items()}
        if handler.command == "GET":
            getters = {
                "health": lambda: {"ok": True},
                "tree": lambda: op_tree(store, q),
                "file": lambda: op_file(store, q),
                "accounts": lambda: op_accounts(store, q),
                "faults": lambda: {"faults": server.faults.list()},
                "log": lambda: {"requests": server.log.since(int(q.get("since", 0)), q.get("route"))},
                "log/pending": lambda: {"requests": server.log.pending()},
                "settings": lambda: dict(store.settings),
                "costs": lambda: server.costs.get(),
            }
            if op not in getters:
                raise AdminError(404, "unknown admin operation: GET %s" % op)
            result = getters[op]()
        elif handler.command == "POST":
            posts = {
                "files/put": lambda: op_put(store, body),
                "files/mkdir": lambda: op_mkdir(store, body),
                "files/delete": lambda: op_delete(store, body),
                "files/move": lambda: op_move(store, body),
                "files/restrict": lambda: op_restrict(store, body),
                "accounts": lambda: op_accounts_add(store, body),
                "tokens/add": lambda: (store.add_account(body["account"], body["token"]), {"ok": True})[1],
                "tokens/expire": lambda: {"expired": store.expire_tokens(body.get("token"), body.get("account"))},
                "oauth1": lambda: (store.set_oauth1(body["account"], body["token"], body["secret"]),
                                   {"ok": True})[1],
                "cursors/reset": lambda: (store.reset_cursors(body["account"]), {"ok": True})[1],
                "sessions/expire": lambda: {"expired": store.expire_sessions(body.get("account"))},
                "settings": lambda: op_settings(store, body),
                "faults": lambda: server.faults.add(body).describe(),
                "faults/clear": lambda: (server.faults.clear(), {"ok": True})[1],
                "costs": lambda: server.costs.set(body),
                "log/clear": lambda: (server.log.clear(), {"ok": True})[1],
            }
            if op not in posts:
                raise AdminError(404, "unknown admin operation: POST %s" % op)
            result = posts[op]()
        else:
            raise AdminError(405, "use GET or POST")
        status = 200
    except AdminError as e:
        status, result = e.status, {"error": e.message}
    except KeyError as e:
        status, result = 400, {"error": "missing or unknown: %s" % e}
    except LookupError as e:
        status, result = 404, {"error": "not found: %s" % e}
    except Exception as e:
        status, result = 400, {"error": "%s: %s" % (type(e).__name__, e)}
    return Reply(status, json.dumps(result).encode(), "application/json")
