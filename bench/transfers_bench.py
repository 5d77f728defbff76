"""Transfers in flight on a slow link: first syncs and uploads under three
links, each set beside one request at a time (the setting transfers 1) and
beside the bound that no number of transfers can beat.

Links: `loopback` (the emulator at once), `100ms` (bench/slow_link.py: 50 ms
each way, connection set-up included, 2 MiB/s each direction) and `real`
(the emulator's `real` costs, its rate limit included). Scenarios, as data in
SCENARIOS: the first sync of many small files and of books of 1 to 5 MiB, and
the safe profile's upload of many new small files. Each run uses a fresh
account, so no rate-limit window carries over. A row gives the time, that
time over the one-at-a-time time of the first build, the bound and the share
of it reached (bound / time), the requests by route, the 429s, the disk bytes
written (log, store and temporary data included) per byte the server sent
and, for first syncs, the bytes written per file beyond its content, and the
peak RSS. The bound is the largest of: bytes over bandwidth; the
requests' delays (0.1 s, or the `real` delay of their route) over transfers in
flight; the `real` rate limit's 20 requests a second. Then a listing of 20,000
files in pages of 2,000 (safe profile, loopback): peak RSS and time per file
at 2,000 and at 20,000.

Prints figures; never fails. QS_BENCH_BUILDS (comma-separated build folders)
runs every row with each build side by side, the first build's row first; the
other builds run at their own default only. Sizes: QS_BENCH_FILES (1000),
QS_BENCH_BOOK_COUNT (100), QS_BENCH_UPLOADS (1000), QS_BENCH_LISTING
("2000,20000"), QS_BENCH_TRANSFERS (the sweep of the small-file sync,
"1,2,4,8,16"), QS_BENCH_LINKS ("loopback,100ms,real"), QS_BENCH_SCENARIOS
(names, default all). QS_BENCH_QUICK=1 divides the counts by 10.
"""

import concurrent.futures
import os
import random
import shutil
import sys
import tempfile
import time
import types

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import first_sync_bench as fsb  # noqa: E402  (its runner, labels and averages)
import qshost  # noqa: E402  (on the path through first_sync_bench)
from slow_link import SlowLink  # noqa: E402

QUICK = os.environ.get("QS_BENCH_QUICK") == "1"
MIB = 1 << 20
LINK_BANDWIDTH = 2 * MIB
REAL = {"rpc_delay": 0.3, "content_delay": 0.5, "bandwidth": 2 * MIB, "rate": 300 / 15.0}
CONTENT_ROUTES = ("files/download", "files/upload", "files/upload_session/start",
                  "files/upload_session/append_v2", "files/upload_session/finish")


def count(name, default):
    n = int(os.environ.get(name, default))
    return max(1, n // 10) if QUICK else n


def sweep():
    return [int(n) for n in os.environ.get("QS_BENCH_TRANSFERS", "1,2,4,8,16").split(",")]


def small_files(n):
    """Twenty to a folder at any count: the look-ahead stops at a folder entry."""
    shelves = max(1, n // 20)
    return [("/Books/shelf%03d/book%05d.txt" % (i % shelves, i), b"small file %d\n" % i)
            for i in range(n)]


def books(n):
    rng = random.Random(5)
    return [("/Books/book%03d.epub" % i, os.urandom(rng.randint(1, 5) * MIB)) for i in range(n)]


# name, profile, where the files start, the files, the transfers tried.
SCENARIOS = [
    ("small files", "classic", "server", lambda: small_files(count("QS_BENCH_FILES", 1000)),
     sweep),
    ("books 1-5 MiB", "classic", "server", lambda: books(count("QS_BENCH_BOOK_COUNT", 100)),
     lambda: [1]),
    ("upload small files", "safe", "device",
     lambda: small_files(count("QS_BENCH_UPLOADS", 1000)), lambda: [1]),
]


class Link:
    """Where a device root reaches the emulator, and what a request costs
    there: the emulator's own costs, or the slow link in front of it."""

    def __init__(self, name, emu):
        self.name, self.emu, self.proxy = name, emu, None
        emu.client().set_costs("real" if name == "real" else "off")
        # The service's widest page: a classic run asks every page with its
        # first cursor, so a library of more than one page never ends there.
        emu.client().set_page_size(2000)
        info = emu.info
        if name == "100ms":
            self.proxy = SlowLink(("127.0.0.1", info["port"]), 0.05, LINK_BANDWIDTH).start()
            direct = "127.0.0.1:%d" % info["port"]
            info = dict(info, **{k: info[k].replace(direct, "127.0.0.1:%d" % self.proxy.port)
                                 for k in ("api_url", "content_url")})
        self.target = types.SimpleNamespace(info=info)

    def connections(self):
        """Connections made through the slow link so far ("-" elsewhere)."""
        return str(self.proxy.connections) if self.proxy else "-"

    def close(self):
        if self.proxy:
            self.proxy.stop()
        self.emu.client().set_costs("off")

    def bound(self, requests, payload, transfers):
        """Seconds no run can beat on this link."""
        if self.name == "loopback":
            return None
        if self.name == "100ms":
            return max(len(requests) * 0.1 / transfers, payload / LINK_BANDWIDTH)
        delays = sum(REAL["content_delay"] if r["route"] in CONTENT_ROUTES else REAL["rpc_delay"]
                     for r in requests if r["status"] != 429)
        return max(delays / transfers, payload / REAL["bandwidth"], len(requests) / REAL["rate"])


class Runner:
    """One emulator; each run a fresh account and device root."""

    def __init__(self, work, emu):
        self.work, self.emu, self.server, self.runs = work, emu, emu.client(), 0

    def account(self, files, put):
        self.runs += 1
        name = "bench%d" % self.runs
        token = "bench-token-%d-0123456789abcdef" % self.runs
        self.server.add_account(name, token)
        if put:
            put_files(self.server, name, files)
        return name, token

    def run(self, build, link, profile, files, where, transfers):
        name, token = self.account(files, where == "server")
        root = qshost.DeviceRoot.create(os.path.join(self.work, "root%d" % self.runs), build)
        root.trust(link.target)
        root.login(token)
        root.set_profile(profile)
        if transfers is not None:
            root.settings(qshost.SETTINGS, "set", "transfers", str(transfers))
        if where == "device":
            for path, data in files:
                local = root.sync_folder() + path
                os.makedirs(os.path.dirname(local), exist_ok=True)
                with open(local, "wb") as f:
                    f.write(data)
        self.server.clear_requests()
        error = None
        try:
            elapsed, written, _, peak, _ = fsb.run_worker(root, False)
        except RuntimeError as e:
            elapsed, written, peak, error = None, 0, 0, str(e).splitlines()[0][:60]
        finally:
            root.remove_shared_state()
        requests = [r for r in self.server.requests() if r["account"] == name]
        shutil.rmtree(root.path, ignore_errors=True)
        return elapsed, written, peak, requests, error


def put_files(server, account, files):
    """Seeds the server four requests at a time."""
    clients = [server] + [qshost.emulator_client.EmulatorClient(server.info) for _ in range(3)]

    def put(i):
        for path, data in files[i::4]:
            clients[i].put_file(account, path, data)

    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        list(pool.map(put, range(4)))
    for c in clients[1:]:
        c.close()


def by_route(requests):
    counts = {}
    for r in requests:
        short = r["route"].replace("files/", "").replace("upload_session/", "us/")
        counts[short] = counts.get(short, 0) + 1
    return " ".join("%s %d" % kv for kv in sorted(counts.items(), key=lambda kv: -kv[1]))


def scenario(work, builds, name, profile, where, files, transfers_list, links):
    payload = sum(len(d) for _, d in files)
    print("\n%s: %d files, %.1f MB, %s profile" % (name, len(files), payload / 1e6, profile))
    print("  %-8s %-20s %5s %8s %6s %8s %6s %5s %6s %6s %6s  %s" %
          ("link", "build", "xfers", "seconds", "/one", "bound", "ofbnd", "429s", "disk/B",
           "+B/fil", "RSS MB", "requests by route"))
    with qshost.Emulator(os.path.join(work, "emu-" + name.split()[0]), []) as emu:
        runner = Runner(work, emu)
        for link_name in links:
            link = Link(link_name, emu)
            one = None
            if link_name == "loopback":
                # A fresh emulator's first run is up to a second slower, which
                # is most of a loopback figure: it is run once and not shown.
                runner.run(builds[0], link, profile, files, where, None)
            # The sweep with the first build, then each build at its default.
            rows = [(builds[0], t) for t in transfers_list]
            rows += [(b, None) for b in fsb.run_order(builds)]
            for build, transfers in rows:
                elapsed, written, peak, requests, error = runner.run(
                    build, link, profile, files, where, transfers)
                shown = "dflt" if transfers is None else str(transfers)
                if error:
                    print("  %-8s %-20s %5s  failed: %s" % (link_name, fsb.label(build), shown,
                                                           error))
                    continue
                if transfers == 1 and build == builds[0]:
                    one = elapsed
                sent = sum(r.get("bytes_out") or 0 for r in requests)
                bound = link.bound(requests, payload, transfers) if transfers else None
                # What a file costs the disk beyond its bytes (its row, its log
                # line, the store's pages): what decides disk/B for tiny files.
                extra = (written - sent) / len(files) if where == "server" else 0
                print("  %-8s %-20s %5s %8.2f %6s %8s %6s %5d %6.2f %6.0f %6.1f  %s" % (
                    link_name, fsb.label(build), shown, elapsed,
                    "%.3f" % (elapsed / one) if one else "-",
                    "%.2f" % bound if bound else "-", "%.2f" % (bound / elapsed) if bound else "-",
                    sum(1 for r in requests if r["status"] == 429),
                    written / sent if sent else 0, extra, peak / 1024.0, by_route(requests)))
                sys.stdout.flush()
            link.close()


def listing(work, builds, counts):
    """A library listed in pages of 2,000, safe profile, loopback."""
    print("\nlisting in pages of 2,000, safe profile, loopback (goal: RSS <= 32 MiB, time per"
          " file at the largest <= 1.1 x at the smallest)")
    with qshost.Emulator(os.path.join(work, "emu-listing"), []) as emu:
        emu.client().set_page_size(2000)
        runner = Runner(work, emu)
        for build in builds:
            per_file = {}
            for n in counts:
                elapsed, _, peak, requests, error = runner.run(
                    build, Link("loopback", emu), "safe", small_files(n), "server", None)
                if error:
                    print("  %-20s %6d files failed: %s" % (fsb.label(build), n, error))
                    continue
                per_file[n] = elapsed / n
                print("  %-20s %6d files %7.2f s %6.3f ms/file (%.2f x at %d) peak RSS %5.1f MiB"
                      "  %s" % (fsb.label(build), n, elapsed, 1000 * elapsed / n,
                                per_file[n] / per_file[counts[0]] if counts[0] in per_file else 0,
                                counts[0], peak / 1024.0, by_route(requests)))
                sys.stdout.flush()


def proxy_overhead(work):
    """The slow link at no delay against the emulator alone: the proxy must
    not be what a loopback figure measures."""
    account = ("p", "proxy-token-0123456789abcdef", "dbid:AAproxy0000000000000000000000000001")
    with qshost.Emulator(os.path.join(work, "emu-proxy"), [account]) as emu:
        paths = [p.lower() for p, _ in small_files(count("QS_BENCH_FILES", 1000) // 2)]
        put_files(emu.client(), "p", small_files(len(paths)))
        direct = fsb.emulator_alone(emu.info, account[1], paths)
        with SlowLink(("127.0.0.1", emu.info["port"]), 0.0) as link:
            info = dict(emu.info, api_url="https://127.0.0.1:%d/2" % link.port)
            proxied = fsb.emulator_alone(info, account[1], paths)
    print("slow link at no delay: %d requests %.2f s, direct %.2f s (%.2f ms/request added)"
          % (len(paths) + 2, proxied, direct, 1000 * (proxied - direct) / (len(paths) + 2)))


def main():
    builds = [os.path.abspath(b) for b in os.environ.get("QS_BENCH_BUILDS", "").split(",") if b]
    builds = builds or [qshost.build_dir()]
    links = os.environ.get("QS_BENCH_LINKS", "loopback,100ms,real").split(",")
    chosen = os.environ.get("QS_BENCH_SCENARIOS")
    work = tempfile.mkdtemp(prefix="qs-transfers-")
    started = time.monotonic()
    print("transfers in flight (/one: time over transfers 1; ofbnd: bound over time; goals at"
          " 100ms: small <= 0.2 of one, upload <= 0.15, books >= 0.9 of the bandwidth; disk/B"
          " <= 1.5)")
    try:
        proxy_overhead(work)
        for name, profile, where, files, transfers in SCENARIOS:
            if not chosen or name in chosen.split(","):
                scenario(work, builds, name, profile, where, files(), transfers(), links)
        if not chosen or "listing" in chosen.split(","):
            default = "2000,6000" if QUICK else "2000,20000"
            counts = [int(n) for n in os.environ.get("QS_BENCH_LISTING", default).split(",")]
            listing(work, builds, counts)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print("\n%.0f s in all" % (time.monotonic() - started))


if __name__ == "__main__":
    main()
