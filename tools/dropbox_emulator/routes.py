"""The API routes: each takes a Call and returns a Reply (both of reply.py) or
raises an error of errors.py. `ROUTES` at the end names every route served.

Routes hold the store lock only around tree changes, never while bytes move.
Every namespace write (a commit, a folder made, a delete) runs inside
`namespace_write`, where the write-contention cost is taken.
"""

import os
import random
import re

from errors import BadInput, Malformed, RateLimited, RouteError, tag
from reply import Reply, dumps, json_reply
from store import (MAX_REQUEST_BODY, PATTERN_LIST, PATTERN_READ, PATTERN_WRITE,
                   PATTERN_WRITE_OR_ID, Conflict, ContentHasher, check_name_allowed,
                   check_pattern)

MAX_FILE = 2 ** 41 - 2 ** 22


def namespace_write(call):
    return call.handler.server.costs.namespace_write(call.account.name)


def lookup_path(call, value, pattern, where_field="path"):
    check_pattern(value, pattern, call.where)
    return call.account.resolve(value)


# ----- account -----

def get_current_account(call):
    a = call.account
    given = a.name[:1].upper() + a.name[1:]
    return json_reply({
        "account_id": a.account_id,
        "name": {"given_name": given, "surname": "Tester", "familiar_name": given,
                 "display_name": given + " Tester", "abbreviated_name": given[:1].upper() + "T"},
        "email": "%s@example.com" % a.name.lower(),
        "email_verified": True,
        "disabled": False,
        "country": "US",
        "locale": "en",
        "referral_link": "https://www.dropbox.com/referrals/AA%s?src=app9-1" % a.account_id[7:27],
        "is_paired": False,
        "account_type": {".tag": "basic"},
        "root_info": {".tag": "user", "root_namespace_id": a.namespace_id,
                      "home_namespace_id": a.namespace_id},
    })


def token_from_oauth1(call):
    store = call.store
    name = store.oauth1.get(call.args["oauth1_token"] + ":" + call.args["oauth1_token_secret"])
    if name is None or name not in store.accounts:
        raise RouteError(tag("invalid_oauth1_token_info"))
    return json_reply({"oauth2_token": store.issue_token(name)})


# ----- listing -----

def page_limit(store, limit):
    size = store.settings["page_size"]
    if size is None:
        return limit or 500
    return min(limit or size, size)


def list_page(call, cur):
    store, acct = call.store, call.account
    with store.lock:
        if store.settings["empty_pages"] > 0:
            store.settings["empty_pages"] -= 1
            return json_reply({"entries": [], "cursor": store.encode_cursor(acct, cur), "has_more": True})
        limit = page_limit(store, cur["n"])
        if cur["m"] == "L":
            entries, last, more = acct.initial_page(cur, limit)
            if store.settings.get("listing_order") == "shuffled":
                # Real listings aren't alphabetical; only parents-first holds.
                entries.sort(key=lambda e: (e["path_lower"].count("/"), random.random()))
            cur = dict(cur, k=last) if more else dict(cur, m="F", k=None)
        else:
            entries, seq, more = acct.feed_page(cur, limit)
            cur = dict(cur, s=seq)
        return json_reply({"entries": entries, "cursor": store.encode_cursor(acct, cur), "has_more": more})


def start_cursor(call, mode):
    """The fields of a new cursor over the listed folder, after its checks."""
    a = call.args
    if a["path"] == "/":
        raise BadInput('%spath: Specify the root folder as an empty string rather than as "/".' % call.where)
    try:
        pd = lookup_path(call, a["path"], PATTERN_LIST)
    except Malformed:
        raise RouteError(tag("path", tag("malformed_path")))
    except LookupError:
        raise RouteError(tag("path", tag("not_found")))
    pl = pd.lower()
    if pl:
        node = call.account.nodes.get(pl)
        if node is None:
            raise RouteError(tag("path", tag("not_found")))
        if not node.folder:
            raise RouteError(tag("path", tag("not_folder")))
    return {"m": mode, "p": pl, "r": a["recursive"], "d": a["include_deleted"],
            "s": len(call.account.events), "k": None, "n": a["limit"]}


def list_folder(call):
    with call.store.lock:
        return list_page(call, start_cursor(call, "L"))


def list_folder_continue(call):
    text = call.args["cursor"]
    with call.store.lock:
        cur = call.store.decode_cursor(call.account, text)
        if cur is None:
            raise BadInput("Invalid \"cursor\" parameter: '%s'" % text)
        if cur == "reset":
            raise RouteError(tag("reset"))
        if cur["p"] and cur["p"] not in call.account.nodes:
            raise RouteError(tag("path", tag("not_found")))
        return list_page(call, cur)


# ----- folders and deletes -----

def make_folder(call, path, autorename, where):
    """One folder as create_folder makes it; raises the RouteError of a
    CreateFolderError. REQUIRES: store lock held."""
    try:
        check_pattern(path, PATTERN_WRITE, where)
        pd = call.account.resolve(path)
        if pd == "":
            raise Malformed()
        check_name_allowed(pd)
        return call.account.create_folder(pd, autorename)
    except Malformed as e:
        raise RouteError(tag("path", tag(e.tag)))
    except LookupError:
        raise RouteError(tag("path", tag("malformed_path")))
    except Conflict as e:
        raise RouteError(tag("path", e.write_error()))


def create_folder(call):
    with namespace_write(call), call.store.lock:
        return json_reply(make_folder(call, call.args["path"], call.args["autorename"], call.where).md(False))


# The service answers a small batch at once and hands a larger one to a job;
# where it draws the line is not published, so this one is arbitrary.
BATCH_SYNC_LIMIT = 100


def folder_batch_entries(call, paths, autorename):
    """One CreateFolderBatchResultEntry per path, in order, as one namespace write."""
    entries = []
    with namespace_write(call), call.store.lock:
        for path in paths:
            try:
                md = make_folder(call, path, autorename, call.where).md(False)
                entries.append({".tag": "success", "metadata": md})
            except RouteError as e:
                entries.append({".tag": "failure", "failure": e.error})
    return entries


def create_folder_batch(call):
    a = call.args
    # A path that breaks the argument's pattern fails the whole request, before
    # any folder is made.
    for i, path in enumerate(a["paths"]):
        check_pattern(path, PATTERN_WRITE, "%spaths: item %d: " % (call.where, i))
    if len(a["paths"]) <= BATCH_SYNC_LIMIT and not a["force_async"]:
        return json_reply({".tag": "complete", "entries": folder_batch_entries(call, a["paths"], a["autorename"])})
    job = call.store.new_job(call.account.name, {"paths": a["paths"], "autorename": a["autorename"]})
    return json_reply({".tag": "async_job_id", "async_job_id": job})


def create_folder_batch_check(call):
    """The first check after the launch does the job; later ones repeat its answer."""
    store = call.store
    job = store.find_job(call.args["async_job_id"], call.account.name)
    if job is None:
        raise RouteError(tag("invalid_async_job_id"))
    with job["lock"]:
        if "entries" not in job:
            job["entries"] = folder_batch_entries(call, job["paths"], job["autorename"])
    return json_reply({".tag": "complete", "entries": job["entries"]})


def delete(call):
    store = call.store
    with namespace_write(call), store.lock:
        try:
            pd = lookup_path(call, call.args["path"], PATTERN_WRITE_OR_ID)
        except Malformed:
            raise RouteError(tag("path_lookup", tag("malformed_path")))
        except LookupError:
            raise RouteError(tag("path_lookup", tag("not_found")))
        node = call.account.nodes.get(pd.lower())
        if node is None:
            raise RouteError(tag("path_lookup", tag("not_found")))
        parent_rev = call.args["parent_rev"]
        if parent_rev is not None and not node.folder and parent_rev != node.rev:
            raise RouteError(tag("path_write", tag("conflict", tag("file"))))
        if node.folder and len(call.account._subtree(node.pl)) - 1 > store.settings["delete_limit"]:
            raise RouteError(tag("too_many_files"))
        md = node.md(True)
        call.account.delete(pd)
        return json_reply(md)


# ----- download -----

RANGE_RE = re.compile(r"^bytes=(\d*)-(\d*)$")


def download(call):
    store, acct = call.store, call.account
    path = call.args["path"]
    with store.lock:
        check_pattern(path, PATTERN_READ, call.where)
        rev = call.args["rev"]
        if path.startswith("rev:"):
            rev, path = path[4:], None
        if rev is not None:
            if rev not in acct.revs:
                raise RouteError(tag("path", tag("not_found")))
            md, digest = acct.revs[rev]
            node = acct.nodes.get(md["path_lower"])
            restricted = node is not None and node.rev == rev and node.restricted
        else:
            try:
                pd = acct.resolve(path)
            except Malformed:
                raise RouteError(tag("path", tag("malformed_path")))
            except LookupError:
                raise RouteError(tag("path", tag("not_found")))
            node = acct.nodes.get(pd.lower())
            if node is None:
                raise RouteError(tag("path", tag("not_found")))
            if node.folder:
                raise RouteError(tag("path", tag("not_file")))
            md, digest, restricted = node.md(False), node.hash, node.restricted
        if restricted:
            raise RouteError(tag("path", tag("restricted_content")))
    size = md["size"]
    etag = 'W/"%s"' % md["rev"]
    headers = [("Dropbox-API-Result", dumps(md).decode("ascii")), ("Accept-Ranges", "bytes"),
               ("ETag", etag), ("Original-Content-Length", str(size)), ("Cache-Control", "no-cache")]
    inm = call.handler.headers.get("If-None-Match")
    if inm and (inm.strip() == "*" or etag in inm or '"%s"' % md["rev"] in inm):
        return Reply(304, b"", None, headers)
    start, length, status = 0, size, 200
    rng = call.handler.headers.get("Range")
    m = RANGE_RE.match(rng.strip()) if rng else None
    if m and (m.group(1) or m.group(2)):
        if m.group(1):
            first = int(m.group(1))
            last = min(int(m.group(2)), size - 1) if m.group(2) else size - 1
        else:
            first, last = max(size - int(m.group(2)), 0), size - 1
        if first >= size or last < first:
            return Reply(416, b"", "text/plain; charset=utf-8",
                         headers + [("Content-Range", "bytes */%d" % size)])
        start, length, status = first, last - first + 1, 206
        headers.append(("Content-Range", "bytes %d-%d/%d" % (first, last, size)))
    return Reply(status, None, "application/octet-stream", headers,
                 file=(store.blobs.path(digest), start, length))


# ----- uploads -----

class Spool:
    """Receives a body: hashes it and keeps it in memory, or in a file when large."""

    MEMORY = 1 << 20

    def __init__(self, root):
        self.root = root
        self.hasher = ContentHasher()
        self.buf = bytearray()
        self.file = None
        self.tmp = None

    def write(self, chunk):
        self.hasher.update(chunk)
        if self.file is None and len(self.buf) + len(chunk) > self.MEMORY:
            self.tmp = os.path.join(self.root, ".up-%d-%d" % (os.getpid(), id(self)))
            self.file = open(self.tmp, "wb")
            self.file.write(self.buf)
            self.buf = None
        if self.file is not None:
            self.file.write(chunk)
        else:
            self.buf += chunk

    def store(self, blobs):
        """Moves the body into the blob store; returns (content hash, size)."""
        digest = self.hasher.hexdigest()
        if self.file is not None:
            self.file.close()
            blobs.put_file(self.tmp, digest)
            self.file = self.tmp = None
            return digest, self.hasher.size
        return blobs.put_bytes(bytes(self.buf))

    def discard(self):
        if self.file is not None:
            self.file.close()
            os.unlink(self.tmp)
            self.file = self.tmp = None


def payload_too_large(call):
    length = call.handler.body_length()
    if length is not None and length > MAX_REQUEST_BODY:
        call.handler.close_connection = True
        raise RouteError(tag("payload_too_large"))


def receive_or_too_large(call, sink):
    if not call.handler.receive(sink, MAX_REQUEST_BODY):
        call.handler.close_connection = True
        raise RouteError(tag("payload_too_large"))


def commit_path(call, commit):
    try:
        pd = lookup_path(call, commit["path"], PATTERN_WRITE_OR_ID)
        if pd == "":
            raise Malformed()
        check_name_allowed(pd)
        return pd
    except LookupError:
        raise Malformed("malformed_path")


def do_commit(call, pd, commit, digest, size):
    return call.account.commit_file(pd, digest, size, commit["mode"], commit["autorename"],
                                    commit["client_modified"], commit["strict_conflict"])


def receive_checked(call, sink, content_hash, undo):
    """The body into `sink`, checked against `content_hash` when one is
    given; `undo` takes back what was written when either fails."""
    try:
        receive_or_too_large(call, sink)
    except BaseException:
        undo()
        raise
    if content_hash is not None and content_hash != sink.hasher.hexdigest():
        undo()
        raise RouteError(tag("content_hash_mismatch"))


def receive_whole(call, content_hash):
    """The body in a Spool, checked against `content_hash` when one is given."""
    spool = Spool(call.store.blobs.root)
    receive_checked(call, spool, content_hash, spool.discard)
    return spool


def check_no_body(content_hash):
    """A request that brings no bytes may still name a hash: that of nothing."""
    if content_hash not in (None, ContentHasher().hexdigest()):
        raise RouteError(tag("content_hash_mismatch"))


def upload(call):
    store, a = call.store, call.args
    payload_too_large(call)
    with store.lock:
        try:
            pd, err = commit_path(call, a), None
        except Malformed as e:
            pd, err = None, tag(e.tag)
    if err is None:
        spool = receive_whole(call, a["content_hash"])
        try:
            with namespace_write(call):
                digest, size = spool.store(store.blobs)
                with store.lock:
                    try:
                        return json_reply(do_commit(call, pd, a, digest, size).md(False))
                    except Conflict as e:
                        err = e.write_error()
        except RateLimited:
            spool.discard()
            raise
    else:
        call.handler.discard_body()
        digest = None
    # The refused bytes stay in a session so a client may commit them with finish.
    session = store.new_session(call.account.name)
    if digest is not None:
        with open(store.blobs.path(digest), "rb") as src, open(session.path, "wb") as dst:
            while True:
                chunk = src.read(1 << 20)
                if not chunk:
                    break
                dst.write(chunk)
        session.offset = size
    raise RouteError(tag("path", reason=err, upload_session_id=session.sid))


class SessionSink:
    """Appends a body to a session's file; `rollback` drops a partial body."""

    def __init__(self, session):
        self.session = session
        self.start = session.offset
        self.file = open(session.path, "r+b")
        self.file.seek(self.start)
        self.hasher = ContentHasher()

    def write(self, chunk):
        self.hasher.update(chunk)
        self.file.write(chunk)

    def done(self):
        self.file.close()
        self.session.offset = self.start + self.hasher.size

    def rollback(self):
        self.file.truncate(self.start)
        self.file.close()


def append_to_session(call, session, content_hash, closed_error):
    sink = SessionSink(session)
    receive_checked(call, sink, content_hash, sink.rollback)
    if sink.start + sink.hasher.size > MAX_FILE:
        sink.rollback()
        raise RouteError(closed_error("too_large"))
    sink.done()


def upload_session_start(call):
    store, a = call.store, call.args
    payload_too_large(call)
    if a["session_type"] == "concurrent":
        if call.handler.body_length():
            raise RouteError(tag("concurrent_session_data_not_allowed"))
        if a["close"]:
            raise RouteError(tag("concurrent_session_close_not_allowed"))
    length = call.handler.body_length()
    if a["close"] and length is not None and length <= Spool.MEMORY:
        # A small file sent whole: its bytes go where a plain upload's go.
        digest, size = receive_whole(call, a["content_hash"]).store(store.blobs)
        session = store.new_session(call.account.name, blob=digest, size=size)
        return json_reply({"session_id": session.sid})
    # Its id is not known to the client before the reply: it is saved once,
    # closed or not, when the body is in.
    session = store.new_session(call.account.name, save=False)
    with session.lock:
        try:
            append_to_session(call, session, a["content_hash"], tag)
        except RouteError:
            store.drop_session(session)
            raise
    if a["close"]:
        store.close_session(session)
    else:
        store.save_session(session)
    return json_reply({"session_id": session.sid})


def find_session(call, cursor, wrap):
    session = call.store.find_session(cursor["session_id"], call.account.name)
    if session is None:
        raise RouteError(wrap("not_found"))
    return session


def upload_session_append(call):
    a = call.args
    payload_too_large(call)
    session = find_session(call, a["cursor"], tag)
    with session.lock:
        if session.closed:
            raise RouteError(tag("closed"))
        if a["cursor"]["offset"] != session.offset:
            raise RouteError(tag("incorrect_offset", correct_offset=session.offset))
        append_to_session(call, session, a["content_hash"], tag)
        if a["close"]:
            call.store.close_session(session)
    return Reply(200, b"null")


def lookup_failed(name, **flat):
    return tag("lookup_failed", tag(name, **flat))


def session_commit(call, session, commit):
    """Commits a session's bytes as `commit` says and ends the session; raises the
    RouteError of an UploadSessionFinishError. REQUIRES: session.lock held."""
    store = call.store
    with store.lock:
        try:
            pd = commit_path(call, commit)
        except Malformed as e:
            raise RouteError(tag("path", tag(e.tag)))
    if session.blob is not None:
        digest, size = session.blob, session.offset
    else:
        hasher = ContentHasher()
        with open(session.path, "rb") as f:
            while True:
                chunk = f.read(1 << 20)
                if not chunk:
                    break
                hasher.update(chunk)
        digest, size = hasher.hexdigest(), hasher.size
    blob = store.blobs.path(digest)
    with store.lock:
        created = session.blob is None and not os.path.exists(blob)
        if created:
            # A link, not a move: a refused commit leaves the session intact.
            os.makedirs(os.path.dirname(blob), exist_ok=True)
            os.link(session.path, blob)
        try:
            node = do_commit(call, pd, commit, digest, size)
        except Conflict as e:
            if created:
                os.unlink(blob)
            raise RouteError(tag("path", e.write_error()))
    store.drop_session(session)
    return node


def upload_session_finish(call):
    a = call.args
    payload_too_large(call)
    session = find_session(call, a["cursor"], lookup_failed)
    with session.lock:
        if a["cursor"]["offset"] != session.offset:
            raise RouteError(lookup_failed("incorrect_offset", correct_offset=session.offset))
        if session.closed and call.handler.body_length():
            raise RouteError(lookup_failed("closed"))
        before = session.offset
        if session.closed:
            check_no_body(a["content_hash"])
        else:
            append_to_session(call, session, a["content_hash"], lookup_failed)
        try:
            with namespace_write(call):
                return json_reply(session_commit(call, session, a["commit"]).md(False))
        except RateLimited:
            # Nothing was committed: the client repeats the same finish, body and all.
            if not session.closed:
                with open(session.path, "r+b") as f:
                    f.truncate(before)
            session.offset = before
            raise


def upload_session_finish_batch_v2(call):
    """Commits closed sessions, one entry each, in order, as one namespace write;
    each entry succeeds or fails on its own."""
    results = []
    with namespace_write(call):
        for entry in call.args["entries"]:
            try:
                session = find_session(call, entry["cursor"], lookup_failed)
                with session.lock:
                    if not session.closed:
                        raise RouteError(lookup_failed("not_closed"))
                    if entry["cursor"]["offset"] != session.offset:
                        raise RouteError(lookup_failed("incorrect_offset", correct_offset=session.offset))
                    # No body comes with an entry.
                    check_no_body(entry["content_hash"])
                    md = session_commit(call, session, entry["commit"]).md(False)
                results.append(dict({".tag": "success"}, **md))
            except RouteError as e:
                results.append({".tag": "failure", "failure": e.error})
    return json_reply({"entries": results})


ROUTES = {
    # route: (style, auth, handler)
    "users/get_current_account": ("rpc", "user", get_current_account),
    "files/list_folder": ("rpc", "user", list_folder),
    "files/list_folder/continue": ("rpc", "user", list_folder_continue),
    "files/create_folder": ("rpc", "user", create_folder),
    "files/create_folder_batch": ("rpc", "user", create_folder_batch),
    "files/create_folder_batch/check": ("rpc", "user", create_folder_batch_check),
    "files/delete": ("rpc", "user", delete),
    "auth/token/from_oauth1": ("rpc", "app", token_from_oauth1),
    "files/download": ("download", "user", download),
    "files/upload": ("upload", "user", upload),
    "files/upload_session/start": ("upload", "user", upload_session_start),
    "files/upload_session/append_v2": ("upload", "user", upload_session_append),
    "files/upload_session/finish": ("upload", "user", upload_session_finish),
    "files/upload_session/finish_batch_v2": ("rpc", "user", upload_session_finish_batch_v2),
}
