"""What the SDK can't see: exact headers and bodies, bad input, faults, ranges and limits."""

import json
import random
import socket
import ssl
import time

import pytest

ERR = 'Error in call to API function "%s": '


def test_reply_shapes_and_headers(raw, acct):
    r = raw("POST", "/2/users/get_current_account", b"null", {"Content-Type": "application/json"}, acct.token)
    assert r.status == 200 and r.getheader("Content-Type") == "application/json"
    assert r.getheader("X-Dropbox-Request-Id")
    assert raw("POST", "/2/users/get_current_account", None, {}, acct.token).status == 200

    up = raw("POST", "/2/files/upload", "Gr\u00fc\u00df".encode(), {"Content-Type": "application/octet-stream"},
             acct.token, arg='{"path": "/B\\u00fccher/\\u00e9t\\u00e9.txt", "autorename": true}')
    assert up.status == 200 and up.getheader("Content-Type") == "application/json"
    assert b"\\u00fc" in up.data and max(up.data) < 0x80       # ASCII-escaped JSON
    md = json.loads(up.data)
    assert ".tag" not in md and md["path_display"] == "/B\u00fccher/\u00e9t\u00e9.txt"
    assert md["server_modified"].endswith("Z") and len(md["server_modified"]) == 20

    listing = json.loads(raw.json("/2/files/list_folder", {"path": "", "recursive": True}, acct.token).data)
    assert [e[".tag"] for e in listing["entries"]] == ["folder", "file"]
    assert set(listing) == {"entries", "cursor", "has_more"}
    folder = json.loads(raw.json("/2/files/create_folder", {"path": "/F"}, acct.token).data)
    assert ".tag" not in folder and set(folder) == {"name", "path_lower", "path_display", "id"}
    gone = json.loads(raw.json("/2/files/delete", {"path": "/f"}, acct.token).data)
    assert gone[".tag"] == "folder"

    dl = raw("POST", "/2/files/download", None, {}, acct.token, arg={"path": md["id"]})
    result = json.loads(dl.getheader("Dropbox-API-Result"))
    assert dl.status == 200 and dl.data == "Gr\u00fc\u00df".encode() and ".tag" not in result
    assert dl.getheader("ETag") == 'W/"%s"' % md["rev"] and dl.getheader("Content-Type") == "application/octet-stream"

    nf = raw("POST", "/2/files/download", None, {}, acct.token, arg={"path": "/none"})
    body = json.loads(nf.data)
    assert nf.status == 409 and nf.getheader("Content-Type") == "application/json"
    assert body["error"] == {".tag": "path", "path": {".tag": "not_found"}}
    assert body["error_summary"].rstrip(".") == "path/not_found/" and nf.reason == body["error_summary"]
    app = raw("POST", "/2/files/upload_session/append_v2", b"", {"Content-Type": "application/octet-stream"},
              acct.token, arg={"cursor": {"session_id": "x", "offset": 0}})
    assert json.loads(app.data)["error"] == {".tag": "not_found"}


BAD_INPUT = [
    # (route, body or None, headers, arg, expected text after the prefix)
    ("files/list_folder", b'{"path": "/"}', {}, None,
     'request body: path: Specify the root folder as an empty string rather than as "/".'),
    ("files/list_folder/continue", b'{"cursor": "foo"}', {}, None, "Invalid \"cursor\" parameter: 'foo'"),
    ("files/list_folder", b"{not json", {}, None, "request body: could not decode input as JSON"),
    ("files/list_folder", b'{"path": "", "bogus": 1}', {}, None, "request body: unknown field 'bogus'"),
    ("files/list_folder", b'{"path": "", "limit": 0}', {}, None, "request body: limit: 0 is not within range"),
    ("files/list_folder", b'{"recursive": true}', {}, None, "request body: missing required field 'path'"),
    ("files/delete", b'{"path": "nope"}', {}, None, "request body: path: 'nope' did not match pattern"),
    ("users/get_current_account", b"{}", {}, None, "request body: expected null, got value"),
    ("users/get_current_account", b"", {}, None, "request body: could not decode input as JSON"),
    ("files/list_folder", b'{"path": ""}', {"Content-Type": "text/plain"}, None, 'Bad HTTP "Content-Type" header'),
    ("files/upload", b"x", {"Content-Type": "application/octet-stream"}, None,
     'Must provide HTTP header "Dropbox-API-Arg" or URL parameter "arg".'),
    ("files/upload", b"x", {"Content-Type": "application/octet-stream"}, '{"path": "/\xe9"}',
     'HTTP header "Dropbox-API-Arg": could not decode input as JSON'),
    ("files/upload", b"x", {"Content-Type": "application/x-www-form-urlencoded"}, '{"path": "/a"}',
     'Bad HTTP "Content-Type" header: "application/x-www-form-urlencoded"'),
    ("files/get_metadata", b'{"path": ""}', {}, None, "Unknown API function: /2/files/get_metadata"),
    ("files/list_folder", b'{"path": ""}', {"Authorization": "Bearer"}, None,
     'Invalid authorization value in HTTP header "Authorization"'),
    ("files/list_folder", b'{"path": ""}', {"Authorization": None}, None,
     'Must provide HTTP header "Authorization" or URL parameter "authorization".'),
]


def test_bad_input_is_plain_text_400(raw, acct):
    for route, body, headers, arg, text in BAD_INPUT:
        h = {"Content-Type": "application/json", "Authorization": "Bearer " + acct.token}
        h.update(headers)
        h = {k: v for k, v in h.items() if v is not None}
        r = raw("POST", "/2/" + route, body, h, arg=arg)
        assert (r.status, r.getheader("Content-Type")) == (400, "text/plain; charset=utf-8"), (route, r.data)
        assert r.data.decode().startswith(ERR % route + text), r.data
    r = raw("GET", "/2/files/list_folder", None, {}, acct.token)
    assert r.status == 400 and r.data.startswith(b"Error in call to API function")

    r = raw.json("/2/files/list_folder", {"path": ""}, "wrong-token")
    assert r.status == 401 and r.getheader("WWW-Authenticate") == 'Bearer realm="Dropbox-API"'
    assert r.getheader("Content-Type") == "application/json"
    assert json.loads(r.data)["error"] == {".tag": "invalid_access_token"}
    assert raw.json("/2/files/create_folder", {"path": "/a\\b"}, acct.token).status == 409
    assert raw.json("/2/files/create_folder", {"path": "/desktop.ini"}, acct.token).status == 409


def test_garbage_never_breaks_the_server(emu, raw, acct):
    rnd = random.Random(7)
    pieces = [b"", b"null", b"{}", b"[]", b'{"path": 5}', b'{"path": "/x", "mode": "zap"}', b"\xff\xfe",
              b'{"cursor": {"session_id": 1}}', b'"str"', b"1e999", b'{"path": "' + b"a" * 5000 + b'"}']
    routes = ["files/" + r for r in ("list_folder", "list_folder/continue", "create_folder", "delete",
                                     "download", "upload", "upload_session/start",
                                     "upload_session/append_v2", "upload_session/finish")]
    for _ in range(200):
        route = rnd.choice(routes)
        body = rnd.choice(pieces)
        arg = rnd.choice(pieces).decode("latin-1")
        ctype = rnd.choice(["application/json", "application/octet-stream", "text/plain", None])
        h = {"Content-Type": ctype} if ctype else {}
        r = raw("POST", "/2/" + route, body, h, acct.token, arg=arg)
        assert r.status in (200, 400, 409), (route, body, arg, r.status, r.data)
        assert b"Traceback" not in r.data
    assert raw("POST", "/2/users/get_current_account", b"null",
               {"Content-Type": "application/json"}, acct.token).status == 200


def test_faults_and_rate_limits(emu, sdk, raw, acct):
    acct.dbx.files_upload(b"0123456789" * 1000, "/f.bin")
    emu.add_fault(route="files/upload", status=429, retry_after=7)
    r = raw("POST", "/2/files/upload", b"x", {"Content-Type": "application/octet-stream"}, acct.token,
            arg={"path": "/g"})
    assert r.status == 429 and r.getheader("Retry-After") == "7"
    assert json.loads(r.data)["error"] == {"reason": {".tag": "too_many_requests"}, "retry_after": 7}
    emu.add_fault(route="files/list_folder", status=429, retry_after=3)
    with pytest.raises(sdk.exceptions.RateLimitError) as info:
        acct.dbx.files_list_folder("")
    assert info.value.backoff == 3

    emu.add_fault(route="files/download", path="/F.BIN", drop_after=100)
    with pytest.raises(Exception):
        raw("POST", "/2/files/download", None, {}, acct.token, arg={"path": "/f.bin"})
    assert len(raw("POST", "/2/files/download", None, {}, acct.token, arg={"path": "/f.bin"}).data) == 10000

    emu.add_fault(route="files/upload", drop_request_after=3)
    with pytest.raises(Exception):
        raw("POST", "/2/files/upload", b"abcdef", {"Content-Type": "application/octet-stream"}, acct.token,
            arg={"path": "/lost.txt"})
    assert "/lost.txt" not in emu.paths(acct.name)

    emu.add_fault(route="files/delete", status=500, count=2)
    for _ in range(2):
        assert raw.json("/2/files/delete", {"path": "/f.bin"}, acct.token).status == 500
    emu.add_fault(route="users/get_current_account", delay=0.3)
    start = time.time()
    assert raw("POST", "/2/users/get_current_account", b"null", {"Content-Type": "application/json"},
               acct.token).status == 200 and time.time() - start >= 0.3
    emu.add_fault(route="users/get_current_account", stall=30)
    with pytest.raises(socket.timeout):
        raw("POST", "/2/users/get_current_account", b"null", {"Content-Type": "application/json"},
            acct.token, timeout=0.5)
    log = emu.requests(route="files/delete")
    assert [e["status"] for e in log[-2:]] == [500, 500] and log[-1]["args"] == {"path": "/f.bin",
                                                                                "parent_rev": None}


def test_keepalive_ranges_and_conditional_download(emu, raw, acct):
    data = bytes(range(256)) * 40
    acct.dbx.files_upload(data, "/r.bin")
    first = raw("POST", "/2/files/download", None, {"Range": "bytes=10-19"}, acct.token, arg={"path": "/r.bin"})
    conn = raw.conn
    assert first.status == 206 and first.data == data[10:20]
    assert first.getheader("Content-Range") == "bytes 10-19/%d" % len(data) and first.getheader("Dropbox-API-Result")
    tail = raw("POST", "/2/files/download", None, {"Range": "bytes=-5"}, acct.token, arg={"path": "/r.bin"})
    assert tail.status == 206 and tail.data == data[-5:]
    rest = raw("GET", "/2/files/download?arg=%7B%22path%22%3A%22%2Fr.bin%22%7D", None,
               {"Range": "bytes=10000-"}, acct.token)
    assert rest.status == 206 and rest.data == data[10000:]
    assert raw("POST", "/2/files/download", None, {"Range": "bytes=99999-"}, acct.token,
               arg={"path": "/r.bin"}).status == 416
    etag = first.getheader("ETag")
    assert raw("POST", "/2/files/download", None, {"If-None-Match": etag}, acct.token,
               arg={"path": "/r.bin"}).status == 304
    for _ in range(20):
        assert raw.json("/2/files/list_folder", {"path": ""}, acct.token).status == 200
    assert raw.conn is conn       # one connection served every request


def test_body_limits_and_chunked_bodies(emu, raw, acct):
    ctx = ssl.create_default_context(cafile=emu.ca_file)
    # Oversized bodies are refused from their declared length, before any byte is read.
    for route, ctype, length, expect in (("files/upload", "application/octet-stream", 151 << 20,
                                          ('HTTP/1.1 409', '"payload_too_large"')),
                                         ("files/list_folder", "application/json", 2 << 20, ("HTTP/1.1 413",))):
        with socket.create_connection(("127.0.0.1", emu.port)) as s, \
                ctx.wrap_socket(s, server_hostname="localhost") as t:
            t.sendall(("POST /2/%s HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer %s\r\nContent-Type: %s\r\n"
                       "Dropbox-API-Arg: {\"path\": \"/huge\"}\r\nContent-Length: %d\r\n\r\n"
                       % (route, acct.token, ctype, length)).encode())
            reply = t.recv(65536).decode()
            assert reply.startswith(expect[0]) and all(e in reply for e in expect), reply
    chunked = raw("POST", "/2/files/upload", b"3\r\nabc\r\n4\r\ndefg\r\n0\r\n\r\n",
                  {"Content-Type": "application/octet-stream", "Transfer-Encoding": "chunked"},
                  acct.token, arg={"path": "/chunked.txt"})
    assert chunked.status == 200 and json.loads(chunked.data)["size"] == 7
    assert emu.read_file(acct.name, "/chunked.txt") == b"abcdefg"
