"""Whole syncs under faults: the i-th request fails, the i-th database
operation fails, or the worker is killed at a random moment. Every faulty run
must leave a consistent device, and clean runs must then converge without
losing anything.

CI runs a sample of the fault points; QS_FAULTS=long (`./qs faults`) runs
every point of both loops and at least 200 kills, and prints the figures."""

import os
import random
import shutil
import sqlite3
import time

import pytest

import qshost
from conftest import assert_no_secret_logged, new_account
from fault_scenario import FaultScene, Figures, injected, kill_at_random

LONG = os.environ.get("QS_FAULTS") == "long"
PHASES = ("first", "later") if LONG else ("later",)

# The emulator's misbehaviours, by the index of the case.
REQUEST_FAULTS = {
    "status": lambda i: {"status": (500, 429)[i % 2]},
    "drop": lambda i: {"drop_after": 20},   # the reply is cut inside its body
    "stall": lambda i: {"stall": 1},        # nothing, then the connection closes
}


class Cases:
    """Fresh device roots and accounts, one per case, removed after it."""

    def __init__(self, tmp_path, emulator, server):
        self.tmp_path, self.emulator, self.server, self.n = tmp_path, emulator, server, 0

    def scenario(self, phase, profile="classic"):
        """"first": a first sync to come, with local files already there;
        "later": synced once, then changed on both sides."""
        self.n += 1
        account = new_account(self.server)
        root = qshost.DeviceRoot.create(str(self.tmp_path / ("root%d" % self.n)))
        root.trust(self.emulator)
        root.login(account.token)
        root.set_profile(profile)
        scene = FaultScene(root, self.server, account.name)
        scene.token = account.token
        if phase == "later":
            assert root.run_sync().sync_error == 0
            scene.change_server(0)
        scene.change_device(0)
        return scene

    def finish(self, scenario, figures, result, taken):
        """A case whose fault was taken is counted, checked and brought to
        convergence; every case is then removed."""
        if taken:
            figures.cases += 1
            scenario.check_after_fault(result)
            scenario.converge(figures)
        self.done(scenario)

    def done(self, scenario):
        scenario.root.remove_shared_state()
        assert_no_secret_logged(scenario.root, scenario.token)
        shutil.rmtree(scenario.root.path, ignore_errors=True)


@pytest.fixture
def cases(tmp_path, emulator, server):
    return Cases(tmp_path, emulator, server)


def points(first, short_points):
    """Every fault point from `first` in the long form, a fixed sample in the
    short one. The caller stops when a point is past the run's end."""
    i = first
    while LONG or i <= max(short_points):
        if LONG or i in short_points:
            yield i
        i += 1


@pytest.mark.parametrize("profile", ["classic", "safe"])
def test_every_request_fails_once(cases, server, profile):
    figures = Figures("requests %s" % profile)
    for phase in PHASES:
        for kind, action in REQUEST_FAULTS.items():
            for i in points(0, (0, 3, 6, 9)):
                scenario = cases.scenario(phase, profile)
                server.add_fault(route="*", skip=i, count=1, **action(i))
                result = scenario.root.run_sync()
                taken = not server.faults()
                server.clear_faults()
                cases.finish(scenario, figures, result, taken)
                if not taken:
                    break
    print("\n" + figures.line())


# Database operations, and the renames that put files in place.
LOCAL_FAULTS = {"sqlite": (1, 9, 20, 45, 80, 130, 200), "rename": (1, 2, 3, 4)}


def marked_store(root, mark=False):
    """Whether the store holds a key of the test's own; `mark` puts it there
    first when there is a store. A store made anew has lost it."""
    if not os.path.exists(root.database()):
        return False
    db = sqlite3.connect(root.database(), isolation_level=None)
    try:
        if mark:
            db.execute("INSERT OR REPLACE INTO Info (key, value) VALUES ('test-mark', '1')")
        return db.execute("SELECT count(*) FROM Info WHERE key = 'test-mark'").fetchone()[0] == 1
    except sqlite3.DatabaseError:
        return False
    finally:
        db.close()


@pytest.mark.parametrize("profile", ["classic", "safe"])
@pytest.mark.parametrize("kind", sorted(LOCAL_FAULTS))
def test_every_local_operation_fails_once(cases, kind, profile):
    figures = Figures("%s %s" % (kind, profile))
    for phase in PHASES:
        for i in points(1, LOCAL_FAULTS[kind]):
            scenario = cases.scenario(phase, profile)
            mark = len(scenario.root.log())
            marked = marked_store(scenario.root, mark=True)
            result = scenario.root.run_sync(QUILLSTONE_FAULT="%s:%d" % (kind, i))
            taken = injected(scenario.root, mark)
            if taken and profile == "safe":
                # A failed store call ends the run with a storage error and
                # never makes the store anew; a run that reports success has
                # written all it did.
                assert result.sync_error in (0, 3) or kind != "sqlite", (i, result)
                assert result.sync_error != 0 or scenario.agrees(), (i, result)
                assert marked_store(scenario.root) or not marked, (i, result)
            cases.finish(scenario, figures, result, taken)
            if not taken:
                break
        print("\n%s (to the end of phase %s)" % (figures.line(), phase), flush=True)
    if profile == "safe":
        # A failed store call never puts a row in another folder, never skips
        # a server item for good, and never records a revision without its
        # download.
        assert (figures.misplaced, figures.skipped, figures.stale) == (0, 0, 0), figures.line()


@pytest.mark.parametrize("profile", ["classic", "safe"])
def test_killed_at_random_moments(cases, server, profile):
    figures = Figures("kills %s" % profile)
    rng = random.Random(int(os.environ.get("QS_FAULT_SEED", "13")))
    scenario = cases.scenario("first", profile)
    start = time.time()
    assert scenario.root.run_sync().sync_error == 0
    longest = 1.5 * (time.time() - start)
    cases.done(scenario)

    kills_wanted = 200 if LONG else 12
    while figures.kills < kills_wanted:
        scenario = cases.scenario("first", profile)
        for step in range(1, 4):
            status = kill_at_random(scenario.root, rng, longest)
            figures.kills += status < 0
            scenario.check_after_fault(None, killed=True)
            scenario.change_server(step)
            scenario.change_device(step)
        figures.cases += 1
        scenario.converge(figures)
        cases.done(scenario)
    print("\n" + figures.line())
