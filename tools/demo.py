"""The demo: a log-in through the browser stand-in, then a real sync of a small
library from the local Dropbox emulator into a fresh device root, a second run
that applies server changes, a third that sends the device's own changes up,
and the same kind of story in the safe profile: an edit goes up in place, and
a book changed on both sides keeps both versions.

Run through `./qs demo`, which builds first. Everything lives in a temporary
folder that is printed at the start and kept for a look afterwards.
"""

import os
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import qshost  # noqa: E402

ACCOUNT = ("reader", "demo-token-0123456789abcdef", "dbid:AAdemo00000000000000000000000000001")


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


def host_sync(root):
    """A sync as a host application starts it: `dropbox-host sync` goes through
    the facade, which starts the worker; its live progress shows here."""
    print("$ dropbox-host sync")
    sys.stdout.flush()
    proc = subprocess.run([os.path.join(root.build, "dropbox-host"), "sync"], env=root.env())
    return qshost.SyncResult(proc.returncode, "", "", root.sync_error())


def show_run(root, result, since_log):
    print("dropbox-host exit status: %d   sync_error: %s   run state now: %s" %
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


def show_tree(root, *options):
    """The sync folder as the facade reports it, item by item (`dropbox-host ls`)."""
    print("$ dropbox-host ls %s" % " ".join(options))
    sys.stdout.flush()
    subprocess.run([os.path.join(root.build, "dropbox-host"), "ls"] + list(options),
                   env=root.env())


def log_in(root, server):
    """A log-in as a person would do it: the host program asks the facade, which
    runs dropbox_auth; the browser stand-in opens the emulator's authorisation
    page and the person presses Allow."""
    heading("Log-in through the browser")
    server.settings(oauth_mode="page", oauth_account=ACCOUNT[0])
    root.person(browser="allow")
    since = len(root.log())
    out = root.host("login")
    print("$ dropbox-host login")
    print(out.stdout.strip())
    print("the addresses the browser arrived at, as dropbox_auth logged them:")
    for line in root.log()[since:].splitlines():
        if "ProcessNewUrl" in line or "the person presses" in line:
            print("   " + line[line.find("]", line.find("[pid:")) + 1:][:150])
    print("account_id: %s   token stored: %s" % (root.setting("account_id"),
                                                  "yes" if root.token() else "no"))
    if out.returncode != 0:
        sys.exit("the log-in failed; see %s" % root.real(qshost.LOG))


def run_requests(root, server):
    """One sync through the host program; its requests, as the emulator logged them."""
    since = len(root.log())
    seq = max([r["seq"] for r in server.requests()] or [0])
    result = host_sync(root)
    show_run(root, result, since)
    return server.requests(since=seq)


def safe_profile_story(root, server):
    """The same kind of story in the safe profile: an edit goes up in place,
    and a book changed on both sides keeps both versions."""
    heading("The safe profile")
    print("$ dropbox-host profile safe")
    sys.stdout.flush()
    subprocess.run([os.path.join(root.build, "dropbox-host"), "profile", "safe"], env=root.env())
    folder = root.sync_folder()
    with open(os.path.join(folder, "Papers/2026/Reading list.txt"), "ab") as f:
        f.write(b"5. Edited on the device in the safe profile\n")
    with open(os.path.join(folder, "Books/Fiction/Margin Notes.txt"), "wb") as f:
        f.write(b"Notes rewritten on the device.\n")
    server.put_file(ACCOUNT[0], "/Books/Fiction/Margin Notes.txt",
                    b"Notes rewritten on another device.\n")
    print("   edited /Papers/2026/Reading list.txt on the device;")
    print("   /Books/Fiction/Margin Notes.txt edited on the device and on another device")

    heading("Fourth sync, safe: the edit in place, both versions of the notes kept")
    for r in run_requests(root, server):
        if r["route"] in ("files/upload", "files/download"):
            mode = (r.get("args") or {}).get("mode")
            print("   %-15s %s%s" % (r["route"], (r.get("args") or {}).get("path", ""),
                                    "   mode %s" % mode if mode else ""))
    print("the server's tree now (from the emulator):")
    for entry in server.tree(ACCOUNT[0]):
        if entry["tag"] != "folder":
            print("   %s  %d bytes" % (entry["path_display"], entry["size"]))
    show_tree(root)

    heading("Fifth sync, safe: nothing left to do")
    counts = {}
    for r in run_requests(root, server):
        counts[r["route"]] = counts.get(r["route"], 0) + 1
    print("requests of this run by route:", counts)


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
        log_in(root, server)
        explorer = root.start_explorer()

        heading("First sync into an empty device")
        since = len(root.log())
        result = host_sync(root)
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
        result = host_sync(root)
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
        print("the file browser reports what it sees, so the edits show before any sync:")
        show_tree(root, "--check")

        heading("Third sync sends them up")
        since = len(root.log())
        seq = max([r["seq"] for r in server.requests()] or [0])
        result = host_sync(root)
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

        safe_profile_story(root, server)

        explorer.terminate()
        explorer.communicate()
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
