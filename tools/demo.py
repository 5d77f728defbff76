"""The demo: a real sync of a small library from the local Dropbox emulator
into a fresh device root, a second run that applies server changes, and a
third that sends the device's own changes up.

Run through `./qs demo`, which builds first. Everything lives in a temporary
folder that is printed at the start and kept for a look afterwards.
"""

import os
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import qshost  # noqa: E402

ACCOUNT = ("reader", "demo-token-0123456789abcdef", "dbid:AAdemo00000000000000000000000000001")
STATUS = {0: "unset", 1: "synced", 2: "changed", 3: "three", 4: "failed"}
ERROR = {None: "", 0: "", 1: "too many files", 2: "restricted content"}


def blob(size, seed):
    data = (("%s-" % seed) * (size // (len(seed) + 1) + 1)).encode()
    return data[:size]


LIBRARY = {
    "/Books/Fiction/The Long Road.epub": blob(180_000, "road"),
    "/Books/Fiction/Ümlaut & Friends.epub": blob(95_000, "umlaut"),
    "/Books/Poetry/Collected Verse.pdf": blob(2_600_000, "verse"),
    "/Books/Poetry/notes.txt": b"",
    "/Papers/2026/Reading list.txt": b"1. The Long Road\n2. Collected Verse\n",
    "/Welcome.pdf": blob(40_000, "welcome"),
}


def heading(text):
    print("\n\033[1m== %s\033[0m" % text)


def show_run(root, result, since_log):
    print("dropbox_sync exit status: %d   sync_error: %s   run state now: %s" %
          (result.returncode, result.sync_error, root.run_state()))
    lines = [l for l in root.log()[since_log:].splitlines() if " src/" in l]
    print("log (%d lines from the library; the notices and errors):" % len(lines))
    for line in lines:
        fields = line.split(" ", 4)
        level, source = fields[1], fields[3]
        text = line[line.find("]", line.find("[pid:")) + 1:]
        if level in ("L1", "L3"):
            print("   %s %-32s %s" % (level, source, text[:100]))
    status = root.download_status()
    if status:
        keys = {k: status.get(k) for k in ("phase", "total", "done", "error") if k in status}
        print("published progress:", keys)


def show_tree(root):
    rows = root.store_rows()
    tree = root.local_tree()
    print("%-44s %10s  %-8s %s" % ("local item", "bytes", "status", "rev"))
    for path in sorted(tree):
        content = tree[path]
        if content is None:
            status, error = rows["folders"].get(path, (None, None))
            print("%-44s %10s  %-8s %s" % (path + "/", "", STATUS.get(status, "-"),
                                           ERROR.get(error, "")))
        else:
            rev, status, error = rows["files"].get(path, ("-", None, None))
            print("%-44s %10d  %-8s %s %s" % (path, len(content), STATUS.get(status, "-"), rev,
                                              ERROR.get(error, "")))


def main():
    work = tempfile.mkdtemp(prefix="quillstone-demo-")
    print("demo folder: %s" % work)
    with qshost.Emulator(os.path.join(work, "emulator"), [ACCOUNT]) as emu:
        server = emu.client()
        print("emulator: %s (CA %s)" % (emu.info["api_url"], emu.info["ca_file"]))
        for path, data in LIBRARY.items():
            server.put_file(ACCOUNT[0], path, data)
        heading("The server's library")
        for entry in server.tree(ACCOUNT[0]):
            print("   %s%s" % (entry.get("path_display"),
                               "/" if entry.get("tag") == "folder" else ""))

        root = qshost.DeviceRoot.create(os.path.join(work, "root"))
        root.trust(emu)
        root.login(ACCOUNT[1])
        explorer = subprocess.Popen([root.real("/fwroot/bin/explorer.app")], env=root.env())
        time.sleep(0.3)

        heading("First sync into an empty device")
        since = len(root.log())
        result = root.run_sync()
        show_run(root, result, since)
        show_tree(root)

        heading("Another device changes the server")
        server.put_file(ACCOUNT[0], "/Papers/2026/Reading list.txt",
                        b"1. The Long Road\n2. Collected Verse\n3. A New Book\n")
        server.delete(ACCOUNT[0], "/Welcome.pdf")
        server.delete(ACCOUNT[0], "/Books/Poetry")
        server.put_file(ACCOUNT[0], "/Books/New/A New Book.epub", blob(120_000, "new"))
        print("   edited /Papers/2026/Reading list.txt, deleted /Welcome.pdf and /Books/Poetry,")
        print("   added /Books/New/A New Book.epub")

        heading("Second sync applies the changes")
        since = len(root.log())
        result = root.run_sync()
        show_run(root, result, since)
        show_tree(root)

        heading("The device changes its own library")
        folder = root.sync_folder()
        with open(os.path.join(folder, "Books/Fiction/Margin Notes.txt"), "wb") as f:
            f.write(b"Notes written on the device.\n")
        with open(os.path.join(folder, "Papers/2026/Reading list.txt"), "ab") as f:
            f.write(b"4. Margin Notes\n")
        os.unlink(os.path.join(folder, "Books/Fiction/The Long Road.epub"))
        print("   added /Books/Fiction/Margin Notes.txt, edited /Papers/2026/Reading list.txt,")
        print("   deleted /Books/Fiction/The Long Road.epub")

        heading("Third sync sends them up")
        since = len(root.log())
        seq = max([r["seq"] for r in server.requests()] or [0])
        result = root.run_sync()
        show_run(root, result, since)
        counts = {}
        for r in server.requests(since=seq):
            counts[r["route"]] = counts.get(r["route"], 0) + 1
        print("requests of this run by route:", counts)
        print("the server's tree now (from the emulator):")
        for entry in server.tree(ACCOUNT[0]):
            tail = "/" if entry["tag"] == "folder" else "  %d bytes  rev %s" % (entry["size"],
                                                                              entry["rev"])
            print("   %s%s" % (entry["path_display"], tail))
        print("   (an edit goes up beside the server's file under a name the service picks,")
        print("    and that copy comes down as a new file)")
        show_tree(root)

        explorer.terminate()
        explorer.wait()
        events = root.real("/tmp/explorer_events.log")
        if os.path.exists(events):
            with open(events) as f:
                count = sum(1 for line in f if line.split()[:1] == ["73"])
            print("\nthe file browser stand-in received %d folder-changed events (73)" % count)
        server.close()
    print("\nkept for a look: %s" % work)
    return 0


if __name__ == "__main__":
    sys.exit(main())
