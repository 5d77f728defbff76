"""Every route and route error the client uses, through the official SDK, so the
SDK's own validation of each reply checks its shape."""

import hashlib
import json
import re
import urllib.parse

import pytest
import requests

from conftest import APP_KEY, APP_SECRET

# create_folder and delete are the deprecated v1 forms on purpose.
pytestmark = pytest.mark.filterwarnings("ignore::DeprecationWarning")


def reference_hash(data):
    block = 4 << 20
    blocks = [data[i:i + block] for i in range(0, len(data), block)]
    return hashlib.sha256(b"".join(hashlib.sha256(b).digest() for b in blocks)).hexdigest()


def error_of(sdk, fn, *args, kind="ApiError"):
    with pytest.raises(getattr(sdk.exceptions, kind)) as info:
        fn(*args)
    return info.value.error


def redirect_query(answer):
    return dict(urllib.parse.parse_qsl(urllib.parse.urlsplit(answer.headers["Location"]).query))


def test_account_tokens_and_migration(emu, sdk, acct):
    me = acct.dbx.users_get_current_account()
    assert re.fullmatch(r"dbid:[A-Za-z0-9_-]{35}", me.account_id)
    assert me.name.display_name and me.email and me.account_type.is_basic()
    bob = sdk.Dropbox("TOKEN_B").users_get_current_account()
    assert bob.account_id == "dbid:AABOLtA1rT6rRK4vajKZrWqLZ7wVnV863u4"

    assert error_of(sdk, sdk.Dropbox("no-such-token").users_get_current_account,
                    kind="AuthError").is_invalid_access_token()

    app = sdk.Dropbox(app_key=APP_KEY, app_secret=APP_SECRET)
    assert error_of(sdk, app.auth_token_from_oauth1, "old", "pair").is_invalid_oauth1_token_info()
    emu.set_oauth1(acct.name, "old-token", "old-secret")
    new_token = app.auth_token_from_oauth1("old-token", "old-secret").oauth2_token
    assert sdk.Dropbox(new_token).users_get_current_account().account_id == me.account_id
    error_of(sdk, sdk.Dropbox(app_key=APP_KEY, app_secret="wrong").auth_token_from_oauth1, "old-token",
             "old-secret", kind="AuthError")

    assert emu.expire_token(token=acct.token) == 1
    assert error_of(sdk, acct.dbx.users_get_current_account, kind="AuthError").is_expired_access_token()


def test_upload_download_and_content_hash(sdk, acct):
    d = acct.dbx
    for data in (b"", b"hello", bytes(range(256)) * (9 * 4096 + 7), bytes(8 << 20)):
        md = d.files_upload(data, "/h/f%d.bin" % len(data))
        assert md.content_hash == reference_hash(data) and md.size == len(data)
        assert re.fullmatch(r"[0-9a-f]{9,}", md.rev) and re.fullmatch(r"id:[A-Za-z0-9_-]{22}", md.id)
        got, resp = d.files_download(md.path_lower)
        assert resp.content == data and got.rev == md.rev and got.content_hash == md.content_hash
    # Missing parents appear, in the case they were first given.
    d.files_upload(b"x", "/A/B/c.txt")
    assert d.files_upload(b"y", "/a/b/D.txt").path_display == "/A/B/D.txt"
    assert error_of(sdk, d.files_download, "/A").get_path().is_not_file()
    assert error_of(sdk, d.files_download, "/nope").get_path().is_not_found()
    # A hash that is not the bytes' is refused wherever bytes come, and a
    # request without bytes may name only the hash of nothing.
    wrong, cursor = reference_hash(b"other"), sdk.files.UploadSessionCursor
    open_sid, closed_sid = (d.files_upload_session_start(b"", close=c).session_id for c in (False, True))
    for call, args in ((d.files_upload, (b"x", "/h/x.bin")), (d.files_upload_session_start, (b"x", True)),
                       (d.files_upload_session_append_v2, (b"x", cursor(open_sid, 0))),
                       (d.files_upload_session_finish, (b"", cursor(closed_sid, 0), sdk.files.CommitInfo("/h/y")))):
        err = error_of(sdk, lambda: call(*args, content_hash=wrong))
        assert err.is_content_hash_mismatch(), call.__name__


def test_write_modes_autorename_and_conflicts(sdk, acct):
    d, files = acct.dbx, sdk.files
    first = d.files_upload(b"v1", "/Doc.txt")
    same = d.files_upload(b"v1", "/doc.TXT", autorename=True)
    assert (same.rev, same.path_display, same.server_modified) == (first.rev, "/Doc.txt", first.server_modified)
    err = error_of(sdk, d.files_upload, b"v2", "/doc.txt")
    assert err.is_path() and err.get_path().reason.get_conflict().is_file()
    assert err.get_path().upload_session_id
    assert d.files_upload(b"v2", "/doc.txt", autorename=True).name == "doc (1).txt"
    assert d.files_upload(b"v3", "/DOC.txt", autorename=True).name == "DOC (2).txt"

    folder = d.files_create_folder("/Shelf/Inner")
    assert folder.path_display == "/Shelf/Inner" and isinstance(folder, files.FolderMetadata)
    assert error_of(sdk, d.files_create_folder, "/shelf").get_path().get_conflict().is_folder()
    assert error_of(sdk, d.files_create_folder, "/doc.txt").get_path().get_conflict().is_file()
    assert error_of(sdk, d.files_upload, b"z", "/shelf").get_path().reason.get_conflict().is_folder()
    assert d.files_upload(b"z", "/Shelf", autorename=True).name == "Shelf (1)"
    assert error_of(sdk, d.files_create_folder, "/doc.txt/x").get_path().get_conflict().is_file_ancestor()
    assert error_of(sdk, d.files_create_folder, "/bad\\name").get_path().is_malformed_path()

    gone = d.files_delete("/Shelf")
    assert isinstance(gone, files.FolderMetadata) and gone.path_display == "/Shelf"
    assert isinstance(d.files_delete("/Doc (1).txt"), files.FileMetadata)
    assert error_of(sdk, d.files_delete, "/Shelf").get_path_lookup().is_not_found()


def test_upload_sessions(emu, sdk, acct):
    d, files = acct.dbx, sdk.files
    data = bytes(range(251)) * (9 * (1 << 20) // 251)
    chunk = 4 << 20
    since = emu.requests()[-1]["seq"]
    sid = d.files_upload_session_start(data[:chunk]).session_id
    d.files_upload_session_append_v2(data[chunk:2 * chunk], files.UploadSessionCursor(sid, chunk))
    md = d.files_upload_session_finish(data[2 * chunk:], files.UploadSessionCursor(sid, 2 * chunk),
                                       files.CommitInfo("/big.bin", autorename=True))
    assert md.size == len(data) and md.content_hash == reference_hash(data)
    mine = [r for r in emu.requests(since) if r["account"] == acct.name]
    assert [r["route"] for r in mine] == ["files/upload_session/start", "files/upload_session/append_v2",
                                         "files/upload_session/finish"]
    assert mine[1]["args"]["cursor"]["offset"] == chunk and mine[2]["args"]["commit"]["path"] == "/big.bin"

    sid = d.files_upload_session_start(b"abc").session_id
    err = error_of(sdk, d.files_upload_session_append_v2, b"d", files.UploadSessionCursor(sid, 7))
    assert err.is_incorrect_offset() and err.get_incorrect_offset().correct_offset == 3
    err = error_of(sdk, d.files_upload_session_finish, b"", files.UploadSessionCursor(sid, 1),
                   files.CommitInfo("/s.txt"))
    assert err.get_lookup_failed().get_incorrect_offset().correct_offset == 3
    d.files_upload_session_append_v2(b"d", files.UploadSessionCursor(sid, 3))
    assert d.files_upload_session_finish(b"", files.UploadSessionCursor(sid, 4),
                                         files.CommitInfo("/t.txt")).size == 4
    assert error_of(sdk, d.files_upload_session_append_v2, b"x",
                    files.UploadSessionCursor(sid, 4)).is_not_found()
    assert error_of(sdk, d.files_upload_session_finish, b"", files.UploadSessionCursor("nope", 0),
                    files.CommitInfo("/u.txt")).get_lookup_failed().is_not_found()


def test_listing_pages_and_change_feed(emu, sdk, acct):
    d, files = acct.dbx, sdk.files
    for i in range(7):
        emu.put_file(acct.name, "/Lib/Sub%d/book%d.txt" % (i % 2, i), "b%d" % i)
    emu.set_page_size(3)
    emu.settings(listing_order="shuffled")
    res = d.files_list_folder("", recursive=True)
    entries, pages = list(res.entries), 1
    while res.has_more:
        res = d.files_list_folder_continue(res.cursor)
        entries += res.entries
        pages += 1
    paths = [e.path_lower for e in entries]
    assert pages >= 4 and len(paths) == 10 and len(set(paths)) == 10
    assert all(paths.index(p.rsplit("/", 1)[0]) < paths.index(p) for p in paths if p.count("/") > 1)
    feed = res.cursor
    emu.settings(listing_order="sorted")
    assert d.files_list_folder_continue(feed).entries == []

    emu.delete(acct.name, "/Lib/Sub0/book0.txt")
    moved_id = next(e["id"] for e in emu.tree(acct.name) if e["path_lower"] == "/lib/sub1/book1.txt")
    emu.move(acct.name, "/Lib/Sub1/book1.txt", "/Lib/moved.txt")
    emu.move(acct.name, "/Lib/Sub0/book2.txt", "/Lib/Sub0/BOOK2.TXT")   # case only: no event
    emu.set_page_size(100)
    changes = d.files_list_folder_continue(feed)
    by_path = {e.path_lower: e for e in changes.entries}
    assert isinstance(by_path["/lib/sub0/book0.txt"], files.DeletedMetadata)
    assert isinstance(by_path["/lib/sub1/book1.txt"], files.DeletedMetadata)
    assert by_path["/lib/moved.txt"].id == moved_id
    assert set(by_path) == {"/lib/sub0/book0.txt", "/lib/sub1/book1.txt", "/lib/moved.txt"}
    # The same saved cursor reads the same changes again.
    assert [e.path_lower for e in d.files_list_folder_continue(feed).entries] == \
        [e.path_lower for e in changes.entries]
    emu.settings(empty_pages=1)
    empty = d.files_list_folder_continue(changes.cursor)
    assert empty.entries == [] and empty.has_more

    emu.reset_cursors(acct.name)
    assert error_of(sdk, d.files_list_folder_continue, changes.cursor).is_reset()
    assert error_of(sdk, d.files_list_folder, "/missing").get_path().is_not_found()
    assert error_of(sdk, d.files_list_folder, "/Lib/moved.txt").get_path().is_not_folder()


def test_oauth_code_flow(emu, sdk, acct):
    redirect = "https://example.invalid/misc/dropbox/index.html"
    session = {}
    flow = sdk.DropboxOAuth2Flow(APP_KEY, redirect, session, "csrf", consumer_secret=APP_SECRET)
    emu.oauth_mode("page")
    form = requests.get(flow.start())
    assert form.status_code == 200 and 'value="allow"' in form.text and 'value="deny"' in form.text

    emu.oauth_mode("allow", acct.name)
    answer = requests.get(flow.start(), allow_redirects=False)
    assert answer.status_code == 302 and answer.headers["Location"].startswith(redirect + "?")
    query = redirect_query(answer)
    result = flow.finish(query)
    assert result.account_id == acct.dbx.users_get_current_account().account_id
    assert result.expires_at is not None
    assert sdk.Dropbox(result.access_token).users_get_current_account().account_id == result.account_id

    def redeem(**fields):
        form = {"grant_type": "authorization_code", "client_id": APP_KEY, "client_secret": APP_SECRET,
                "redirect_uri": redirect, **fields}
        return requests.post("https://%s/oauth2/token" % emu.host, data=form)

    code = redirect_query(requests.get(flow.start(), allow_redirects=False))["code"]
    for fields, expected in (
            ({"code": query["code"]}, {"error": "invalid_grant",
                                       "error_description": "code doesn't exist or has expired"}),
            ({"code": "x", "client_secret": "no"}, {"error": "invalid_client: Invalid client_id or client_secret"}),
            ({"grant_type": "password"}, {"error": "unsupported_grant_type"}),
            ({"code": code, "redirect_uri": redirect + "x"}, {"error": "invalid_grant",
                                                              "error_description": "redirect_uri mismatch"})):
        answer = redeem(**fields)
        assert answer.status_code == 400 and {k: answer.json().get(k) for k in expected} == expected, fields
    assert requests.get(flow.start().replace(APP_KEY, "other-key")).status_code == 400

    emu.oauth_mode("deny")
    with pytest.raises(sdk.oauth.NotApprovedException):
        flow.finish(redirect_query(requests.get(flow.start(), allow_redirects=False)))
    emu.oauth_mode("page")


def test_folder_moves(emu, sdk, acct):
    d, files = acct.dbx, sdk.files
    d.files_upload(b"one", "/D/x/1.txt")
    d.files_upload(b"two", "/D/2.txt")
    feed = d.files_list_folder("", recursive=True).cursor
    ids = {e["path_lower"]: e["id"] for e in emu.tree(acct.name)}
    emu.move(acct.name, "/D", "/E")
    entries = d.files_list_folder_continue(feed).entries
    deleted = [e.path_lower for e in entries if isinstance(e, files.DeletedMetadata)]
    added = {e.path_lower: e.id for e in entries if not isinstance(e, files.DeletedMetadata)}
    assert set(deleted) == {"/d", "/d/x", "/d/x/1.txt", "/d/2.txt"}
    assert added == {p.replace("/d", "/e", 1): i for p, i in ids.items()}
    assert max(map(entries.index, [e for e in entries if isinstance(e, files.DeletedMetadata)])) < \
        min(map(entries.index, [e for e in entries if not isinstance(e, files.DeletedMetadata)]))
    assert [e.name for e in d.files_list_folder("/e").entries] == ["2.txt", "x"]
    assert [e.path_display for e in d.files_list_folder("/E/x", recursive=True).entries] == ["/E/x", "/E/x/1.txt"]


def test_disallowed_names(sdk, acct):
    dbx = acct.dbx
    for name in (".dropbox", ".Dropbox", "desktop.ini", "Thumbs.db", ".DS_Store", ".dropbox.attr"):
        err = error_of(sdk, dbx.files_upload, b"x", "/a/" + name)
        assert err.get_path().reason.is_disallowed_name(), name
        err = error_of(sdk, dbx.files_create_folder, "/b/" + name)
        assert err.get_path().is_disallowed_name(), name
    assert error_of(sdk, dbx.files_upload, b"x", "/.dropbox/files.db").get_path().reason.is_disallowed_name()


def test_finish_batch(emu, sdk, raw, acct):
    d, files = acct.dbx, sdk.files
    d.files_upload(b"old", "/b/taken.txt")

    def closed(data):
        return d.files_upload_session_start(data, close=True).session_id

    def entry(sid, offset, path, **commit):
        return files.UploadSessionFinishArg(files.UploadSessionCursor(sid, offset), files.CommitInfo(path, **commit))

    one, taken, four = closed(b"one"), closed(b"two"), closed(b"four")
    still_open = d.files_upload_session_start(b"three").session_id
    batch = [entry(one, 3, "/b/one.txt"), entry(taken, 3, "/b/taken.txt"), entry(still_open, 5, "/b/3.txt"),
             entry(one, 3, "/b/again.txt"), entry(four, 1, "/b/four.txt")]
    got = d.files_upload_session_finish_batch_v2(batch).entries
    assert got[0].get_success().path_display == "/b/one.txt" and got[0].get_success().size == 3
    assert got[1].get_failure().get_path().get_conflict().is_file()
    assert got[2].get_failure().get_lookup_failed().is_not_closed()
    assert got[3].get_failure().get_lookup_failed().is_not_found()
    assert got[4].get_failure().get_lookup_failed().get_incorrect_offset().correct_offset == 4
    # A refused entry keeps its session: the next batch commits it.
    again = d.files_upload_session_finish_batch_v2([entry(taken, 3, "/b/taken.txt", autorename=True),
                                                    entry(four, 4, "/b/four.txt")]).entries
    assert [e.get_success().name for e in again] == ["taken (1).txt", "four.txt"]
    assert emu.read_file(acct.name, "/b/taken (1).txt") == b"two"

    # At most 1,000 entries; each is answered in its place.
    stale = {"cursor": {"session_id": "gone", "offset": 0}, "commit": {"path": "/b/x"}}
    r = raw.json("/2/files/upload_session/finish_batch_v2", {"entries": [stale] * 1001}, acct.token)
    assert r.status == 400 and b"entries: has more than 1000 items" in r.data
    r = raw.json("/2/files/upload_session/finish_batch_v2", {"entries": [stale] * 1000}, acct.token)
    assert r.status == 200 and len(json.loads(r.data)["entries"]) == 1000


def test_create_folder_batch(emu, sdk, acct):
    d = acct.dbx
    d.files_upload(b"f", "/c/file")
    d.files_create_folder("/c/Taken")
    launch = d.files_create_folder_batch(["/c/New", "/c/taken", "/c/file", "/c/file/x", "/c/bad\\name",
                                          "/c/Deep/er"])
    got = launch.get_complete().entries
    assert [e.get_success().metadata.path_display for e in (got[0], got[5])] == ["/c/New", "/c/Deep/er"]
    assert got[1].get_failure().get_path().get_conflict().is_folder()
    assert got[2].get_failure().get_path().get_conflict().is_file()
    assert got[3].get_failure().get_path().get_conflict().is_file_ancestor()
    assert got[4].get_failure().get_path().is_malformed_path()
    assert {"/c/new", "/c/deep", "/c/deep/er"} <= {m.path_lower for m in d.files_list_folder("/c", recursive=True).entries}

    # A large batch, or one asked for a job, is made when the job is checked;
    # a job id of nobody's is an error of the check.
    assert d.files_create_folder_batch(["/c/m%d" % i for i in range(101)]).is_async_job_id()
    job = d.files_create_folder_batch(["/c/A", "/c/new"], force_async=True).get_async_job_id()
    for _ in range(2):
        got = d.files_create_folder_batch_check(job).get_complete().entries
        assert got[0].get_success().metadata.name == "A"
        assert got[1].get_failure().get_path().get_conflict().is_folder()
    assert error_of(sdk, d.files_create_folder_batch_check, "dbjid:nobody's").is_invalid_async_job_id()
