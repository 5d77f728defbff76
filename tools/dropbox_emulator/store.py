"""Server-side state of the emulator: accounts, their trees, revisions, the
change feed, tokens and upload sessions, kept in a data folder.

One `Store` per emulator. Every public method takes `store.lock` itself, so
handler threads may call them at will; file bodies are read and written
outside the lock (blobs are immutable once renamed into place).

On disk, under the data folder:
  state.json             accounts, tokens, OAuth 1 pairs, settings (rewritten atomically)
  journal/<name>.jsonl   per-account append-only log of tree changes; replayed at start
  blobs/xx/<hash>        file contents by content hash, shared by all accounts
  sessions/<id>.part     bytes of an open upload session
  sessions/journal.jsonl append-only records of the sessions (made, closed);
                         replayed and compacted at start
  cursor.key             secret that signs cursors, so a restart keeps them valid
"""

import base64
import bisect
import collections
import hashlib
import hmac
import itertools
import json
import os
import re
import secrets
import tempfile
import threading
import time

from errors import BadInput, Malformed, write_conflict

BLOCK = 4 * 1024 * 1024
MAX_REQUEST_BODY = 150 * 1024 * 1024
SESSION_TTL = 7 * 24 * 3600
DEFAULT_PAGE = 500
DISALLOWED_NAMES = {"desktop.ini", "thumbs.db", ".ds_store", "icon\r", ".dropbox", ".dropbox.attr"}
TIME_FORMAT = "%Y-%m-%dT%H:%M:%SZ"
TIME_RE = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")

# Argument patterns of the API, quoted in its 400 messages.
PATTERN_LIST = r"(/(.|[\r\n])*)?|id:.*|(ns:[0-9]+(/(.|[\r\n])*)?)"
PATTERN_WRITE = r"(/(.|[\r\n])*)|(ns:[0-9]+(/(.|[\r\n])*)?)"
PATTERN_WRITE_OR_ID = r"(/(.|[\r\n])*)|(ns:[0-9]+(/(.|[\r\n])*)?)|(id:.*)"
PATTERN_READ = r"(/(.|[\r\n])*|id:.*)|(rev:[0-9a-f]{9,})|(ns:[0-9]+(/(.|[\r\n])*)?)"


def now_text(t=None):
    return time.strftime(TIME_FORMAT, time.gmtime(time.time() if t is None else t))


class ContentHasher:
    """Dropbox content hash: SHA-256 over the SHA-256 digests of 4 MiB blocks."""

    def __init__(self):
        self._overall = hashlib.sha256()
        self._block = hashlib.sha256()
        self._in_block = 0
        self.size = 0

    def update(self, data):
        view = memoryview(data)
        self.size += len(view)
        while len(view):
            take = min(BLOCK - self._in_block, len(view))
            self._block.update(view[:take])
            self._in_block += take
            view = view[take:]
            if self._in_block == BLOCK:
                self._overall.update(self._block.digest())
                self._block = hashlib.sha256()
                self._in_block = 0

    def hexdigest(self):
        overall = self._overall.copy()
        if self._in_block:
            overall.update(self._block.digest())
        return overall.hexdigest()


def content_hash(data):
    hasher = ContentHasher()
    hasher.update(data)
    return hasher.hexdigest()


def atomic_write(path, data):
    fd, tmp = tempfile.mkstemp(dir=os.path.dirname(path), prefix=".tmp-")
    with os.fdopen(fd, "wb") as f:
        f.write(data)
        f.flush()
        os.fsync(f.fileno())
    os.replace(tmp, path)


def split_name(name, is_folder):
    """Base and extension for autorename; folders and dot-files keep the whole name."""
    dot = name.rfind(".")
    if is_folder or dot <= 0:
        return name, ""
    return name[:dot], name[dot:]


class Blobs:
    """Immutable file contents keyed by content hash."""

    def __init__(self, root):
        self.root = root
        os.makedirs(root, exist_ok=True)
        self._dirs = set()
        self._seq = itertools.count()

    def path(self, digest):
        return os.path.join(self.root, digest[:2], digest)

    def put_bytes(self, data):
        digest = content_hash(data)
        target = self.path(digest)
        if not os.path.exists(target):
            self._ensure_dir(digest)
            tmp = os.path.join(self.root, ".in-%d-%d" % (os.getpid(), next(self._seq)))
            with open(tmp, "wb") as f:
                f.write(data)
            os.replace(tmp, target)
        return digest, len(data)

    def _ensure_dir(self, digest):
        if digest[:2] not in self._dirs:
            os.makedirs(os.path.join(self.root, digest[:2]), exist_ok=True)
            self._dirs.add(digest[:2])

    def put_file(self, src, digest):
        """Moves a finished temporary file into place under `digest`."""
        target = self.path(digest)
        self._ensure_dir(digest)
        if os.path.exists(target):
            os.unlink(src)
        else:
            os.replace(src, target)

    def read(self, digest):
        with open(self.path(digest), "rb") as f:
            return f.read()


class Node:
    """One file or folder of an account's tree."""

    __slots__ = ("folder", "pl", "pd", "id", "rev", "size", "cm", "sm", "hash", "restricted")

    def __init__(self, folder, pd, node_id, rev=None, size=0, cm=None, sm=None, digest=None):
        self.folder = folder
        self.pd = pd                # display path, case as created
        self.pl = pd.lower()
        self.id = node_id
        self.rev = rev
        self.size = size
        self.cm = cm
        self.sm = sm
        self.hash = digest
        self.restricted = False

    @property
    def name(self):
        return self.pd.rsplit("/", 1)[1]

    def md(self, tagged):
        # Key order follows real replies; folders carry no times, size or rev.
        m = {".tag": "folder" if self.folder else "file"} if tagged else {}
        m["name"] = self.name
        m["path_lower"] = self.pl
        m["path_display"] = self.pd
        m["id"] = self.id
        if not self.folder:
            m["client_modified"] = self.cm
            m["server_modified"] = self.sm
            m["rev"] = self.rev
            m["size"] = self.size
            m["is_downloadable"] = True
            m["content_hash"] = self.hash
        return m


def deleted_md(pd):
    return {".tag": "deleted", "name": pd.rsplit("/", 1)[1], "path_lower": pd.lower(), "path_display": pd}


class Account:
    """The tree and change feed of one account. Callers hold the store lock."""

    def __init__(self, store, name, account_id):
        self.store = store
        self.name = name
        self.account_id = account_id
        seed = hashlib.sha256(account_id.encode()).digest()
        self.namespace_id = str(1000000000 + int.from_bytes(seed[:4], "big") % 3000000000)
        self._id_prefix = seed[4:12]
        self._rev_suffix = "%08x" % int(self.namespace_id)
        self.nodes = {}             # path_lower -> Node
        self.tombstones = {}        # path_lower -> deleted metadata, for include_deleted
        self.by_id = {}
        self.revs = {}              # rev -> (metadata, blob hash), for rev: downloads
        self.events = []            # feed: (path_lower, tagged metadata); seq = index + 1
        self.rev_counter = 0x100
        self.id_counter = 0
        self.epoch = 0
        self._sorted = None
        self._journal = None

    # ----- persistence -----

    def journal_path(self):
        return os.path.join(self.store.root, "journal", self.name + ".jsonl")

    def replay(self):
        path = self.journal_path()
        if os.path.exists(path):
            with open(path, "rb") as f:
                for line in f:
                    try:
                        rec = json.loads(line)
                    except ValueError:
                        break       # a torn last line from a crash
                    self._apply(rec)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        self._journal = open(path, "a", encoding="ascii")

    def close(self):
        if self._journal:
            self._journal.close()
            self._journal = None

    def _record(self, rec):
        self._apply(rec)
        self._journal.write(json.dumps(rec, separators=(",", ":")) + "\n")
        self._journal.flush()

    def _apply(self, rec):
        kind = rec["t"]
        if kind == "put":
            m = rec["md"]
            folder = m[".tag"] == "folder"
            node = self.nodes.get(m["path_lower"])
            if node is None or node.folder != folder:
                node = Node(folder, m["path_display"], m["id"])
                self.nodes[node.pl] = node
                self._sorted = None
            node.pd, node.id = m["path_display"], m["id"]
            if not folder:
                node.rev, node.size, node.hash = m["rev"], m["size"], m["content_hash"]
                node.cm, node.sm = m["client_modified"], m["server_modified"]
                node.restricted = rec.get("restricted", False)
                self.revs[node.rev] = (node.md(False), node.hash)
            self.by_id[node.id] = node.pl
            self.tombstones.pop(node.pl, None)
            self.rev_counter = max(self.rev_counter, rec.get("rc", 0))
            self.id_counter = max(self.id_counter, rec.get("ic", 0))
            self.events.append((node.pl, m))
        elif kind == "del":
            m = rec["md"]
            node = self.nodes.pop(m["path_lower"], None)
            if node is not None:
                self.by_id.pop(node.id, None)
                self._sorted = None
            self.tombstones[m["path_lower"]] = m
            self.events.append((m["path_lower"], m))
        elif kind == "case":
            node = self.nodes[rec["pl"]]
            old = node.pd
            for n in self._subtree(node.pl):
                n.pd = rec["pd"] + n.pd[len(old):]
        elif kind == "restrict":
            self.nodes[rec["pl"]].restricted = rec["v"]

    # ----- identifiers -----

    def next_rev(self):
        self.rev_counter += 1
        return "%x%s" % (self.rev_counter, self._rev_suffix)

    def next_id(self):
        self.id_counter += 1
        raw = self._id_prefix + self.id_counter.to_bytes(8, "big")
        return "id:" + base64.urlsafe_b64encode(raw).decode().rstrip("=")

    # ----- tree queries -----

    def sorted_keys(self):
        # Lexical order of path_lower puts every folder before its contents.
        if self._sorted is None:
            self._sorted = sorted(self.nodes)
        return self._sorted

    def _subtree(self, pl):
        keys = self.sorted_keys()
        out = []
        if pl in self.nodes:
            out.append(self.nodes[pl])
        prefix = pl + "/"
        i = bisect.bisect_left(keys, prefix)
        while i < len(keys) and keys[i].startswith(prefix):
            out.append(self.nodes[keys[i]])
            i += 1
        return out

    def resolve(self, path):
        """A path argument (already pattern-checked) to a display path; '' is the root."""
        if path.startswith("ns:"):
            ns, _, rest = path[3:].partition("/")
            if ns != self.namespace_id:
                raise LookupError("not_found")
            path = "/" + rest if rest else ""
        elif path.startswith("id:"):
            ident, slash, rest = path.partition("/")
            pl = self.by_id.get(ident)
            if pl is None:
                raise LookupError("not_found")
            path = self.nodes[pl].pd + (slash + rest if rest else "")
        if path == "":
            return ""
        check_components(path)
        return path

    def tree(self):
        return [self.nodes[k] for k in self.sorted_keys()]

    # ----- writes -----

    def _put_folder(self, pd):
        node_id = self.next_id()
        md = Node(True, pd, node_id).md(True)
        self._record({"t": "put", "md": md, "ic": self.id_counter})
        return self.nodes[pd.lower()]

    def _make_parents(self, pd):
        """Creates missing ancestors of pd; returns pd with existing ancestors' case."""
        parts = pd.split("/")[1:]
        current = ""
        for i, part in enumerate(parts[:-1]):
            current = current + "/" + part
            node = self.nodes.get(current.lower())
            if node is None:
                node = self._put_folder(current)
            elif not node.folder:
                raise Conflict("file_ancestor")
            current = node.pd
        return current + "/" + parts[-1]

    def _free_name(self, pd, is_folder):
        parent, name = pd.rsplit("/", 1)
        base, ext = split_name(name, is_folder)
        n = 1
        while True:
            candidate = "%s/%s (%d)%s" % (parent, base, n, ext)
            if candidate.lower() not in self.nodes:
                return candidate
            n += 1

    def commit_file(self, pd, digest, size, mode="add", autorename=False,
                    client_modified=None, strict=False):
        """Writes a file as upload/finish do. Returns its Node.

        Raises Conflict(kind) when the write is refused.
        """
        pd = self._make_parents(pd)
        existing = self.nodes.get(pd.lower())
        mode_tag = mode[".tag"] if isinstance(mode, dict) else mode
        if existing is not None:
            conflict = None
            if existing.folder:
                conflict = "folder"
            elif existing.hash == digest and not strict:
                # Same bytes: nothing is written and the old metadata stands.
                return existing
            elif mode_tag == "add":
                conflict = "file"
            elif mode_tag == "update" and mode.get("update") != existing.rev:
                conflict = "file"
            if conflict is not None:
                if not autorename:
                    raise Conflict(conflict)
                pd = self._free_name(pd, False)
                existing = None
            else:
                pd = existing.pd
        elif mode_tag == "update" and strict:
            raise Conflict("file")
        stamp = now_text()
        node_id = existing.id if existing else self.next_id()
        rev = self.next_rev()
        md = {".tag": "file", "name": pd.rsplit("/", 1)[1], "path_lower": pd.lower(),
              "path_display": pd, "id": node_id, "client_modified": client_modified or stamp,
              "server_modified": stamp, "rev": rev, "size": size, "is_downloadable": True,
              "content_hash": digest}
        self._record({"t": "put", "md": md, "rc": self.rev_counter, "ic": self.id_counter})
        return self.nodes[pd.lower()]

    def create_folder(self, pd, autorename=False):
        pd = self._make_parents(pd)
        existing = self.nodes.get(pd.lower())
        if existing is not None:
            if not autorename:
                raise Conflict("folder" if existing.folder else "file")
            pd = self._free_name(pd, True)
        return self._put_folder(pd)

    def delete(self, pd):
        """Removes a file or a folder with its contents; returns the removed node."""
        node = self.nodes.get(pd.lower())
        if node is None:
            raise LookupError("not_found")
        for n in self._subtree(node.pl):
            self._record({"t": "del", "md": deleted_md(n.pd)})
        return node

    def move(self, src_pd, dst_pd):
        """Moves or renames as another device would; a case-only change is silent."""
        node = self.nodes.get(src_pd.lower())
        if node is None:
            raise LookupError("not_found")
        if src_pd.lower() == dst_pd.lower():
            self._record({"t": "case", "pl": node.pl, "pd": node.pd.rsplit("/", 1)[0] + "/" + dst_pd.rsplit("/", 1)[1]})
            return node
        if dst_pd.lower() in self.nodes:
            raise Conflict("folder" if self.nodes[dst_pd.lower()].folder else "file")
        if dst_pd.lower().startswith(node.pl + "/"):
            raise Conflict("folder")
        dst_pd = self._make_parents(dst_pd)
        moved = [(n, dst_pd + n.pd[len(node.pd):]) for n in self._subtree(node.pl)]
        restricted = {n.pl for n, _ in moved if n.restricted}
        for n, _ in moved:
            self._record({"t": "del", "md": deleted_md(n.pd)})
        for n, new_pd in moved:
            md = Node(n.folder, new_pd, n.id).md(True)
            rec = {"t": "put", "md": md}
            if not n.folder:
                md.update({"client_modified": n.cm, "server_modified": now_text(),
                           "rev": self.next_rev(), "size": n.size, "is_downloadable": True,
                           "content_hash": n.hash})
                rec["rc"] = self.rev_counter
                rec["restricted"] = n.pl in restricted
            self._record(rec)
        return self.nodes[dst_pd.lower()]

    def set_restricted(self, pd, value):
        node = self.nodes.get(pd.lower())
        if node is None or node.folder:
            raise LookupError("not_found")
        self._record({"t": "restrict", "pl": node.pl, "v": bool(value)})
        return node

    # ----- listing -----

    def in_scope(self, pl, root, recursive):
        if root == "":
            return recursive or pl.count("/") == 1
        if recursive:
            return pl == root or pl.startswith(root + "/")
        return pl.rsplit("/", 1)[0] == root

    def initial_page(self, cur, limit):
        """Entries after cur['k'] of the current tree; None key starts from the top."""
        root, recursive = cur["p"], cur["r"]
        if cur["d"] and self.tombstones:
            keys = sorted(set(self.sorted_keys()) | set(self.tombstones))
        else:
            keys = self.sorted_keys()
        start = root if root else "/"
        i = bisect.bisect_left(keys, start) if cur["k"] is None else bisect.bisect_right(keys, cur["k"])
        entries, last = [], cur["k"]
        while i < len(keys) and len(entries) < limit:
            key = keys[i]
            if root and not (key == root or key.startswith(root + "/")):
                break
            i += 1
            last = key
            if key == root and not recursive:
                continue
            if not self.in_scope(key, root, recursive):
                continue
            node = self.nodes.get(key)
            entries.append(node.md(True) if node is not None else self.tombstones[key])
        more = i < len(keys) and (not root or keys[i] == root or keys[i].startswith(root + "/"))
        return entries, last, more

    def feed_page(self, cur, limit):
        """Changes after seq cur['s'], latest state per path, in order of last change."""
        root, recursive = cur["p"], cur["r"]
        page = collections.OrderedDict()
        i = cur["s"]
        while i < len(self.events) and len(page) < limit:
            pl, md = self.events[i]
            i += 1
            if self.in_scope(pl, root, recursive):
                page[pl] = md
                page.move_to_end(pl)
        return list(page.values()), i, i < len(self.events)


class Conflict(Exception):
    """A WriteConflictError member: file, folder or file_ancestor."""

    def __init__(self, kind):
        super().__init__(kind)
        self.kind = kind

    def write_error(self):
        return write_conflict(self.kind)


def check_pattern(value, pattern, where):
    if not isinstance(value, str):
        raise BadInput("%spath: expected string, got %s" % (where, json_type(value)))
    if not re.fullmatch(pattern, value):
        raise BadInput("%spath: '%s' did not match pattern '%s'" % (where, value, pattern))


def check_components(pd):
    """Rejects names the service can't store: empty parts, dot parts, backslashes...
    A path that is no UTF-8 (a lone surrogate escaped in the JSON) is bad input
    rather than a malformed name, as the service answers it."""
    if any(0xd800 <= ord(c) <= 0xdfff for c in pd):
        raise BadInput("path: %s is not valid UTF-8" % ascii(pd))
    for part in pd.split("/")[1:]:
        if part in ("", ".", "..") or len(part) > 255 or part != part.rstrip(" "):
            raise Malformed()
        if "\\" in part or any(ord(c) < 0x20 and c != "\r" or ord(c) == 0x7f for c in part):
            raise Malformed()


def check_name_allowed(pd):
    """A disallowed name anywhere in the path: no such folder can exist either."""
    if any(part.lower() in DISALLOWED_NAMES for part in pd.split("/")):
        raise Malformed("disallowed_name")


def json_type(value):
    if value is None:
        return "null"
    if isinstance(value, bool):
        return "boolean"
    if isinstance(value, int):
        return "integer"
    if isinstance(value, float):
        return "float"
    if isinstance(value, str):
        return "string"
    if isinstance(value, list):
        return "list"
    return "object"


class Session:
    # `blob`: the content hash of a session that was closed with its one
    # body, kept in the blob store rather than at `path`; None otherwise.
    __slots__ = ("sid", "account", "created", "closed", "path", "offset", "lock", "blob")


class Store:
    """All accounts, tokens and upload sessions of one emulator."""

    def __init__(self, root, app_key="emu-app-key", app_secret="emu-app-secret"):
        self.root = os.path.abspath(root)
        os.makedirs(os.path.join(self.root, "sessions"), exist_ok=True)
        self.lock = threading.RLock()
        self.blobs = Blobs(os.path.join(self.root, "blobs"))
        self.accounts = {}          # name -> Account
        self.tokens = {}            # token -> {"account", "expires" (epoch s or None), "expired"}
        self.oauth1 = {}            # "token:secret" -> account name
        self.refresh_tokens = {}    # refresh token -> account name
        self.sessions = {}
        self._session_journal = None
        self.jobs = {}              # async job id -> dict of the job; in memory only
        self.app_key, self.app_secret = app_key, app_secret
        self.settings = {"page_size": None, "empty_pages": 0, "oauth_mode": "page",
                         "oauth_account": None, "token_lifetime": 14400, "legacy_tokens": False,
                         "delete_limit": 10000, "session_ttl": SESSION_TTL, "listing_order": "sorted"}
        key_path = os.path.join(self.root, "cursor.key")
        if not os.path.exists(key_path):
            atomic_write(key_path, secrets.token_bytes(32))
        with open(key_path, "rb") as f:
            self._cursor_key = f.read()
        self._load()

    # ----- persistence of the small state -----

    def _state_path(self):
        return os.path.join(self.root, "state.json")

    def _load(self):
        if os.path.exists(self._state_path()):
            with open(self._state_path()) as f:
                state = json.load(f)
            for a in state["accounts"]:
                acct = Account(self, a["name"], a["account_id"])
                acct.epoch = a.get("epoch", 0)
                acct.replay()
                self.accounts[acct.name] = acct
            self.tokens = state.get("tokens", {})
            self.oauth1 = state.get("oauth1", {})
            self.refresh_tokens = state.get("refresh_tokens", {})
            self.settings.update(state.get("settings", {}))
        self._load_sessions()

    def save(self):
        state = {"accounts": [{"name": a.name, "account_id": a.account_id, "epoch": a.epoch}
                              for a in self.accounts.values()],
                 "tokens": self.tokens, "oauth1": self.oauth1,
                 "refresh_tokens": self.refresh_tokens, "settings": self.settings}
        atomic_write(self._state_path(), json.dumps(state, indent=1).encode())

    def close(self):
        with self.lock:
            for a in self.accounts.values():
                a.close()
            if self._session_journal:
                self._session_journal.close()
                self._session_journal = None

    # ----- accounts and tokens -----

    def add_account(self, name, token=None, account_id=None):
        with self.lock:
            if not re.fullmatch(r"[A-Za-z0-9_.-]{1,64}", name):
                raise ValueError("account name must be 1-64 of [A-Za-z0-9_.-]")
            acct = self.accounts.get(name)
            if acct is None:
                if not account_id:
                    digest = base64.b64encode(hashlib.sha256(name.encode()).digest(), b"-_").decode()
                    account_id = "dbid:AA" + digest[:33]
                acct = Account(self, name, account_id)
                acct.replay()
                self.accounts[name] = acct
            elif account_id and account_id != acct.account_id:
                raise ValueError("account %s already has id %s" % (name, acct.account_id))
            if token:
                self.tokens[token] = {"account": name, "expires": None, "expired": False}
            self.save()
            return acct

    def account(self, name):
        acct = self.accounts.get(name)
        if acct is None:
            raise KeyError("no such account: %s" % name)
        return acct

    def issue_token(self, name, lifetime=None, prefix=""):
        with self.lock:
            token = prefix + secrets.token_urlsafe(48)
            self.tokens[token] = {"account": name, "expired": False,
                                  "expires": time.time() + lifetime if lifetime else None}
            self.save()
            return token

    def token_account(self, token):
        """The account of a bearer token, or an AuthError tag as a string."""
        entry = self.tokens.get(token)
        if entry is None:
            return None, "invalid_access_token"
        if entry["expired"] or (entry["expires"] is not None and time.time() >= entry["expires"]):
            return None, "expired_access_token"
        return self.accounts.get(entry["account"]), None

    def expire_tokens(self, token=None, account=None):
        with self.lock:
            n = 0
            for t, entry in self.tokens.items():
                if t == token or (account is not None and entry["account"] == account):
                    entry["expired"] = True
                    n += 1
            self.save()
            return n

    def set_oauth1(self, name, token, secret):
        with self.lock:
            self.account(name)
            self.oauth1[token + ":" + secret] = name
            self.save()

    # ----- cursors -----

    def encode_cursor(self, acct, cur):
        cur = dict(cur, a=acct.name, e=acct.epoch)
        raw = json.dumps(cur, separators=(",", ":")).encode()
        mac = hmac.new(self._cursor_key, raw, "sha256").digest()[:12]
        return "AA" + base64.urlsafe_b64encode(mac + raw).decode().rstrip("=")

    def decode_cursor(self, acct, text):
        """The cursor's fields, None for a garbled one, or 'reset' when invalidated."""
        if not isinstance(text, str) or not text.startswith("AA") or len(text) > 4096:
            return None
        try:
            blob = base64.urlsafe_b64decode(text[2:] + "=" * (-len(text[2:]) % 4))
        except ValueError:
            return None
        mac, raw = blob[:12], blob[12:]
        if not hmac.compare_digest(mac, hmac.new(self._cursor_key, raw, "sha256").digest()[:12]):
            return None
        cur = json.loads(raw)
        if cur.get("a") != acct.name:
            return None
        if cur.get("e") != acct.epoch:
            return "reset"
        return cur

    def reset_cursors(self, name):
        with self.lock:
            self.account(name).epoch += 1
            self.save()

    # ----- upload sessions -----

    def _session_obj(self, sid, account, created):
        s = Session()
        s.sid, s.account, s.created, s.closed, s.offset, s.blob = sid, account, created, False, 0, None
        s.lock = threading.Lock()   # one body at a time per session
        s.path = os.path.join(self.root, "sessions", sid.rsplit(":", 1)[-1] + ".part")
        return s

    def _session_journal_path(self):
        return os.path.join(self.root, "sessions", "journal.jsonl")

    def _load_sessions(self):
        """Replays the session records (the last of each id holds; a torn
        last line is skipped), keeps those whose bytes still exist (a
        committed or dropped session has none), and rewrites the journal
        with them alone."""
        latest = {}
        try:
            with open(self._session_journal_path(), encoding="ascii") as f:
                for line in f:
                    try:
                        rec = json.loads(line)
                        latest[rec["sid"]] = rec
                    except (ValueError, KeyError, TypeError):
                        continue
        except FileNotFoundError:
            pass
        for rec in latest.values():
            s = self._session_obj(rec["sid"], rec["account"], rec["created"])
            s.closed = rec.get("closed", False)
            s.blob = rec.get("blob")
            if s.blob is not None:
                s.offset = rec.get("offset", 0)
                if os.path.exists(self.blobs.path(s.blob)):
                    self.sessions[s.sid] = s
            elif os.path.exists(s.path):
                s.offset = os.path.getsize(s.path)
                self.sessions[s.sid] = s
        atomic_write(self._session_journal_path(), "".join(
            self._session_line(s) for s in self.sessions.values()).encode("ascii"))
        self._session_journal = open(self._session_journal_path(), "a", encoding="ascii")

    @staticmethod
    def _session_line(s):
        rec = {"sid": s.sid, "account": s.account, "created": s.created, "closed": s.closed}
        if s.blob is not None:
            rec.update(blob=s.blob, offset=s.offset)
        return json.dumps(rec) + "\n"

    def _save_session(self, s):
        # A session outlives a restart of the emulator, not a power cut of
        # its host: its bytes are not flushed either. One journal line, not a
        # file per session: creating files made a small file sent in a
        # session cost the emulator three times what a plain upload does.
        self._session_journal.write(self._session_line(s))
        self._session_journal.flush()

    def new_session(self, account, save=True, blob=None, size=0):
        """`save` False: the caller saves it once its first body is in.
        `blob`: the session is closed with its one body of `size` bytes
        already in the blob store, as a small file sent whole is, and has
        no file of its own; never committed, it leaves the blob behind, as
        the store keeps every blob."""
        with self.lock:
            sid = "pid_upload_session:" + secrets.token_urlsafe(36)
            s = self._session_obj(sid, account, time.time())
            if blob is None:
                open(s.path, "wb").close()
            else:
                s.closed, s.blob, s.offset, save = True, blob, size, True
            if save:
                self._save_session(s)
            self.sessions[sid] = s
            return s

    def find_session(self, sid, account):
        with self.lock:
            s = self.sessions.get(sid) if isinstance(sid, str) else None
            if s is None or s.account != account:
                return None
            if time.time() - s.created > self.settings["session_ttl"]:
                self.drop_session(s)
                return None
            return s

    def save_session(self, s):
        with self.lock:
            self._save_session(s)

    def close_session(self, s):
        with self.lock:
            s.closed = True
            self._save_session(s)

    def drop_session(self, s):
        with self.lock:
            self.sessions.pop(s.sid, None)
            # Its bytes gone, its records no longer count (see _load_sessions);
            # a blob is not its alone.
            if s.blob is None:
                try:
                    os.unlink(s.path)
                except OSError:
                    pass

    # ----- async jobs -----

    JOB_TTL = 3600  # a job's answer is kept this long after its launch

    def new_job(self, account, fields):
        """A job of `account` with `fields`, and a lock that its worker holds; returns its id."""
        with self.lock:
            now = time.time()
            for jid in [j for j, job in self.jobs.items() if now - job["created"] > self.JOB_TTL]:
                del self.jobs[jid]
            jid = "dbjid:" + secrets.token_urlsafe(48)
            self.jobs[jid] = dict(fields, account=account, created=now, lock=threading.Lock())
            return jid

    def find_job(self, jid, account):
        with self.lock:
            job = self.jobs.get(jid)
            return job if job is not None and job["account"] == account else None

    def expire_sessions(self, account=None):
        with self.lock:
            gone = [s for s in self.sessions.values() if account is None or s.account == account]
            for s in gone:
                self.drop_session(s)
            return len(gone)
