"""Uploads of many small files. Safe sends them side by side as closed
session starts while the walk goes on and commits them all in one batch
request; a 429 on a start or on a commit waits and sends again, and
each entry's answer is applied as a single upload's. Classic sends one file
at a time."""

import os

import pytest

import qshost
from conftest import copy_of

UPLOAD, DOWNLOAD, CREATE = "files/upload", "files/download", "files/create_folder"
START, APPEND, FINISH = ("files/upload_session/start", "files/upload_session/append_v2",
                         "files/upload_session/finish")
BATCH = "files/upload_session/finish_batch_v2"


def begins(run, route):
    return sorted(r["time"] for r in run.requests if r["route"] == route)


def waited(run, route):
    """The one 429 of `route` was followed, a second later, by the request
    sent again."""
    refused = [r["time"] for r in run.requests if r["route"] == route and r.get("fault")]
    assert len(refused) == 1 and begins(run, route)[-1] >= refused[0] + 0.9, route


@pytest.mark.parametrize("profile", ["classic", "safe"])
def test_small_files_go_up_in_batches(scene, root, server, profile):
    root.set_profile(profile)
    root.settings(qshost.SETTINGS, "set", "transfers", "4")
    old = {"/%s/old%d.txt" % (d, i): b"old %s%d" % (d.encode(), i) for d in "AB" for i in range(3)}
    scene.device(put=old)
    if profile == "classic":
        scene.sync(requests={UPLOAD: 6, CREATE: 2})
        scene.check()
        return
    # Both new folders in one request.
    scene.sync(requests={START: 6, BATCH: 1, "files/create_folder_batch": 1})

    # Many new files and some edits in two folders, and one file too large
    # for a single request.
    delay = 0.3
    scene.costs("off", content_delay=delay)
    revs = scene.server_revs()
    new = {"/%s/new%02d.txt" % (d, i): b"new %s%d" % (d.encode(), i)
           for d in "AB" for i in range(8)}
    scene.device(put=dict(new, **{p: v + b", edited" for p, v in old.items()}))
    scene.device(put={"/B/big.bin": os.urandom(8 * 2**20 + 1)})
    server.add_fault(route=APPEND, status=429, count=1, retry_after=1)
    run = scene.sync(requests={START: 23, BATCH: 1, APPEND: 2, FINISH: 1})
    scene.check()
    waited(run, APPEND)
    widest = max(len([b for b in begins(run, START) if t <= b < t + delay])
                 for t in begins(run, START))
    assert widest >= 3, begins(run, START)
    # One commit for both folders, each edit replacing only the revision
    # its row knew.
    batches = [r["args"]["entries"] for r in run.requests if r["route"] == BATCH]
    assert [len(b) for b in batches] == [22]
    modes = {e["commit"]["path"]: e["commit"]["mode"] for b in batches for e in b}
    for path in old:
        assert modes[path] == {".tag": "update", "update": revs[path.lower()]}
    scene.sync(requests={})

    # Changed on both sides, a name the service refuses, and 429s on a start,
    # on the commit and on the single upload of the conflicted copy: the
    # service is asked again after the wait it named, and every other file
    # goes up.
    scene.costs("off")
    scene.server(put={"/A/old0.txt": b"server's edit"})
    scene.device(put={"/A/old%d.txt" % i: b"edited again" for i in range(3)})
    scene.device(put={"/A/x%d.txt" % i: b"x%d" % i for i in range(3)})
    with open(scene.path("/A/desktop.ini"), "wb") as f:
        f.write(b"refused")
    server.add_fault(route=START, status=429, count=1, retry_after=1)
    server.add_fault(route=BATCH, status=429, reason="too_many_write_operations", count=1,
                     retry_after=1)
    server.add_fault(route=UPLOAD, status=429, count=1, retry_after=1)
    run = scene.sync(expect=7, requests={START: 8, BATCH: 2, UPLOAD: 2, DOWNLOAD: 1})
    for route in (START, BATCH, UPLOAD):
        waited(run, route)
    scene.model["/A/old0.txt"] = b"server's edit"
    scene.model["/A/" + copy_of("old0", ".txt")] = b"edited again"
    local = dict(scene.model, **{"/A/desktop.ini": b"refused"})
    scene.check(local=local, server=scene.model, statuses={"/A/desktop.ini": (4, 3)})
    scene.sync(requests={})

    # A file rewritten while its session is open is left out of the commit
    # and sent again alone, with its new bytes.
    scene.device(put={"/B/y%d.txt" % i: b"y%d" % i for i in range(3)})
    server.add_fault(route=START, delay=2, count=3)
    proc = root.start_sync()
    # All three held at the emulator: every file's bytes have been read.
    assert qshost.wait_for(
        lambda: len([r for r in server.pending_requests() if r["route"] == START]) == 3)
    scene.device(put={"/B/y0.txt": b"y0, rewritten"})
    proc.communicate(timeout=60)
    assert proc.returncode == 0
    # In the order they began: the log takes an answer only once it is sent.
    sent = sorted(scene.new_requests(), key=lambda r: r["time"])
    assert [r["route"] for r in sent if r["route"] in (START, BATCH, UPLOAD)] == [
        START] * 3 + [BATCH, UPLOAD]
    scene.check(local=dict(scene.model, **{"/A/desktop.ini": b"refused"}), server=scene.model,
                statuses={"/A/desktop.ini": (4, 3)})
