#!/usr/bin/python3
"""Requests per second of the Dropbox API emulator: one client, one kept-alive
HTTPS connection on loopback, for small uploads, downloads and listing pages.

    /usr/bin/python3 bench/emulator_bench.py [--requests N]
"""

import argparse
import http.client
import json
import os
import ssl
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tools", "dropbox_emulator"))

from emulator_client import start_emulator  # noqa: E402

TOKEN = "bench-token"


def measure(conn, n, make_request):
    start = time.perf_counter()
    for i in range(n):
        method, path, body, headers = make_request(i)
        conn.request(method, path, body=body, headers=headers)
        resp = conn.getresponse()
        resp.read()
        if resp.status not in (200, 206):
            raise SystemExit("request %d failed: HTTP %d" % (i, resp.status))
    return n / (time.perf_counter() - start)


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--requests", type=int, default=2000)
    p.add_argument("--page-size", type=int, default=25, help="entries per listing page")
    a = p.parse_args()
    with tempfile.TemporaryDirectory() as data:
        emu = start_emulator(data, ["bench:" + TOKEN])
        try:
            emu.set_page_size(a.page_size)
            conn = http.client.HTTPSConnection("127.0.0.1", emu.port,
                                               context=ssl.create_default_context(cafile=emu.ca_file))
            auth = {"Authorization": "Bearer " + TOKEN}
            up = dict(auth, **{"Content-Type": "application/octet-stream"})
            n = a.requests

            def upload(i):
                arg = json.dumps({"path": "/bench/f%05d.txt" % i, "autorename": True})
                return "POST", "/2/files/upload", b"small file %d\n" % i, dict(up, **{"Dropbox-API-Arg": arg})

            def download(i):
                arg = json.dumps({"path": "/bench/f%05d.txt" % (i % n)})
                return "POST", "/2/files/download", None, dict(auth, **{"Dropbox-API-Arg": arg})

            rpc = dict(auth, **{"Content-Type": "application/json"})
            cursor = [None]

            def listing(i):
                # First page, then continue to the end, then start over.
                if cursor[0] is None:
                    return "POST", "/2/files/list_folder", b'{"path": "", "recursive": true}', rpc
                return "POST", "/2/files/list_folder/continue", json.dumps({"cursor": cursor[0]}).encode(), rpc

            results = {"upload": measure(conn, n, upload), "download": measure(conn, n, download)}
            start = time.perf_counter()
            for i in range(n):
                method, path, body, headers = listing(i)
                conn.request(method, path, body=body, headers=headers)
                page = json.loads(conn.getresponse().read())
                cursor[0] = page["cursor"] if page["has_more"] else None
            results["list page (%d entries)" % a.page_size] = n / (time.perf_counter() - start)
            conn.close()
        finally:
            emu.stop()
    for name, rate in results.items():
        print("%-26s %8.0f requests/s" % (name, rate))


if __name__ == "__main__":
    main()
