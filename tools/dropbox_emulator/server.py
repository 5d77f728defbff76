"""HTTPS front of the emulator: request parsing, auth, the faults, costs and
request log of traffic.py applied to each API request, and dispatch to the
API routes, the OAuth pages and the admin API.

One thread per connection (HTTP/1.1 keep-alive). Every reply is written in one
piece with a Content-Length, so clients can reuse the connection.
"""

import base64
import email.utils
import http.server
import json
import secrets
import socket
import ssl
import sys
import threading
import time
import traceback
import urllib.parse

import admin
import oauth
from args import ROUTE_ARGS, check_struct
from errors import AuthFailure, BadInput, RateLimited, RouteError, summary_tags
from reply import Call, Reply, dumps, plain_reply
from routes import ROUTES
from traffic import Costs, Faults, RequestLog

RPC_BODY_LIMIT = 1 << 20
# An answer given before the body is read (a fault, an early error) still
# reads a body of an upload's size, so the client gets the answer instead of a
# reset of a connection closed on unread data.
DRAIN_LIMIT = 150 << 20
REDIRECT_PAGE = "/misc/dropbox/index.html"  # stands in for the app maker's redirect page
IDLE_TIMEOUT = 120
MAX_CONNECTIONS = 256

RPC_TYPES = ("application/json", "application/json; charset=utf-8", "text/plain; charset=dropbox-cors-hack")
UPLOAD_TYPES = ("application/octet-stream", "text/plain; charset=dropbox-cors-hack")


class Server(http.server.ThreadingHTTPServer):
    """Threaded HTTPS server; the TLS handshake runs in the connection's thread."""

    daemon_threads = True
    request_queue_size = 64

    def __init__(self, address, store, tls_context, verbose=False):
        self.store = store
        self.tls = tls_context
        self.verbose = verbose
        self.faults = Faults()
        self.log = RequestLog()
        self.oauth = oauth.OAuth(store)
        self.slots = threading.BoundedSemaphore(MAX_CONNECTIONS)
        self.stopping = threading.Event()
        self.costs = Costs(self.stopping)
        self.base_url = None
        super().__init__(address, Handler)

    def process_request(self, request, client_address):
        if not self.slots.acquire(blocking=False):
            self.shutdown_request(request)
            return
        super().process_request(request, client_address)

    def process_request_thread(self, request, client_address):
        try:
            request.settimeout(10)
            # Replies go out in one or two writes; don't let Nagle hold the second.
            request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            try:
                request = self.tls.wrap_socket(request, server_side=True)
            except (OSError, ssl.SSLError):
                self.shutdown_request(request)
                return
            request.settimeout(IDLE_TIMEOUT)
            super().process_request_thread(request, client_address)
        finally:
            self.slots.release()

    def handle_error(self, request, client_address):
        if self.verbose:
            traceback.print_exc()


_date_cache = [0, ""]


def http_date():
    now = int(time.time())
    if _date_cache[0] != now:
        _date_cache[:] = [now, email.utils.formatdate(now, usegmt=True)]
    return _date_cache[1]


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "emulator"
    # Bounds what a client can make us hold: header count and line length.
    MAX_HEADERS = 100

    def log_message(self, fmt, *args):
        if self.server.verbose:
            sys.stderr.write("emulator: %s\n" % (fmt % args))

    def do_GET(self):
        self.dispatch()

    do_POST = do_PUT = do_DELETE = do_PATCH = do_OPTIONS = do_HEAD = do_GET

    # ----- body handling -----

    def body_length(self):
        """Declared body length, or None for a chunked body."""
        if "chunked" in (self.headers.get("Transfer-Encoding") or "").lower():
            return None
        return self._length

    def receive(self, sink, limit, stop_after=None):
        """Feeds the body to sink.write in pieces. False when it exceeds `limit`.

        With stop_after, reads that many bytes and then drops the connection.
        """
        self._body_read = True
        length = self.body_length()
        if length is not None and length > limit:
            self.close_connection = True
            return False
        total = 0
        for piece in self._pieces():
            total += len(piece)
            if total > limit:
                self.close_connection = True
                return False
            if stop_after is not None and total >= stop_after:
                raise DropConnection()
            if self._pace is not None:
                self._pace(len(piece))
            sink.write(piece)
        return True

    def _pieces(self):
        if self.body_length() is None:
            while True:
                line = self.rfile.readline(1024)
                try:
                    size = int(line.split(b";")[0].strip(), 16)
                except ValueError:
                    raise BadBody()
                if size == 0:
                    while self.rfile.readline(1024).strip():
                        pass
                    return
                while size:
                    piece = self.rfile.read(min(size, 1 << 16))
                    if not piece:
                        raise DropConnection()
                    size -= len(piece)
                    yield piece
                self.rfile.readline(16)
        else:
            left = self._length
            while left:
                piece = self.rfile.read(min(left, 1 << 16))
                if not piece:
                    raise DropConnection()
                left -= len(piece)
                yield piece

    def read_small_body(self, limit):
        buf = _Buf()
        if not self.receive(buf, limit):
            raise BodyTooLarge()
        return bytes(buf)

    def discard_body(self):
        """Drains an unread body so the connection stays usable, or marks it to close."""
        if self._body_read:
            return
        length = self.body_length()
        if length is None or length > DRAIN_LIMIT:
            self.close_connection = True
            self._body_read = True
            return
        try:
            self.receive(_Null(), DRAIN_LIMIT)
        except (DropConnection, BadBody, OSError):
            self.close_connection = True

    # ----- replies -----

    def send(self, reply, drop_after=None):
        status = reply.status
        reason = reply.reason or self.responses.get(status, ("Unknown",))[0]
        lines = ["HTTP/1.1 %d %s" % (status, reason), "Date: " + http_date(),
                 "X-Dropbox-Request-Id: " + secrets.token_hex(16)]
        if reply.ctype:
            lines.append("Content-Type: " + reply.ctype)
        for k, v in reply.headers:
            lines.append("%s: %s" % (k, v))
        length = reply.file[2] if reply.file else len(reply.body)
        if status != 304:
            lines.append("Content-Length: %d" % length)
        self.discard_body()
        if drop_after is not None:
            self.close_connection = True
        if self.close_connection:
            lines.append("Connection: close")
        head = ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")
        self._status, self._bytes_out = status, 0
        if reply.file is None or self.command == "HEAD" or status == 304:
            body = b"" if self.command == "HEAD" or status == 304 else reply.body
            if drop_after is not None:
                body = body[:int(drop_after)]
            self.wfile.write(head + body)
            self._bytes_out = len(body)
            return
        path, start, length = reply.file
        limit = length if drop_after is None else min(length, int(drop_after))
        with open(path, "rb") as f:
            f.seek(start)
            if limit <= 1 << 16:
                body = f.read(limit)
                if self._pace is not None:
                    self._pace(len(body))
                self.wfile.write(head + body)
                self._bytes_out = len(body)
                return
            self.wfile.write(head)
            while self._bytes_out < limit:
                piece = f.read(min(1 << 18, limit - self._bytes_out))
                if not piece:
                    break
                if self._pace is not None:
                    self._pace(len(piece))
                self.wfile.write(piece)
                self._bytes_out += len(piece)

    def plain(self, status, text, reason=None):
        return plain_reply(status, text, reason)

    # ----- dispatch -----

    def dispatch(self):
        self._length = 0
        self._body_read = False
        self._status = None
        self._bytes_out = 0
        self._pace = None       # set for a content route when bandwidth is capped
        self._token = None
        url = urllib.parse.urlsplit(self.path)
        self.query = urllib.parse.parse_qs(url.query, keep_blank_values=True)
        self.entry = {"time": time.time(), "method": self.command, "route": url.path.lstrip("/"),
                      "account": None, "args": None}
        self.server.log.begin(self.entry)
        drop_after = None
        try:
            te = (self.headers.get("Transfer-Encoding") or "").lower()
            raw_length = self.headers.get("Content-Length")
            if raw_length is not None and "chunked" not in te:
                if not raw_length.strip().isdigit():
                    self.close_connection = True
                    self.send(self.plain(400, "Bad Request: invalid Content-Length"))
                    return
                self._length = int(raw_length)
            elif te and "chunked" not in te:
                self.close_connection = True
                self.send(self.plain(501, "Unsupported Transfer-Encoding"))
                return
            if url.path.startswith("/2/"):
                reply, drop_after = self.api(url.path[3:])
            elif url.path in ("/oauth2/authorize", "/oauth2/token"):
                reply, drop_after = self.oauth_page(url.path)
            elif url.path == REDIRECT_PAGE:
                reply = oauth.redirect_page()
            elif url.path.startswith("/_admin/"):
                self.server.log.forget(self.entry)
                self.entry = None
                reply = admin.handle(self, url.path[len("/_admin/"):])
            else:
                reply = self.plain(404, "Not Found")
            if reply is not None:
                self.send(reply, drop_after)
        except DropConnection:
            self.close_connection = True
            self._status = "dropped"
        except BodyTooLarge:
            self.close_connection = True
            self.send(self.plain(413, "Request Entity Too Large"))
        except BadBody:
            self.close_connection = True
            self.send(self.plain(400, "Bad Request: malformed chunked body"))
        except (ConnectionError, socket.timeout, ssl.SSLError):
            self.close_connection = True
            self._status = "client-gone"
        except Exception:
            # A fault of ours must never reach the client as a traceback.
            traceback.print_exc()
            self.close_connection = True
            try:
                self.send(self.plain(500, "Internal Server Error"))
            except OSError:
                pass
        finally:
            if self.entry is not None:
                self.entry.update(status=self._status, bytes_out=self._bytes_out, end=time.time())
                self.server.log.add(self.entry)

    def take_fault(self, route, path):
        fault = self.server.faults.take(route, path)
        if fault is None:
            return None
        if fault.stall:
            end = time.time() + float(fault.stall)
            while time.time() < end and not self.server.stopping.is_set():
                time.sleep(0.05)
            raise DropConnection()
        if fault.delay:
            time.sleep(fault.delay)
        if fault.drop_request_after is not None:
            self.entry["fault"] = "drop_request_after"
            if self.body_length() == 0:
                raise DropConnection()
            self.receive(_Null(), 1 << 62, stop_after=max(1, int(fault.drop_request_after)))
            raise DropConnection()
        return fault

    def api(self, route):
        """One API request. Returns (reply, drop_after)."""
        entry_def = ROUTES.get(route)
        self.entry["route"] = route
        where_body = "request body: "
        if entry_def is None:
            return self.plain(400, 'Error in call to API function "%s": Unknown API function: /2/%s'
                              % (route, route)), None
        style, auth, fn = entry_def
        self.server.costs.delay(style)

        def bad(message):
            return self.plain(400, 'Error in call to API function "%s": %s' % (route, message))

        if self.command != "POST" and not (style == "download" and self.command == "GET"):
            return bad('Unsupported HTTP method "%s". Expecting "POST".' % self.command), None
        ctype = self.headers.get("Content-Type")
        has_body = self._length > 0 or self.body_length() is None
        if style == "rpc":
            void = route == "users/get_current_account"
            if not (ctype is None and void and not has_body) and (ctype or "").strip().lower() not in RPC_TYPES:
                return bad('Bad HTTP "Content-Type" header: "%s".  Expecting one of %s.'
                           % (ctype or "", ", ".join('"%s"' % t for t in RPC_TYPES))), None
        elif style == "upload":
            if (ctype or "").strip().lower() not in UPLOAD_TYPES:
                return bad('Bad HTTP "Content-Type" header: "%s".  Expecting one of %s.'
                           % (ctype or "", ", ".join('"%s"' % t for t in UPLOAD_TYPES))), None
        elif ctype and ctype.strip() and not ctype.lower().startswith(("application/octet-stream", "text/plain")):
            return bad('Bad HTTP "Content-Type" header: "%s".  Expecting one of "application/octet-stream", '
                       '"text/plain".' % ctype), None

        # Arguments: RPC in the body, content routes in a header or the "arg" parameter.
        raw = None
        if style == "rpc":
            raw = self.read_small_body(RPC_BODY_LIMIT)
            where = where_body
        else:
            where = 'HTTP header "Dropbox-API-Arg": '
            raw = self.headers.get("Dropbox-API-Arg")
            if raw is None and "arg" in self.query:
                raw, where = self.query["arg"][0], 'URL parameter "arg": '
            if raw is None:
                return bad('Must provide HTTP header "Dropbox-API-Arg" or URL parameter "arg".'), None
        args, arg_error = None, None
        try:
            if style == "rpc" and route == "users/get_current_account":
                if raw not in (b"", b"null") or (raw == b"" and ctype):
                    value = json.loads(raw)
                    if value is not None:
                        raise BadInput(where + "expected null, got value")
            else:
                # Header values must be ASCII with everything else \u-escaped.
                if style != "rpc" and where.startswith("HTTP") and any(ord(c) > 0x7e for c in raw):
                    raise ValueError("not ASCII")
                value = json.loads(raw)
                args = check_struct(value, ROUTE_ARGS[route], where)
        except ValueError:
            arg_error = where + "could not decode input as JSON"
        except BadInput as e:
            arg_error = e.message
        self.entry["args"] = args if args is not None else (value_or_text(raw) if arg_error else None)
        path = None
        if isinstance(args, dict):
            path = args.get("path") or (args.get("commit") or {}).get("path")

        fault = self.take_fault(route, path)
        if fault is not None and fault.status:
            self.entry["fault"] = "status"
            return fault.reply(route), None
        drop_after = fault.drop_after if fault is not None else None

        account, failure = self.authenticate(auth, route)
        if failure is not None:
            return failure, None
        if account is not None:
            self.entry["account"] = account.name
            try:
                self.server.costs.admit(self._token)
            except RateLimited as e:
                return self.rate_limited(e), None
            if style != "rpc":
                self._pace = self.server.costs.pacer(account.name)
        if arg_error is not None:
            return bad(arg_error), None
        call = Call(self, route, self.server.store, account, args, where)
        try:
            return fn(call), drop_after
        except BadInput as e:
            return bad(e.message), None
        except RouteError as e:
            body = e.body()
            self.entry["error"] = "/".join(summary_tags(e.error))
            # Content routes used the summary as the reason phrase.
            reason = body["error_summary"] if style != "rpc" else None
            return Reply(409, dumps(body), "application/json", reason=reason), None
        except RateLimited as e:
            return self.rate_limited(e), None

    def rate_limited(self, e):
        self.entry["error"] = e.reason
        return Reply(429, dumps(e.body()), "application/json", [("Retry-After", str(e.retry_after))])

    def authenticate(self, auth, route):
        """(account, None) or (None, error reply)."""
        store = self.server.store
        value = self.headers.get("Authorization")
        if value is None and "authorization" in self.query:
            value = self.query["authorization"][0]
        if value is None:
            return None, self.plain(400, 'Error in call to API function "%s": Must provide HTTP header '
                                    '"Authorization" or URL parameter "authorization".' % route)
        scheme, _, cred = value.strip().partition(" ")
        cred = cred.strip()
        if auth == "app":
            try:
                key, _, secret = base64.b64decode(cred, validate=True).decode("utf-8").partition(":")
            except (ValueError, UnicodeDecodeError):
                key = None
            if scheme.lower() != "basic" or key is None or not _:
                return None, self.plain(400, 'Error in call to API function "%s": Invalid authorization value in '
                                        'HTTP header "Authorization": "%s".  Expecting "Basic '
                                        '<base64(app_key:app_secret)>".' % (route, value[:80]))
            if (key, secret) != (store.app_key, store.app_secret):
                return None, self.auth_error("invalid_access_token")
            return None, None
        if scheme.lower() != "bearer" or not cred:
            return None, self.plain(400, 'Error in call to API function "%s": Invalid authorization value in '
                                    'HTTP header "Authorization": "%s".  Expecting "Bearer <oauth2-access-token>".'
                                    % (route, value[:80]))
        with store.lock:
            account, tag_name = store.token_account(cred)
        if account is None:
            return None, self.auth_error(tag_name)
        self._token = cred
        return account, None

    def auth_error(self, tag_name):
        failure = AuthFailure(tag_name)
        self.entry["error"] = tag_name
        return Reply(401, dumps(failure.body()), "application/json",
                     [("WWW-Authenticate", 'Bearer realm="Dropbox-API"')])

    def oauth_page(self, path):
        route = path.lstrip("/")
        self.entry["route"] = route
        body = b""
        if self.command == "POST":
            body = self.read_small_body(RPC_BODY_LIMIT)
        fault = self.take_fault(route, None)
        if fault is not None and fault.status:
            return fault.reply(route), None
        drop_after = fault.drop_after if fault is not None else None
        if path == "/oauth2/authorize":
            return self.server.oauth.authorize(self, body), drop_after
        return self.server.oauth.token(self, body), drop_after


def value_or_text(raw):
    if isinstance(raw, bytes):
        raw = raw[:2000].decode("utf-8", "replace")
    return raw[:2000] if isinstance(raw, str) else raw


class _Null:
    def write(self, chunk):
        pass


class _Buf(bytearray):
    def write(self, chunk):
        self.extend(chunk)


class DropConnection(Exception):
    """Ends the connection without a reply."""


class BodyTooLarge(Exception):
    pass


class BadBody(Exception):
    pass


def make_tls_context(cert, key):
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(cert, key)
    return ctx
