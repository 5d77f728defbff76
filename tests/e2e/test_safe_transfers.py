"""Transfers in both profiles: where a download keeps its partial data, and
which names can be synced. Classic keeps it beside the target under the
target's name with ".downloading" and ".progress", so the scan takes such
names for leftovers; safe keeps it under the store's folder."""

import os

import pytest

import qshost

LONG = "/" + "n" * 251 + ".txt"  # 255 bytes, the longest name a folder holds
BIG = b"0123456789" * 20000


@pytest.mark.parametrize("profile", ["classic", "safe"])
def test_partial_downloads_and_user_files_named_like_them(root, server, account, scene, profile):
    root.set_profile(profile)
    scene.device(put={"/notes.progress": b"mine", "/Books/draft.downloading": b"draft"})
    scene.server(put={LONG: b"long", "/srv.progress": b"theirs", "/Books/big.bin": BIG})
    # Every try of the big file breaks off: its partial data stays for the
    # next run.
    server.add_fault(route="files/download", path="/Books/big.bin", drop_after=50000, count=3)
    scene.sync(expect=None)
    local = root.local_tree()
    kept = os.listdir(root.sync_folder() + "/.dropbox")
    if profile == "classic":
        assert "/Books/big.bin.downloading" in local and "/Books/big.bin.progress" in local
        # The scan deleted the user's files before they went up.
        assert "/notes.progress" not in local and "/Books/draft.downloading" not in local
    else:
        assert "/Books/big.bin" not in local
        assert [n for n in kept if n.endswith(".downloading")] in (["transfer0.downloading"],
                                                                    ["transfer1.downloading"])
        assert local["/notes.progress"] == b"mine"
    scene.sync(expect=0)
    if profile == "classic":
        # The next scan takes the server's "srv.progress" for a leftover:
        # deleted on the device, then on the server.
        scene.sync(expect=0, requests={"files/delete": 1})
        del scene.model["/srv.progress"]
        del scene.model["/notes.progress"]
        del scene.model["/Books/draft.downloading"]
    else:
        assert [n for n in os.listdir(root.sync_folder() + "/.dropbox")
                if n.startswith("transfer")] == []
        scene.sync(expect=0, requests={})
    scene.check()


@pytest.mark.parametrize("profile", ["classic", "safe"])
def test_a_file_rewritten_while_it_goes_up_in_chunks(root, server, account, scene, profile):
    root.set_profile(profile)
    old = bytes((i * 31 + i // 4099) & 255 for i in range(8 * 2**20 + 1))
    new = bytes(reversed(old))
    scene.device(put={"/big.bin": old})
    server.add_fault(route="files/upload_session/append_v2", delay=3, count=1)
    proc = root.start_sync()
    assert qshost.wait_for(lambda: server.requests(route="files/upload_session/start"), timeout=60)
    # Rewritten in place: a truncation first would let a slow worker see a
    # short file, which is another failure than the one shown here.
    with open(scene.path("/big.bin"), "r+b") as f:
        f.write(new)
    proc.communicate(timeout=120)
    scene.device(put={"/big.bin": new})  # the same bytes, for the model
    held = scene.server_tree().get("/big.bin")
    if profile == "classic":
        # The first chunk is the old file's, the last the new one's.
        assert proc.returncode == 0 and held not in (None, old, new) and len(held) == len(old)
        return
    # The change is seen before the last chunk: nothing lands, and the next
    # run sends the new file whole.
    assert proc.returncode == root.sync_error() == 7 and held is None
    scene.sync(expect=0)
    scene.sync(expect=0, requests={})
    scene.check()


@pytest.mark.parametrize("profile", ["classic", "safe"])
def test_a_download_answered_429(root, server, account, scene, profile):
    """Safe waits the Retry-After of each 429 and fetches again, while the
    other transfers go on; classic fails the run, as it never waits."""
    root.set_profile(profile)
    root.settings(qshost.SETTINGS, "set", "transfers", "3")
    files = {"/a.txt": b"a", "/b.txt": b"b", "/c.txt": b"c"}
    scene.server(put=files)
    server.add_fault(route="files/download", path="/a.txt", status=429, retry_after=1, count=2)
    if profile == "classic":
        run = scene.sync(expect=None)
        # Fetched side by side: the others may reach the service first.
        assert run.sync_error != 0 and run.paths("files/download").count("/a.txt") == 1
        assert "/a.txt" not in root.local_tree()
        scene.sync(expect=None)  # the second 429
        scene.sync(expect=0)
    else:
        server.add_fault(route="files/list_folder", status=429, retry_after=1, count=1)
        run = scene.sync(expect=0, requests={"files/download": 5})
        assert run.counts(all_routes=True)["files/list_folder"] == 2
        tries = [r["time"] for r in run.requests
                 if r["route"] == "files/download" and r.get("args", {}).get("path") == "/a.txt"]
        assert len(tries) == 3 and tries[1] - tries[0] >= 1 and tries[2] - tries[1] >= 1, tries
    scene.check()
