"""What the service costs: a delay per request, a bandwidth cap, a rate limit
per token and write contention per account. Each test turns them off again."""

import json
import threading
import time

import pytest

UPLOAD = {"Content-Type": "application/octet-stream"}
# create_folder and delete are the deprecated v1 forms on purpose.
pytestmark = pytest.mark.filterwarnings("ignore::DeprecationWarning")


@pytest.fixture
def costs(emu):
    yield emu.set_costs
    emu.set_costs("off")


def test_every_429_has_the_service_form(emu, sdk, raw, acct, costs):
    """An injected fault, the rate limit and write contention answer alike, on
    RPC and content routes, and the SDK reads each as a RateLimitError."""
    d, files = acct.dbx, sdk.files

    def refused(reason, call):
        with pytest.raises(sdk.exceptions.RateLimitError) as info:
            call()
        assert info.value.error.reason._tag == reason
        return info.value.backoff

    def raw_refused(reason):
        r = raw("POST", "/2/files/upload", b"x", UPLOAD, acct.token, arg={"path": "/g"})
        body = json.loads(r.data)
        assert r.status == 429 and r.getheader("Content-Type") == "application/json"
        wait = int(r.getheader("Retry-After"))
        assert body == {"error_summary": reason + "/..", "error": {"reason": {".tag": reason}, "retry_after": wait}}
        return wait

    emu.add_fault(route="files/upload", status=429, retry_after=7)
    assert raw_refused("too_many_requests") == 7

    # The budget is the token's: it waits for the end of its window, another token does not.
    costs(rate_limit=2, rate_window=30)
    d.files_list_folder("")
    d.files_upload(b"a", "/a")
    assert 1 <= raw_refused("too_many_requests") <= 30
    assert 1 <= refused("too_many_requests", lambda: d.files_list_folder("")) <= 30
    emu.add_token(acct.name, acct.token + "-2")
    other = sdk.Dropbox(acct.token + "-2", max_retries_on_rate_limit=0)
    assert [e.name for e in other.files_list_folder("").entries] == ["a"]

    # A batch of commits holds the account's namespace once; every other write meanwhile is refused.
    costs("off", write_hold=5)
    sid = d.files_upload_session_start(b"held", close=True).session_id
    batch = [files.UploadSessionFinishArg(files.UploadSessionCursor(sid, 4), files.CommitInfo("/held"))]
    holder = sdk.Dropbox(acct.token, max_retries_on_error=0, max_retries_on_rate_limit=0)
    held = []
    thread = threading.Thread(target=lambda: held.append(holder.files_upload_session_finish_batch_v2(batch)))
    thread.start()
    while acct.name not in emu.costs()["writing"] and thread.is_alive():
        time.sleep(0.02)
    part = d.files_upload_session_start(b"ab").session_id
    writes = [lambda: d.files_upload(b"u", "/u"), lambda: d.files_create_folder("/f"),
              lambda: d.files_delete("/a"),
              lambda: d.files_upload_session_finish(b"cd", files.UploadSessionCursor(part, 2),
                                                    files.CommitInfo("/p"))]
    for write in writes:
        assert refused("too_many_write_operations", write) == 1
    assert raw_refused("too_many_write_operations") == 1
    assert [e.name for e in d.files_list_folder("").entries] == ["a"]     # a read is no write
    thread.join()
    assert held[0].entries[0].get_success().path_display == "/held"
    costs(write_hold=0)
    for write in writes:        # nothing of a refused write was kept, the finish's body included
        write()
    assert sorted(e["path_display"] for e in emu.tree(acct.name)) == ["/f", "/held", "/p", "/u"]
    assert emu.read_file(acct.name, "/p") == b"abcd"


def test_delays_and_bandwidth_are_paid(emu, sdk, acct, costs):
    d = acct.dbx
    data = bytes(range(256)) * 4096
    d.files_upload(data, "/m.bin")

    def took(call):
        began = time.monotonic()
        call()
        return time.monotonic() - began

    costs(rpc_delay=0.4, content_delay=0.6)
    assert took(lambda: d.files_list_folder("")) >= 0.4 and took(lambda: d.files_upload(b"x", "/x")) >= 0.6

    # 1 MiB/s for the account's link, in each direction, shared by its transfers.
    costs("off", bandwidth=1 << 20)
    assert took(lambda: d.files_upload(data, "/up.bin")) >= 0.95
    pair = [sdk.Dropbox(acct.token) for _ in range(2)]
    threads = [threading.Thread(target=lambda c=c: c.files_download("/m.bin")[1].content) for c in pair]
    assert took(lambda: ([t.start() for t in threads], [t.join() for t in threads])) >= 1.9
