"""First sync of many small files from the emulator: time per file, the
emulator's own share, and the worker's peak memory.

Prints figures; never fails on time. Run through `./qs bench`, or alone with
QS_BUILD_DIR pointing at a build.
"""

import http.client
import json
import os
import resource
import ssl
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
import qshost  # noqa: E402

ACCOUNT = ("bench", "bench-token-0123456789abcdef", "dbid:AAbench0000000000000000000000000001")
COUNTS = [int(n) for n in os.environ.get("QS_BENCH_COUNTS", "1000,10000").split(",")]


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


def bench(count, work):
    with qshost.Emulator(os.path.join(work, "emu%d" % count), [ACCOUNT]) as emu:
        server = emu.client()
        server.set_page_size(count + 100)  # one page: a listing of several ends only by a stop
        paths = []
        for i in range(count):
            path = "/Books/shelf%02d/book%05d.txt" % (i % 50, i)
            server.put_file(ACCOUNT[0], path, b"small file %d\n" % i)
            paths.append(path.lower())
        root = qshost.DeviceRoot.create(os.path.join(work, "root%d" % count))
        root.trust(emu)
        root.login(ACCOUNT[1])

        before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        start = time.perf_counter()
        proc = subprocess.run([root.real("/fwroot/bin/dropbox_sync")], env=root.env(),
                              capture_output=True, text=True)
        elapsed = time.perf_counter() - start
        peak_kib = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        if proc.returncode != 0:
            print("  sync failed with %d: %s" % (proc.returncode, proc.stderr[-500:]))
            return
        files = sum(1 for p, v in root.local_tree().items() if v is not None)
        alone = emulator_alone(emu.info, ACCOUNT[1], paths)
        server.close()
        root.remove_shared_state()
    print("%6d files: first sync %.2f s, %.2f ms per file; the emulator alone serves the same "
          "requests in %.2f s (%.0f%%); worker peak RSS %.1f MiB%s" %
          (count, elapsed, 1000 * elapsed / count, alone, 100 * alone / elapsed,
           max(peak_kib, before) / 1024.0, "" if files == count else " (%d files!)" % files))


def main():
    work = tempfile.mkdtemp(prefix="qs-bench-")
    print("first sync of small files (one listing page, one download per file)")
    for count in COUNTS:
        bench(count, work)
    subprocess.run(["rm", "-rf", work])


if __name__ == "__main__":
    main()
