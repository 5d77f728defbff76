"""The host program drives the real workers through the facade: events, run
state, item status, stop, and the network, in temporary device roots."""

import os
import re
import sqlite3

import qshost
from conftest import new_account


def read_until(proc, text, timeout=30):
    """Lines of `proc` up to and including the first that holds `text`."""
    lines = []
    found = qshost.wait_for(lambda: lines.append(proc.stdout.readline()) or
                            text in lines[-1] or lines[-1] == "", timeout=timeout, step=0)
    assert found and text in lines[-1], "no %r in %r" % (text, lines)
    return lines


def trees(output):
    """The tree blocks of a plain watch output: [(why, {item: status})]."""
    blocks = []
    for line in output.splitlines():
        if line.startswith("--- tree"):
            blocks.append((line.split("(", 1)[1].rstrip(")"), {}))
        elif blocks and line[:10].strip() in ("synced", "not synced", "failed", "outside"):
            blocks[-1][1][line[12:]] = line[:10].strip()
    return blocks


def test_watched_sync_turns_items_synced_and_check_shows_edits(scene, server):
    scene.server(put={"/Books/a.epub": b"a" * 40000, "/Books/b.epub": b"b" * 40000,
                      "/notes.txt": b"notes"})
    server.add_fault(route="files/download", delay=0.4, count=3)
    out = scene.root.host("watch", "--sync")
    assert out.returncode == 0, out.stdout + out.stderr
    assert "worker ended: 1 event 212, syncing now: no" in out.stdout
    assert "outcome: synced (sync_error 0)" in out.stdout
    scene.check()
    # Redrawn on each folder change while the files come in one by one.
    blocks = trees(out.stdout)
    final = blocks[-1][1]
    assert sorted(final) == ["/Books/", "/Books/a.epub", "/Books/b.epub", "/notes.txt",
                             scene.root.sync_folder()]
    assert set(final.values()) == {"synced"}
    during = [items for why, items in blocks if why == "event 73"]
    # Any redraw before the end differs: an item missing, unsynced or still
    # under its temporary name.
    assert during and during[0] != final, out.stdout

    # Edits that no sync has carried show on the file and every folder above.
    with open(scene.path("/Books/a.epub"), "ab") as f:
        f.write(b"more")
    plain = scene.root.host("ls")
    assert "not synced" not in plain.stdout
    checked = scene.root.host("ls", "--check").stdout.splitlines()
    marks = {line[12:]: line[:10].strip() for line in checked}
    folder = scene.root.sync_folder()
    assert [marks[p] for p in (folder, "/Books/", "/Books/a.epub")] == ["not synced"] * 3
    assert [marks[p] for p in ("/Books/b.epub", "/notes.txt")] == ["synced"] * 2
    assert scene.root.host("ls", folder + "/Books/a.epub").returncode == 1  # not a folder
    assert scene.root.host("ls", "/elsewhere").returncode == 1


def test_stop_in_one_root_leaves_the_other_syncing(tmp_path, emulator, server, root, account):
    other_account = new_account(server)
    other = qshost.DeviceRoot.create(str(tmp_path / "other"))
    other.trust(emulator)
    other.login(other_account.token)
    server.put_file(account.name, "/slow-a.bin", b"a" * 100000)
    server.put_file(other_account.name, "/slow-b.bin", b"b" * 100000)
    server.add_fault(route="files/download", path="/slow-a.bin", delay=8)
    server.add_fault(route="files/download", path="/slow-b.bin", delay=4)
    try:
        syncs = [root.start_host("sync"), other.start_host("sync")]
        for proc in syncs:
            read_until(proc, "syncing: yes")
        # The host asks for status while the worker runs.
        status = root.host("status")
        assert status.returncode == 0 and "syncing:     yes" in status.stdout
        assert root.host("ls").returncode == 0
        assert root.host("stop").returncode == 0

        out_a = syncs[0].communicate(timeout=30)[0]
        assert "worker ended: 1 event 212, syncing now: no" in out_a, out_a
        assert "outcome: stopped (sync_error 1)" in out_a
        assert syncs[0].returncode == 1
        assert root.run_state() == 1  # the worker's main stops the run gently
        assert other.run_state() == 2  # still downloading

        out_b = syncs[1].communicate(timeout=60)[0]
        assert "outcome: synced (sync_error 0)" in out_b, out_b
        assert syncs[1].returncode == 0
        assert os.path.getsize(os.path.join(other.sync_folder(), "slow-b.bin")) == 100000
    finally:
        for proc in syncs:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
        other.remove_shared_state()
        # The emulator logs the stopped download once its delay is over; wait
        # for it, so that it does not count as a request of a later test.
        qshost.wait_for(lambda: any((r.get("args") or {}).get("path") == "/slow-a.bin"
                                    for r in server.requests(route="files/download")),
                        timeout=15, step=0.2)


def test_network_down_then_brought_up(root, server, account):
    server.put_file(account.name, "/a.txt", b"a")
    # No connection to be had: nothing starts, no event, and a worker run by
    # hand fails as with no connection.
    root.set_network(0, 0)
    out = root.host("sync")
    assert out.returncode == 3 and "no network" in out.stdout and "event" not in out.stdout
    assert "syncing:     no" in root.host("status").stdout
    assert root.run_sync().sync_error == 2
    assert "no network" in root.host("status").stdout

    # A connection that can be brought up is.
    root.set_network(1, 0)
    out = root.host("sync")
    assert out.returncode == 0 and "outcome: synced" in out.stdout, out.stdout


def test_transfers_overlap_and_the_host_shows_them(scene, root, server):
    """With transfers set, downloads run side by side at the emulator and the
    host program lists them, as it does the one upload of a classic run; the
    rows still come in listing order though the first file ends last."""
    delay = 0.8
    files = {"/Shelf/%02d.txt" % i: b"book %d" % i for i in range(12)}
    scene.server(put=files)
    scene.device(put={"/notes.txt": b"notes"})
    root.settings(qshost.SETTINGS, "set", "transfers", "4")
    scene.costs("off", content_delay=delay)
    server.add_fault(route="files/download", path="/Shelf/00.txt", delay=3 * delay, count=1)
    out = root.host("sync")
    assert out.returncode == 0, out.stdout + out.stderr
    widest = max([int(m) for m in re.findall(r"; in flight (\d+):", out.stdout)] or [0])
    assert widest >= 3, out.stdout
    assert re.search(r"^progress: local changes .*; in flight 1: notes.txt$", out.stdout, re.M)
    assert "in flight" not in out.stdout.splitlines()[-1]
    scene.check()
    assert qshost.wait_for(lambda: not server.pending_requests(), timeout=30)
    sent = [r for r in scene.new_requests() if r["route"] not in qshost.BASELINE_ROUTES]
    assert sorted(r["route"] for r in sent) == ["files/download"] * len(files) + ["files/upload"]
    # Each download is held `delay` before its answer: begins closer than
    # that were in flight together.
    begins = sorted(r["time"] for r in sent if r["route"] == "files/download")
    assert max(len([b for b in begins if t <= b < t + delay]) for t in begins) >= 3, begins
    db = sqlite3.connect("file:%s?mode=ro" % root.database(), uri=True)
    try:
        rows = [f + "/" + n for f, n in db.execute(
            "SELECT Folders.path, filename FROM Files JOIN Folders ON Files.folder_id = Folders.id "
            "ORDER BY Files.rowid")]
    finally:
        db.close()
    assert [r for r in rows if r.startswith("/Shelf/")] == sorted(files)  # listed in path order
