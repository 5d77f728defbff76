"""What the SDK can't see: exact headers and bodies, bad input, ranges and limits
(the 429 forms are with the costs)."""

import json
import socket
import ssl

ERR = 'Error in call to API function "%s": '


def test_reply_shapes_and_headers(raw, acct):
    r = raw("POST", "/2/users/get_current_account", None, {}, acct.token)
    assert r.status == 200 and r.getheader("Content-Type") == "application/json"

    up = raw("POST", "/2/files/upload", "Gr\u00fc\u00df".encode(), {"Content-Type": "application/octet-stream"},
             acct.token, arg='{"path": "/B\\u00fccher/\\u00e9t\\u00e9.txt", "autorename": true}')
    assert up.status == 200 and b"\\u00fc" in up.data and max(up.data) < 0x80       # ASCII-escaped JSON
    md = json.loads(up.data)
    assert ".tag" not in md and md["path_display"] == "/B\u00fccher/\u00e9t\u00e9.txt"

    dl = raw("POST", "/2/files/download", None, {}, acct.token, arg={"path": md["id"]})
    result = json.loads(dl.getheader("Dropbox-API-Result"))
    assert dl.status == 200 and dl.data == "Gr\u00fc\u00df".encode() and ".tag" not in result
    assert dl.getheader("ETag") == 'W/"%s"' % md["rev"]

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
    ("users/get_current_account", b"{}", {}, None, "request body: expected null, got value"),
    ("users/get_current_account", b"", {}, None, "request body: could not decode input as JSON"),
    ("files/list_folder", b'{"path": ""}', {"Content-Type": "text/plain"}, None, 'Bad HTTP "Content-Type" header'),
    ("files/upload", b"x", {"Content-Type": "application/octet-stream"}, None,
     'Must provide HTTP header "Dropbox-API-Arg" or URL parameter "arg".'),
    ("files/upload", b"x", {"Content-Type": "application/octet-stream"}, '{"path": "/\xe9"}',
     'HTTP header "Dropbox-API-Arg": could not decode input as JSON'),
    ("files/upload", b"x", {"Content-Type": "application/octet-stream"}, '{"path": "/\\udcff.txt"}',
     "path: '/\\udcff.txt' is not valid UTF-8"),
    ("files/create_folder", b'{"path": "/a\\ud800"}', {}, None, "path: '/a\\ud800' is not valid UTF-8"),
    ("files/upload", b"x", {"Content-Type": "application/x-www-form-urlencoded"}, '{"path": "/a"}',
     'Bad HTTP "Content-Type" header: "application/x-www-form-urlencoded"'),
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


def test_keepalive_resumed_download_and_body_limit(emu, raw, acct):
    data = bytes(range(256)) * 40
    acct.dbx.files_upload(data, "/r.bin")
    first = raw("POST", "/2/files/download", None, {"Range": "bytes=10-19"}, acct.token, arg={"path": "/r.bin"})
    conn = raw.conn
    assert first.status == 206 and first.data == data[10:20]
    assert first.getheader("Content-Range") == "bytes 10-19/%d" % len(data) and first.getheader("Dropbox-API-Result")
    rest = raw("POST", "/2/files/download", None, {"Range": "bytes=10000-"}, acct.token, arg={"path": "/r.bin"})
    assert rest.status == 206 and rest.data == data[10000:]
    assert raw("POST", "/2/files/download", None, {"Range": "bytes=99999-"}, acct.token,
               arg={"path": "/r.bin"}).status == 416
    for _ in range(5):
        assert raw.json("/2/files/list_folder", {"path": ""}, acct.token).status == 200
    assert raw.conn is conn       # one connection served every request

    # An oversized upload is refused from its declared length, before any byte is read.
    ctx = ssl.create_default_context(cafile=emu.ca_file)
    with socket.create_connection(("127.0.0.1", emu.port)) as s, ctx.wrap_socket(s, server_hostname="localhost") as t:
        t.sendall(("POST /2/files/upload HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer %s\r\n"
                   "Content-Type: application/octet-stream\r\nDropbox-API-Arg: {\"path\": \"/huge\"}\r\n"
                   "Content-Length: %d\r\n\r\n" % (acct.token, 151 << 20)).encode())
        reply = t.recv(65536).decode()
        assert reply.startswith("HTTP/1.1 409") and '"payload_too_large"' in reply, reply
