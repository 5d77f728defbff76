"""One sync scenario run under injected faults, and the checks that every
faulty run must pass: the outcome written, nothing half-written under a real
name, no row that claims a file the device does not hold, and after clean
runs a device that agrees with the server and has lost no local edit.

The loops over fault points live in test_fault_loops.py; `./qs faults` runs
their long form and prints the figures gathered here.
"""

import base64
import os
import random
import signal
import sqlite3
import time


# Whether local changes go up yet.
UPLOADS = False
# Names of a download in progress; the next scan deletes them.
PARTIAL = (".downloading", ".progress")


def blob(seed, size):
    return random.Random(seed).randbytes(size)


BASE = {
    "/Books/Road.epub": blob(1, 200 * 1024),
    "/Books/Poems/ode.txt": b"ode to a device",
    "/Books/Poems/empty.txt": b"",
    "/Papers/2026/a.pdf": blob(2, 3000),
    "/Top.txt": b"top",
}


def change_server(server, account, step):
    """What another device does between two runs; `step` varies it."""
    if step == 0:
        server.put_file(account.name, "/Top.txt", b"top, second edition")
        server.put_file(account.name, "/Books/New/fresh.epub", blob(3, 40 * 1024))
        server.put_file(account.name, "/Books/Road.epub", blob(4, 150 * 1024))
        server.delete(account.name, "/Papers")
        server.delete(account.name, "/Books/Poems/empty.txt")
    else:
        rng = random.Random(step)
        server.put_file(account.name, "/Top.txt", b"top %d" % step)
        server.put_file(account.name, "/Books/New/n%d.txt" % rng.randrange(4), blob(step, 5000))
        victims = [e["path_display"] for e in server.tree(account.name)
                   if e["tag"] == "file" and e["path_display"].startswith("/Books/New/")]
        if victims and rng.random() < 0.5:
            server.delete(account.name, rng.choice(victims))


class Figures:
    """What a loop has tried and seen."""

    def __init__(self, name):
        self.name, self.cases, self.kills, self.lost = name, 0, 0, 0
        self.runs_to_converge = {}

    def converged(self, runs):
        self.runs_to_converge[runs] = self.runs_to_converge.get(runs, 0) + 1

    def line(self):
        runs = ", ".join("%d run%s: %d" % (k, "" if k == 1 else "s", v)
                         for k, v in sorted(self.runs_to_converge.items()))
        kills = " kills=%d" % self.kills if self.kills else ""
        return "FAULTS %-9s cases=%d%s converged after {%s} lost=%d" % (
            self.name, self.cases, kills, runs, self.lost)


class Scenario:
    """A fresh account and device root; the server's versions of every path
    are remembered so that a local file can be told from a torn one."""

    def __init__(self, root, server, account):
        self.root, self.server, self.account = root, server, account
        self.versions = {}      # path_lower -> every content the server held
        self.by_rev = {}        # rev -> content
        self.history = {}       # path_lower -> revs in the order the server made them
        self.local_edits = {}   # path -> bytes written on the device before a faulty run
        for path, data in BASE.items():
            server.put_file(account.name, path, data)
        self.remember()

    def server_tree(self):
        tree = {}
        for e in self.server.tree(self.account.name, content=True):
            if e["tag"] == "folder":
                tree[e["path_display"]] = None
            else:
                tree[e["path_display"]] = base64.b64decode(e["content_b64"])
        return tree

    def remember(self):
        self.current = {}
        for e in self.server.tree(self.account.name, content=True):
            if e["tag"] == "file":
                data = base64.b64decode(e["content_b64"])
                self.versions.setdefault(e["path_lower"], set()).add(data)
                self.by_rev[e["rev"]] = data
                history = self.history.setdefault(e["path_lower"], [])
                if e["rev"] not in history:
                    history.append(e["rev"])
                self.current[e["path_lower"]] = e["rev"]

    def edit_locally(self, path, data):
        full = self.root.sync_folder() + path
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "wb") as f:
            f.write(data)
        self.local_edits[path] = data

    # Checks after a faulty run -------------------------------------------

    def check_after_fault(self, result, killed=False):
        """What must hold after any run, also one that failed or was killed."""
        if not killed:
            assert result.returncode == result.sync_error, result
            assert 0 <= result.sync_error <= 8, result
            assert self.root.run_state() == 1
        tree = self.root.local_tree()
        for path, data in tree.items():
            if data is None or path in self.local_edits or path.endswith(PARTIAL):
                continue
            known = self.versions.get(path.lower(), set()) | set(self.local_edits.values())
            assert data in known, "torn or foreign content under %s (%d bytes)" % (path, len(data))
        try:
            rows = self.root.store_rows()["files"]
        except sqlite3.DatabaseError:
            rows = {}  # killed while the store was made: the next run rebuilds it
        if rows:
            # A synced row may lag behind its file (the run ended between the
            # two writes) but never run ahead of it.
            for path, (rev, status, _) in rows.items():
                if status != 1 or path in self.local_edits or rev not in self.by_rev:
                    continue
                later = self.history[path.lower()]
                later = later[later.index(rev):]
                data = tree.get(path)
                assert any(self.by_rev[r] == data for r in later) or \
                    (data is None and path.lower() not in self.current), \
                    "row of %s says synced" % path

    # Convergence -----------------------------------------------------------

    def converge(self, figures, limit=3):
        """Clean runs until device, store and server agree; how many it took."""
        for runs in range(1, limit + 1):
            result = self.root.run_sync()
            self.check_after_fault(result)
            if result.sync_error == 0 and self.agrees():
                figures.converged(runs)
                self.check_nothing_lost(figures)
                return runs
        self.assert_agrees()
        raise AssertionError("no convergence in %d clean runs: %r" % (limit, result))

    def agrees(self):
        try:
            self.assert_agrees()
            return True
        except AssertionError:
            return False

    def assert_agrees(self):
        server = self.server_tree()
        local = self.root.local_tree()
        rows = self.root.store_rows()
        if not UPLOADS:
            # A store rebuilt after a failed read forgets files that the server
            # has deleted since; only an upload pass can settle them.
            # Nor are the leftovers of a killed download deleted before the
            # local scan exists.
            local = {p: d for p, d in local.items() if not p.endswith(PARTIAL) and
                     (p in server or p in rows["files"] or p in rows["folders"])}
        assert local == server
        revs = {e["path_display"]: e["rev"] for e in self.server.tree(self.account.name)
                if e["tag"] == "file"}
        assert {p: (rev, st) for p, (rev, st, _) in rows["files"].items()} == \
            {p: (rev, 1) for p, rev in revs.items()}
        assert set(rows["folders"]) - {""} == {p for p, d in server.items() if d is None}

    def check_nothing_lost(self, figures):
        everywhere = set(d for d in self.server_tree().values() if d is not None)
        everywhere |= set(d for d in self.root.local_tree().values() if d is not None)
        lost = [p for p, data in self.local_edits.items() if data not in everywhere]
        figures.lost += len(lost)
        assert not lost, "local edits lost: %s" % lost


def kill_at_random(root, rng, longest):
    """Starts the worker and SIGKILLs it after a random part of `longest`
    seconds; returns the exit status (negative when killed)."""
    proc = root.start_sync()
    time.sleep(rng.uniform(0, longest))
    if proc.poll() is None:
        proc.send_signal(signal.SIGKILL)
    proc.communicate(timeout=60)
    return proc.returncode


def injected(root, since):
    """Whether the log shows an injected fault after character `since`."""
    return "Injected fault:" in root.log()[since:]
