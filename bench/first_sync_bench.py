"""First sync of many small files from the emulator: time per file against
the emulator alone, bytes written to disk per byte downloaded, fsync calls per
file, the worker's CPU and peak memory, and a second run with nothing to
change against reading the tree with `cat`. A last run syncs book-sized files,
where the bytes written should come close to the bytes downloaded.

Each small-file sync is set beside the floor that no downloader can beat on
this file system: creating, writing, flushing and renaming the same number of
files, with no network and no store. The floor is measured just before and
just after the worker and averaged, because the cost of making a file can
drift within a minute (an ext4 without a journal skips recently freed inodes
one by one, so a burst of deletions slows every creation that follows).

Prints figures; never fails on time. Run through `./qs bench`, or alone with
QS_BUILD_DIR pointing at a build. QS_BENCH_BUILDS (comma-separated build
folders) compares several builds side by side on the same server data.
TMPDIR chooses the file system (a journaled one, for instance, as on the
device). QS_BENCH_BOOKS (count x MiB, default 40x1) sizes the last run; 0
skips it.
"""

import http.client
import json
import os
import resource
import shutil
import ssl
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
import qshost  # noqa: E402

ACCOUNT = ("bench", "bench-token-0123456789abcdef", "dbid:AAbench0000000000000000000000000001")
COUNTS = [int(n) for n in os.environ.get("QS_BENCH_COUNTS", "1000,10000").split(",")]
SYNC_CALLS = ("fsync", "fdatasync", "sync_file_range", "syncfs")


def emulator_alone(info, token, paths):
    """Serves the sync's requests to a plain keep-alive client: the listing
    and one download per file. Seconds."""
    url = info["api_url"]
    host, port = url.split("//")[1].split("/")[0].split(":")
    ctx = ssl.create_default_context(cafile=info["ca_file"])
    conn = http.client.HTTPSConnection(host, int(port), context=ctx)
    auth = {"Authorization": "Bearer " + token}
    start = time.perf_counter()
    conn.request("POST", "/2/users/get_current_account", body=b"null",
                 headers=dict(auth, **{"Content-Type": "application/json"}))
    conn.getresponse().read()
    conn.request("POST", "/2/files/list_folder", body=b'{"path":"","recursive":true}\n',
                 headers=dict(auth, **{"Content-Type": "application/json"}))
    conn.getresponse().read()
    for path in paths:
        conn.request("POST", "/2/files/download", body=b"",
                     headers=dict(auth, **{"Dropbox-API-Arg": json.dumps({"path": path})}))
        conn.getresponse().read()
    elapsed = time.perf_counter() - start
    conn.close()
    return elapsed


def perf_usable():
    try:
        return subprocess.run(["perf", "stat", "-e", "syscalls:sys_enter_fsync", "true"],
                              capture_output=True).returncode == 0
    except OSError:
        return False


def run_worker(root, count_syncs):
    """Runs one sync. Seconds, bytes written to disk, sync calls (or None),
    peak RSS in KiB (a child's own, not of perf)."""
    cmd = [root.real("/fwroot/bin/dropbox_sync")]
    stat_file = os.path.join(root.path, "perf.txt")
    if count_syncs:
        # Tracepoints count in the kernel, at no cost to the traced program.
        events = ",".join("syscalls:sys_enter_" + c for c in SYNC_CALLS)
        # perf's own RSS would mask the worker's in RUSAGE_CHILDREN: a wrapper
        # under perf reports the rusage of the worker alone.
        cmd = (["perf", "stat", "-x", ",", "-o", stat_file, "-e", events, "--", sys.executable,
                "-c", WRAPPER] + cmd)
    # wait4 gives this child's own blocks written. Its ru_maxrss would hold
    # this process's peak (a child starts as a copy of it), so the peak RSS
    # is the worker's own high-water mark, read while it runs.
    with tempfile.TemporaryFile("w+") as err:
        start = time.perf_counter()
        proc = subprocess.Popen(cmd, env=root.env(), stdout=subprocess.DEVNULL, stderr=err)
        hwm = 0
        while True:
            pid, status, usage = os.wait4(proc.pid, os.WNOHANG)
            if pid:
                break
            hwm = max(hwm, high_water_kib(proc.pid))
            time.sleep(0.005)
        elapsed = time.perf_counter() - start
        proc.returncode = os.waitstatus_to_exitcode(status)
        err.seek(0)
        stderr = err.read()
    if proc.returncode != 0:
        raise RuntimeError("sync failed with %d: %s" % (proc.returncode, stderr[-500:]))
    # Blocks as the worker dirtied them: its log, store and temporary data
    # count as much as the files it puts in place.
    written = usage.ru_oublock * 512
    syncs, peak, cpu = None, hwm, (usage.ru_utime, usage.ru_stime)
    if count_syncs:
        syncs = 0
        with open(stat_file) as f:
            for line in f:
                fields = line.split(",")
                if len(fields) > 2 and fields[2].startswith("syscalls:") and fields[0].isdigit():
                    syncs += int(fields[0])
        os.unlink(stat_file)
        fields = stderr.strip().splitlines()[-1].split()
        peak, cpu = int(fields[1]), (float(fields[2]), float(fields[3]))
    return elapsed, written, syncs, peak, cpu


def high_water_kib(pid):
    """VmHWM of a running process in KiB; 0 once it is gone."""
    try:
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


# Runs its arguments and prints the peak RSS and CPU times of its children
# last on stderr.
WRAPPER = r"""
import resource, subprocess, sys
rc = subprocess.call(sys.argv[1:])
r = resource.getrusage(resource.RUSAGE_CHILDREN)
sys.stderr.write("\npeak_kib %d %f %f\n" % (r.ru_maxrss, r.ru_utime, r.ru_stime))
sys.exit(rc)
"""


def tree_cat_seconds(folder):
    start = time.perf_counter()
    subprocess.run("find . -type f -not -path './.dropbox/*' -print0 | xargs -0 cat > /dev/null",
                   shell=True, cwd=folder, check=True)
    return time.perf_counter() - start


def disk_floor(folder, count):
    """Seconds and bytes written to put `count` small files in place as the
    downloader must at the least: create, write, flush the data, rename (no
    network, no store)."""
    for d in range(50):
        os.makedirs(os.path.join(folder, "d%02d" % d), exist_ok=True)
    before = resource.getrusage(resource.RUSAGE_SELF).ru_oublock
    start = time.perf_counter()
    for i in range(count):
        path = os.path.join(folder, "d%02d" % (i % 50), "f%05d" % i)
        fd = os.open(path + ".downloading", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
        os.write(fd, b"small file %d\n" % i)
        os.fdatasync(fd)
        os.close(fd)
        os.rename(path + ".downloading", path)
    elapsed = time.perf_counter() - start
    written = (resource.getrusage(resource.RUSAGE_SELF).ru_oublock - before) * 512
    # Left in place: freeing inodes now would slow the next measurement.
    return elapsed, written


def bench(count, work, builds, count_syncs):
    rows = []
    with qshost.Emulator(os.path.join(work, "emu%d" % count), [ACCOUNT]) as emu:
        server = emu.client()
        server.set_page_size(count + 100)  # one page: a listing of several ends only by a stop
        paths = []
        payload = 0
        for i in range(count):
            path = "/Books/shelf%02d/book%05d.txt" % (i % 50, i)
            data = b"small file %d\n" % i
            payload += len(data)
            server.put_file(ACCOUNT[0], path, data)
            paths.append(path.lower())
        for n, build in enumerate(run_order(builds)):
            root = qshost.DeviceRoot.create(os.path.join(work, "root%d-%d" % (count, n)), build)
            root.trust(emu)
            root.login(ACCOUNT[1])
            floor_at = os.path.join(work, "floor%d-%d" % (count, n))
            try:
                floor1, floor_disk = disk_floor(floor_at + "a", count)
                first, written, syncs, peak, cpu = run_worker(root, count_syncs)
                floor2, _ = disk_floor(floor_at + "b", count)
                files = sum(1 for p, v in root.local_tree().items() if v is not None)
                again, _, _, _, _ = run_worker(root, False)
                cat = tree_cat_seconds(root.sync_folder())
                store = os.path.getsize(os.path.join(root.sync_folder(), ".dropbox", "files.db"))
            except RuntimeError as e:
                print("  %s: %s" % (build, e))
                continue
            finally:
                root.remove_shared_state()
            alone = emulator_alone(emu.info, ACCOUNT[1], paths)
            rows.append((label(build), first, alone, written, syncs, peak, cpu, again, cat, store,
                         files, (floor1 + floor2) / 2, floor_disk))
        server.close()
    print("%6d files, %d bytes of content:" % (count, payload))
    for (name, first, alone, written, syncs, peak, cpu, again, cat, store, files, floor,
         floor_disk) in averaged(rows):
        ms = 1000.0 / count
        print("  %-20s first sync %6.2f s (%5.2f ms/file), emulator alone %5.2f s: %4.2f of its rate"
              % (name, first, first * ms, alone, alone / first))
        print("  %-20s floor (create, write, flush, rename) %.2f ms/file; emulator + floor %.2f"
              " ms/file; the worker's own %.2f ms/file; worker CPU %.2f user + %.2f sys ms/file"
              % ("", floor * ms, (alone + floor) * ms, (first - alone - floor) * ms,
                 cpu[0] * ms, cpu[1] * ms))
        print("  %-20s disk %.1f MB = %.1f x content, goal 1.5 (+store %.1f MB; the floor writes %.1f MB),"
              " %s fsync/file, peak RSS %.1f MiB" %
              ("", written / 1e6, written / payload, store / 1e6, floor_disk / 1e6,
               "%.2f" % (syncs / count) if syncs is not None else "?", peak / 1024.0))
        print("  %-20s no-change run %.2f s = %.2f x cat %.2f s%s"
              % ("", again, again / cat if cat > 0 else 0, cat,
                 "" if files == count else " (%d files!)" % files))


def bench_books(count, mib, work, builds, count_syncs):
    """Book-sized files: the bytes written against the bytes downloaded."""
    rows = []
    with qshost.Emulator(os.path.join(work, "emu-books"), [ACCOUNT]) as emu:
        server = emu.client()
        payload = 0
        for i in range(count):
            data = os.urandom(mib * 1024 * 1024)
            payload += len(data)
            server.put_file(ACCOUNT[0], "/Books/book%03d.epub" % i, data)
        for n, build in enumerate(run_order(builds)):
            root = qshost.DeviceRoot.create(os.path.join(work, "books-%d" % n), build)
            root.trust(emu)
            root.login(ACCOUNT[1])
            try:
                first, written, syncs, peak, _ = run_worker(root, count_syncs)
            except RuntimeError as e:
                print("  %s: %s" % (build, e))
                continue
            finally:
                root.remove_shared_state()
            rows.append((label(build), first, written, syncs, peak))
        server.close()
    print("%6d books of %d MiB:" % (count, mib))
    for name, first, written, syncs, peak in averaged(rows):
        print("  %-20s first sync %6.2f s, disk %.1f MB = %.2f x content (goal 1.5), %s fsync/file,"
              " peak RSS %.1f MiB" % (name, first, written / 1e6, written / payload,
                                      "%.2f" % (syncs / count) if syncs is not None else "?",
                                      peak / 1024.0))


def label(build):
    """A build's name in the table: its folder and the one above it."""
    parts = os.path.abspath(build).rstrip("/").split("/")
    return "/".join(parts[-2:])[-20:]


def run_order(builds):
    """Several builds run twice, in turn and then backwards, so that a drift
    of the machine within the run weighs on each alike."""
    return builds + builds[::-1] if len(builds) > 1 else builds


def averaged(rows):
    """One row per build, each figure the mean of its runs."""
    by_name = {}
    for row in rows:
        by_name.setdefault(row[0], []).append(row)
    result = []
    for name, runs in by_name.items():
        merged = [name]
        for values in list(zip(*runs))[1:]:
            if isinstance(values[0], tuple):
                merged.append(tuple(sum(v) / len(v) for v in zip(*values)))
            elif values[0] is None:
                merged.append(None)
            else:
                merged.append(sum(values) / len(values))
        result.append(merged)
    return result


def main():
    builds = [b for b in os.environ.get("QS_BENCH_BUILDS", "").split(",") if b]
    builds = [os.path.abspath(b) for b in builds] or [qshost.build_dir()]
    work = tempfile.mkdtemp(prefix="qs-bench-")
    count_syncs = perf_usable()
    print("first sync of small files (one listing page, one download per file)")
    books = os.environ.get("QS_BENCH_BOOKS", "40x1")
    try:
        for count in COUNTS:
            bench(count, work, builds, count_syncs)
        if books != "0":
            count, mib = (int(n) for n in books.split("x"))
            bench_books(count, mib, work, builds, count_syncs)
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
