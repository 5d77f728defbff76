"""Local changes going up, each figure a ratio measured side by side in one run:

(a) a run with nothing to change over 10,000 files in 500 folders, against
    `cat` reading every byte of the same tree (every run digests every file);
(c) a first upload of 1,000 small files, against the emulator alone serving
    the same requests (replayed from its log by a plain keep-alive client);
(d) one 64 MiB file uploaded in chunks, against plain `curl` posts of the
    same chunks to the same emulator;
with the worker's peak memory in each. Prints figures; never fails on time.
Run through `./qs bench`, or alone with QS_BUILD_DIR pointing at a build.
QS_BENCH_TREE_FILES, QS_BENCH_UPLOAD_FILES and QS_BENCH_BIG_MIB shrink it;
QS_BENCH_PARTS (say "c") runs only some parts. QS_BENCH_BUILDS
(comma-separated build folders) runs (c) for each build in turn on the same
server, QS_BENCH_ROUNDS times over, so that builds compare side by side.
"""

import http.client
import json
import os
import random
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
import qshost  # noqa: E402
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import first_sync_bench  # noqa: E402

TREE_FILES = int(os.environ.get("QS_BENCH_TREE_FILES", "10000"))
UPLOAD_FILES = int(os.environ.get("QS_BENCH_UPLOAD_FILES", "1000"))
BIG_MIB = int(os.environ.get("QS_BENCH_BIG_MIB", "64"))
CHUNK = 4 * 1024 * 1024
_accounts = iter(range(1, 1000))


def new_account(server):
    n = next(_accounts)
    token = "bench-token-%d-0123456789abcdef" % n
    server.add_account("bench%d" % n, token, "dbid:AAbench%029d" % n)
    return "bench%d" % n, token


def new_root(work, emu, token, name, build=None):
    root = qshost.DeviceRoot.create(os.path.join(work, name), build)
    root.trust(emu)
    root.login(token)
    return root


def run_worker(root):
    """Seconds, exit status and peak RSS in MiB of one dropbox_sync run.

    The peak is the worker's own high-water mark, read from /proc while it
    runs: the rusage of a child also carries the parent's mark from before
    its exec, which for this process holds the test data."""
    start = time.perf_counter()
    proc = subprocess.Popen([root.real("/fwroot/bin/dropbox_sync")], env=root.env(),
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    peak_kib = 0
    while True:
        pid, status, _ = os.wait4(proc.pid, os.WNOHANG)
        if pid:
            break
        try:
            with open("/proc/%d/status" % proc.pid) as f:
                for line in f:
                    if line.startswith("VmHWM:"):
                        peak_kib = max(peak_kib, int(line.split()[1]))
        except OSError:
            pass
        time.sleep(0.005)
    proc.returncode = os.waitstatus_to_exitcode(status)
    return time.perf_counter() - start, proc.returncode, peak_kib / 1024.0


def write_tree(folder, count, folders, size_range):
    rnd = random.Random(count)
    block = os.urandom(1 << 16)
    for i in range(count):
        d = os.path.join(folder, "shelf%03d" % (i % folders))
        os.makedirs(d, exist_ok=True)
        size = rnd.randint(*size_range)
        with open(os.path.join(d, "book%05d.epub" % i), "wb") as f:
            f.write((block * (size // len(block) + 1))[:size])


def cat_seconds(folder):
    start = time.perf_counter()
    subprocess.run("find '%s' -path '*/.dropbox' -prune -o -type f -print0 | xargs -0 cat "
                   "> /dev/null" % folder, shell=True, check=True)
    return time.perf_counter() - start


def replay(info, token, requests, folder):
    """Sends `requests` (from the emulator's log) again over one kept-alive
    connection, uploads with their file's bytes. Seconds."""
    host, port = info["api_url"].split("//")[1].split("/")[0].split(":")
    conn = http.client.HTTPSConnection(host, int(port), context=qshost_ssl(info))
    failed = 0
    start = time.perf_counter()
    for r in requests:
        headers = {"Authorization": "Bearer " + token}
        args = r.get("args")
        if isinstance(args, dict):  # the log fills in the defaults the client left out
            args = {k: v for k, v in args.items() if v is not None}
        if r["route"] == "files/upload":
            with open(folder + args["path"], "rb") as f:
                body = f.read()
            headers["Content-Type"] = "application/octet-stream"
            headers["Dropbox-API-Arg"] = json.dumps(args)
        elif args is None:
            body = b""
        else:
            body = json.dumps(args).encode()
            headers["Content-Type"] = "application/json"
        conn.request("POST", "/2/" + r["route"], body=body, headers=headers)
        reply = conn.getresponse()
        reply.read()
        failed += reply.status != r.get("status")
    elapsed = time.perf_counter() - start
    conn.close()
    if failed:
        print("    (%d replayed requests were answered otherwise than the worker's)" % failed)
    return elapsed


def qshost_ssl(info):
    import ssl
    return ssl.create_default_context(cafile=info["ca_file"])


def bench_unchanged_tree(work, emu, server):
    name, token = new_account(server)
    root = new_root(work, emu, token, "tree")
    folder = root.sync_folder()
    write_tree(folder, TREE_FILES, max(1, TREE_FILES // 20), (1024, 48 * 1024))
    seconds, code, _ = run_worker(root)  # the first sync uploads everything
    if code != 0:
        print("(a) first sync failed with %d" % code)
        return
    runs, cats, peak = [], [], 0.0
    for _ in range(3):
        cats.append(cat_seconds(folder))
        elapsed, code, rss = run_worker(root)
        runs.append(elapsed)
        peak = max(peak, rss)
    mib = sum(os.path.getsize(os.path.join(d, f)) for d, _, fs in os.walk(folder)
              if ".dropbox" not in d for f in fs) / 1048576.0
    print("(a) nothing to change, %d files in %d folders (%.0f MiB; first sync %.1f s): run "
          "%.2f s, cat %.2f s, ratio %.2f (goal <= 1.5); worker peak RSS %.1f MiB%s" %
          (TREE_FILES, max(1, TREE_FILES // 20), mib, seconds, min(runs), min(cats),
           min(runs) / min(cats), peak, "" if code == 0 else " (exit %d!)" % code))
    root.remove_shared_state()


def bench_first_upload(work, emu, server, build=None, label=""):
    name, token = new_account(server)
    root = new_root(work, emu, token, "upload%s" % name, build)
    folder = root.sync_folder()
    write_tree(folder, UPLOAD_FILES, max(1, UPLOAD_FILES // 20), (500, 8000))
    server.clear_requests()
    try:
        elapsed, written, syncs, rss_kib, _ = first_sync_bench.run_worker(
            root, first_sync_bench.perf_usable())
        code, rss = 0, rss_kib / 1024.0
    except RuntimeError as e:
        print("(c)%s %s" % (label, e))
        return
    requests = server.requests()
    uploads = sum(1 for r in requests if r["route"] == "files/upload")
    # The same requests into an emulator of its own. The worker's emulator
    # keeps each content once, so replayed into it the uploads would skip
    # creating their files, which on a file system slow to allocate inodes is
    # most of the emulator's time; that figure is printed beside.
    with qshost.Emulator(os.path.join(work, "alone-" + name), []) as fresh:
        fresh_server = fresh.client()
        _, token2 = new_account(fresh_server)
        alone = replay(fresh.info, token2, requests, folder)
        fresh_server.close()
    _, token3 = new_account(server)
    warm = replay(emu.info, token3, requests, folder)
    print("(c)%s first upload of %d small files: %.2f s (%.1f ms per file), the emulator alone "
          "%.2f s, ratio %.2f (goal >= 0.8; an emulator holding the content already %.2f s, "
          "ratio %.2f); worker peak RSS %.1f MiB; disk written %.1f MB, %s fsync per file%s" %
          (label, UPLOAD_FILES, elapsed, 1000 * elapsed / UPLOAD_FILES, alone, alone / elapsed,
           warm, warm / elapsed, rss, written / 1e6,
           "?" if syncs is None else "%.2f" % (syncs / UPLOAD_FILES),
           "" if code == 0 and uploads == UPLOAD_FILES else " (exit %d, %d uploads!)" %
           (code, uploads)))
    root.remove_shared_state()


def curl_chunks(info, token, path, size):
    """The chunks of `path` as plain curl posts: start, append_v2, finish. Seconds."""
    url = info["content_url"] + "/files/upload_session/"
    chunks = []
    with open(path, "rb") as f:
        for i in range(0, size, CHUNK):
            piece = path + ".chunk%d" % (i // CHUNK)
            with open(piece, "wb") as out:
                out.write(f.read(CHUNK))
            chunks.append(piece)

    def post(route, arg, piece):
        out = subprocess.run(["curl", "-sS", "--fail", "--cacert", info["ca_file"], "-X", "POST",
                              url + route, "-H", "Authorization: Bearer " + token,
                              "-H", "Content-Type: application/octet-stream",
                              "-H", "Dropbox-API-Arg: " + json.dumps(arg),
                              "--data-binary", "@" + piece], capture_output=True, check=True)
        return json.loads(out.stdout) if out.stdout.strip() else None

    start = time.perf_counter()
    session = post("start", {}, chunks[0])["session_id"]
    offset = CHUNK
    for piece in chunks[1:-1]:
        post("append_v2", {"cursor": {"session_id": session, "offset": offset}}, piece)
        offset += CHUNK
    post("finish", {"cursor": {"session_id": session, "offset": offset},
                    "commit": {"path": "/curl.bin", "mode": "add", "autorename": True}},
         chunks[-1])
    elapsed = time.perf_counter() - start
    for piece in chunks:
        os.unlink(piece)
    return elapsed


def bench_big_file(work, emu, server):
    name, token = new_account(server)
    root = new_root(work, emu, token, "big")
    size = BIG_MIB * 1024 * 1024
    path = os.path.join(root.sync_folder(), "big.bin")
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(os.urandom(size))
    elapsed, code, rss = run_worker(root)
    curl = curl_chunks(emu.info, token, path, size)
    print("(d) one %d MiB file in %d chunks: %.2f s (%.0f MiB/s), plain curl %.2f s, ratio %.2f "
          "(goal >= 0.8); worker peak RSS %.1f MiB%s" %
          (BIG_MIB, (size + CHUNK - 1) // CHUNK, elapsed, BIG_MIB / elapsed, curl, curl / elapsed,
           rss, "" if code == 0 else " (exit %d!)" % code))
    root.remove_shared_state()


def main():
    work = tempfile.mkdtemp(prefix="qs-bench-up-")
    print("local changes going up")
    with qshost.Emulator(os.path.join(work, "emulator"), []) as emu:
        server = emu.client()
        # One listing page: a listing of several pages ends only by a stop.
        server.set_page_size(2 * TREE_FILES + 1000)
        parts = os.environ.get("QS_BENCH_PARTS", "acd")
        builds = [os.path.abspath(b) for b in os.environ.get("QS_BENCH_BUILDS", "").split(",")
                  if b]
        if "a" in parts:
            bench_unchanged_tree(work, emu, server)
        if "c" in parts:
            for _ in range(int(os.environ.get("QS_BENCH_ROUNDS", "1"))):
                for build in builds or [None]:
                    label = " [%s]" % first_sync_bench.label(build) if build else ""
                    bench_first_upload(work, emu, server, build, label)
        if "d" in parts:
            bench_big_file(work, emu, server)
        server.close()
    subprocess.run(["rm", "-rf", work])


if __name__ == "__main__":
    main()
