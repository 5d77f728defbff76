"""One two-way sync scenario run under injected faults, and the checks that
every faulty run must pass: the outcome written, nothing half-written under a
real name, no row ahead of its file; and after clean runs, a device that
agrees with the server and has lost no local edit.

The loops over fault points live in test_fault_loops.py; `./qs faults` runs
their long form and prints the figures gathered here.
"""

import base64
import collections
import random
import re
import signal
import sqlite3
import time

import qshost

# Names of a download in progress; the next scan deletes them.
PARTIAL = (".downloading", ".progress")
# The mark of a conflicted copy, either pass's form.
CONFLICT_MARK = re.compile(r" \(conflicted copy \d{4}-\d{2}-\d{2}(?: \d+)?\)(?: \(\d+\))?")


def blob(seed, size):
    return random.Random(seed).randbytes(size)


BASE = {
    "/Books/Road.epub": blob(1, 200 * 1024),
    "/Books/Poems/ode.txt": b"ode to a device",
    "/Books/Poems/empty.txt": b"",
    "/Papers/2026/a.pdf": blob(2, 3000),
    "/Top.txt": b"top",
}


class Figures:
    """What a loop has tried and seen."""

    def __init__(self, name):
        self.name, self.cases, self.kills, self.lost = name, 0, 0, 0
        self.skipped = 0    # cases where a server entry was skipped for good
        self.misplaced = 0  # cases where a file row landed in another folder
        self.stale = 0      # cases where a row took a new revision without its download
        self.runs_to_converge = collections.Counter()

    def line(self):
        runs = ", ".join("%d run%s: %d" % (k, "" if k == 1 else "s", v)
                         for k, v in sorted(self.runs_to_converge.items()))
        seen = (("kills", self.kills), ("skipped-for-good", self.skipped),
                ("misplaced-rows", self.misplaced), ("stale-content", self.stale))
        return "FAULTS %-9s cases=%d converged after {%s}%s lost=%d" % (
            self.name, self.cases, runs, "".join(" %s=%d" % kv for kv in seen if kv[1]), self.lost)


class FaultScene(qshost.Scenario):
    """The harness's scenario, remembering every version the server held and
    every edit made on the device, so that a torn file or a lost edit shows."""

    def __init__(self, root, server, account):
        super().__init__(root, server, account)
        self.versions = {}      # path_lower -> every content the server held
        self.by_rev = {}        # rev -> content
        self.history = {}       # path_lower -> revs in the order the server made them
        self.current = {}       # path_lower -> the server's rev now
        self.local_edits = {}   # path -> bytes written on the device
        self.misplaced = set()  # synced rows seen at paths the server never had
        self.stale = {}         # path -> older server version kept under a newer row
        self.server(put=BASE)
        self.remember()

    def remember(self):
        self.current = {}
        for e in self.server_client.tree(self.account, content=True):
            if e["tag"] != "file":
                continue
            data = base64.b64decode(e["content_b64"])
            self.versions.setdefault(e["path_lower"], set()).add(data)
            self.by_rev[e["rev"]] = data
            history = self.history.setdefault(e["path_lower"], [])
            if e["rev"] not in history:
                history.append(e["rev"])
            self.current[e["path_lower"]] = e["rev"]

    def change_server(self, step):
        """What another device does between two runs; `step` varies it."""
        if step == 0:
            self.server(put={"/Top.txt": b"top, second edition",
                             "/Books/New/fresh.epub": blob(3, 40 * 1024),
                             "/Books/Road.epub": blob(4, 150 * 1024)},
                        delete=["/Papers", "/Books/Poems/empty.txt"])
        else:
            rng = random.Random(step)
            self.server(put={"/Top.txt": b"top %d" % step,
                             "/Books/New/n%d.txt" % rng.randrange(4): blob(step, 5000)})
        self.remember()

    def change_device(self, step):
        """Local work that must survive: new files and a new folder. (An edit
        of a synced file goes up as a renamed copy on every run and never
        settles, by design; the upload tests show it.)"""
        edits = {"/Local/new%d.txt" % step: blob(100 + step, 3000),
                 "/Books/mine%d.txt" % step: b"written on the device %d" % step}
        # Enough new small files in one folder for the safe profile to batch.
        edits.update({"/Local/new%d%s.txt" % (step, c): b"%s %d" % (c.encode(), step)
                      for c in "abc"})
        # Two new folders side by side: safe creates them in one request.
        self.device(put=edits, mkdir=["/Local/Empty%d" % step, "/Local/Shelf%d" % step])
        self.local_edits.update(edits)

    # Checks after a faulty run -------------------------------------------

    def check_after_fault(self, result, killed=False):
        """What must hold after any run, also one that failed or was killed."""
        if not killed:
            assert result.returncode == result.sync_error, result
            assert 0 <= result.sync_error <= 8, result
            assert self.root.run_state() == 1
        tree = self.root.local_tree()
        edits = set(self.local_edits.values())
        for path, data in tree.items():
            if data is None or path.endswith(PARTIAL):
                continue
            # The renamed copies that the local pass makes of stale content
            # come back down under new names. A download killed before its row
            # reads as a local edit next run, so its conflicted copy may hold
            # any version the server had under the original name.
            original = CONFLICT_MARK.sub("", path).lower()
            known = self.versions.get(path.lower(), set()) | edits | set(self.stale.values())
            known |= self.versions.get(original, set())
            assert data in known, "torn or foreign content under %s (%d bytes)" % (path, len(data))
        try:
            rows = self.root.store_rows()["files"]
        except sqlite3.DatabaseError:
            rows = {}  # killed while the store was made: the next run rebuilds it
        # A synced row may lag behind its file (the run ended between the two
        # writes) but never run ahead of it.
        for path, (rev, status, _) in rows.items():
            if status != 1 or path in self.local_edits or rev not in self.by_rev:
                continue
            if path.lower() not in self.history:
                # A folder lookup that fails reads as "no such folder", and the
                # folder insert that follows is ignored and gives the id of the
                # row inserted last: the file's row lands in another folder.
                # The next local pass takes it for a deletion and drops it.
                self.misplaced.add(path)
                continue
            history = self.history[path.lower()]
            later = history[history.index(rev):]
            data = tree.get(path)
            if data is not None and any(self.by_rev[r] == data for r in history[:history.index(rev)]):
                # A failed store read of a changed file stores the server's
                # revision and skips the download: the old content stays.
                self.stale[path] = data
                continue
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
                figures.runs_to_converge[runs] += 1
                figures.misplaced += bool(self.misplaced)
                figures.stale += bool(self.stale)
                self.check_nothing_lost(figures)
                return runs
        if self.skipped_for_good():
            figures.skipped += 1
            self.check_nothing_lost(figures)
            return None
        if self.kept_old_content():
            figures.stale += 1
            self.check_nothing_lost(figures)
            return None
        self.check(local=self.server_tree())
        raise AssertionError("no convergence in %d clean runs: %r" % (limit, result))

    def skipped_for_good(self):
        """Whether the device differs from the server only by entries of the
        server pass that were skipped. That pass does not look at the results
        of store calls, so one failed lookup skips an entry (a folder with all
        below it) while the page's cursor moves on: a new item never comes
        down (and has no row), or a deleted one stays on the device."""
        server, local = self.server_tree(), self.root.local_tree()
        rows = self.rows()
        missing, extra = set(server) - set(local), set(local) - set(server)
        if not (missing or extra) or any(local[p] != server[p] for p in set(local) & set(server)):
            return False
        never_came = not any(p in rows["files"] or p in rows["folders"] for p in missing)
        never_left = all(local[p] is None or local[p] in self.versions.get(p.lower(), ())
                         for p in extra)
        return never_came and never_left

    def kept_old_content(self):
        """Whether the device differs from the server only by files that kept
        an older server version (their row took the newer revision without
        the download, or the change was skipped), and by the renamed copies
        of that old content that the local pass sends up."""
        server, local = self.server_tree(), self.root.local_tree()
        differing = [p for p in set(server) | set(local) if server.get(p) != local.get(p)]
        old = set(self.stale.values())
        old |= set(local[p] for p in differing if p in server and local.get(p) is not None and
                   local[p] in self.versions.get(p.lower(), ()))
        return bool(old) and all(local.get(p) in old or server.get(p) in old for p in differing)

    def agrees(self):
        try:
            self.check(local=self.server_tree())
            return True
        except AssertionError:
            return False

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
    time.sleep(rng.uniform(0, longest))  # the moment of the kill is the case tried
    if proc.poll() is None:
        proc.send_signal(signal.SIGKILL)
    proc.communicate(timeout=60)
    return proc.returncode


def injected(root, since):
    """Whether the log shows an injected fault after character `since`."""
    return "Injected fault:" in root.log()[since:]
