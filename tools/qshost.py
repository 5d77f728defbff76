"""Host harness: device roots, the emulator, and the worker programs.

One small harness for the end-to-end tests, the demo and the benchmarks:

    with Emulator(data_dir, accounts=[("alice", TOKEN, ACCOUNT_ID)]) as emu:
        root = DeviceRoot.create(path, build_dir)
        root.trust(emu)                      # service.cfg + CA bundle
        root.login(TOKEN)
        result = root.run_sync()             # runs fwroot/bin/dropbox_sync
        root.store_rows()                    # what the store remembers

End-to-end stories go through `Scenario` (below): change the device, change
the server as another device would, run the worker, and compare the local
tree, the store and the server's tree, with the run's requests counted by
route.

Everything runs as an ordinary user under the device root; nothing touches
the real /mnt, /fwroot or /etc.
"""

import base64
import json
import os
import shlex
import shutil
import signal
import sqlite3
import struct
import subprocess
import sys
import time

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EMULATOR_DIR = os.path.join(SOURCE_DIR, "tools", "dropbox_emulator")
if EMULATOR_DIR not in sys.path:
    sys.path.insert(0, EMULATOR_DIR)

import emulator_client  # noqa: E402  (tools/dropbox_emulator, on the path just above)

SETTINGS = "/mnt/ext1/system/config/dropbox/dropbox.cfg"
SYNC_ERR = "/mnt/ext1/system/config/dropbox/sync_err.cfg"
SERVICE = "/fwroot/etc/dropbox/service.cfg"
DEVICE = "/fwroot/etc/device.cfg"
CA_BUNDLE = "/etc/ssl/certs/ca-certificates.crt"
DEFAULT_FOLDER = "/mnt/ext1/Dropbox Quillstone"
LOG = "/var/log/quillstone.log"
PERSON = "/var/run/person.cfg"


def build_dir():
    """The build folder to take programs from (QS_BUILD_DIR, else ./build)."""
    return os.path.abspath(os.environ.get("QS_BUILD_DIR", os.path.join(SOURCE_DIR, "build")))


def run_prefix():
    """QS_RUN_PREFIX as a list: what runs a program of a cross build, such as
    "qemu-arm -L SYSROOT"; empty for the host's own build."""
    return shlex.split(os.environ.get("QS_RUN_PREFIX", ""))


def is_binary(path):
    try:
        with open(path, "rb") as f:
            return f.read(4) == b"\x7fELF"
    except OSError:
        return False


def program(path, *args):
    """The command line that runs a program of the build: binaries go through
    QS_RUN_PREFIX, scripts (such as a root's firmware wrappers) run as they are."""
    return (run_prefix() if is_binary(path) else []) + [path] + list(args)


class Emulator:
    """The Dropbox API emulator as a child process on a free port."""

    def __init__(self, data_dir, accounts, extra_args=()):
        self.data_dir = data_dir
        self.accounts = accounts
        self.extra_args = list(extra_args)
        self.proc = None
        self.info = None

    def start(self):
        args = [sys.executable, os.path.join(EMULATOR_DIR, "run"), "--port", "0",
                "--data-dir", self.data_dir]
        for account in self.accounts:
            args += ["--account", ":".join(account)]
        args += self.extra_args
        self.proc = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     text=True)
        line = self.proc.stdout.readline()
        if not line:
            err = self.proc.stderr.read()
            raise RuntimeError("emulator did not start: " + err)
        self.info = json.loads(line)
        return self

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        if self.proc:
            self.proc.stdout.close()
            self.proc.stderr.close()
        self.proc = None

    def client(self):
        """The emulator's admin client, bound to this emulator."""
        return emulator_client.EmulatorClient(self.info)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()


class SyncResult:
    def __init__(self, returncode, stdout, stderr, sync_error):
        self.returncode = returncode
        self.stdout = stdout
        self.stderr = stderr
        self.sync_error = sync_error

    def __repr__(self):
        return "SyncResult(exit=%s, sync_error=%s)" % (self.returncode, self.sync_error)


class DeviceRoot:
    """A temporary device root with the firmware folder linked to a build."""

    def __init__(self, path, build):
        self.path = os.path.abspath(path)
        self.build = build

    @classmethod
    def create(cls, path, build=None):
        build = build or build_dir()
        root = cls(path, build)
        for d in ("/fwroot/etc/dropbox", "/etc/ssl/certs", "/mnt/ext1/system/config/dropbox",
                  "/var/log", "/tmp"):
            os.makedirs(root.real(d), exist_ok=True)
        bin_link = root.real("/fwroot/bin")
        if not os.path.lexists(bin_link):
            if run_prefix():
                root._wrap_programs(os.path.join(build, "fwroot", "bin"))
            else:
                os.symlink(os.path.join(build, "fwroot", "bin"), bin_link)
        # Every line, information included: tests read the log.
        if not os.path.exists(root.real(DEVICE)):
            with open(root.real(DEVICE), "w") as f:
                f.write("log_level=4\n")
        return root

    def _wrap_programs(self, built):
        """Firmware programs of a cross build, as the library starts them by path
        (through a shell): each binary gets a script that runs it under the run
        prefix. The prefix's program is reached through a link named after the
        firmware program, so the process keeps that name and a root-scoped
        killall finds it."""
        prefix = run_prefix()
        runner = shutil.which(prefix[0]) or prefix[0]
        bin_dir, run_dir = self.real("/fwroot/bin"), self.real("/fwroot/.run")
        os.makedirs(bin_dir)
        os.makedirs(run_dir, exist_ok=True)
        for name in sorted(os.listdir(built)):
            target = os.path.join(built, name)
            if not is_binary(target):
                os.symlink(target, os.path.join(bin_dir, name))
                continue
            os.symlink(runner, os.path.join(run_dir, name))
            command = [os.path.join(run_dir, name)] + prefix[1:] + [target]
            wrapper = os.path.join(bin_dir, name)
            with open(wrapper, "w") as f:
                f.write("#!/bin/sh\nexec %s \"$@\"\n" % " ".join(shlex.quote(c) for c in command))
            os.chmod(wrapper, 0o755)

    def real(self, device_path):
        """`device_path` under this root."""
        return self.path + device_path

    def env(self, **extra):
        env = dict(os.environ)
        env["QUILLSTONE_DEVICE_ROOT"] = self.path
        env.update({k: str(v) for k, v in extra.items()})
        return env

    # Settings, through the same platform code as the device programs.
    def settings(self, device_file, *args):
        proc = subprocess.run(program(os.path.join(self.build, "device-settings"), device_file,
                                      *args), env=self.env(), capture_output=True, text=True)
        if proc.returncode == 2:
            raise RuntimeError("device-settings: " + proc.stderr)
        return proc.stdout.rstrip("\n") if proc.returncode == 0 else None

    def trust(self, emulator):
        """Points the root at the emulator and trusts its CA alone."""
        info = emulator.info
        self.settings(SERVICE, "set", "api_url", info["api_url"])
        self.settings(SERVICE, "set", "content_url", info["content_url"])
        for key in ("authorize_url", "token_url", "redirect_uri", "app_key", "app_secret"):
            if key in info:
                self.settings(SERVICE, "set", key, info[key])
        shutil.copyfile(info["ca_file"], self.real(CA_BUNDLE))

    def login(self, token):
        self.settings(SETTINGS, "set-secret", "access_token_v2", token)

    def token(self):
        return self.settings(SETTINGS, "get-secret", "access_token_v2")

    def set_profile(self, profile):
        """Chooses how the device syncs: "classic" (the default) or "safe"."""
        self.settings(SETTINGS, "set", "sync_profile", profile)

    def sync_folder(self):
        return self.real(DEFAULT_FOLDER)

    def run_sync(self, timeout=600, **env):
        proc = subprocess.run(program(self.real("/fwroot/bin/dropbox_sync")),
                              env=self.env(**env), capture_output=True, text=True,
                              timeout=timeout)
        return SyncResult(proc.returncode, proc.stdout, proc.stderr, self.sync_error())

    def start_sync(self, **env):
        """Starts the worker without waiting; the caller stops or waits."""
        return subprocess.Popen(program(self.real("/fwroot/bin/dropbox_sync")),
                                env=self.env(**env), stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    def start_explorer(self):
        """Starts the file browser stand-in and returns once it is registered
        to receive events; the caller terminates it."""
        proc = subprocess.Popen(program(self.real("/fwroot/bin/explorer.app")), env=self.env(),
                                stdout=subprocess.PIPE, text=True)
        line = proc.stdout.readline()
        if not line.startswith("explorer.app: task"):
            proc.kill()
            proc.wait()
            raise RuntimeError("explorer.app did not register: %r" % line)
        return proc

    # Log-in: the worker, the person at the browser, the dialogs shown.
    def person(self, **settings):
        """How the browser and dialog stand-ins play the person: browser=allow|deny|
        close|idle|interactive, idle_ms, dialog_delay_ms."""
        for key, value in settings.items():
            self.settings(PERSON, "set", key, str(value))

    def run_auth(self, timeout=120, input=None, **env):
        proc = subprocess.run(program(self.real("/fwroot/bin/dropbox_auth")), env=self.env(**env),
                              input=input, capture_output=True, text=True, timeout=timeout)
        return proc

    def dialogs(self):
        try:
            with open(self.real("/var/log/dialogs.log"), encoding="utf-8") as f:
                return f.read().splitlines()
        except FileNotFoundError:
            return []

    def setting(self, key, secret=False):
        return self.settings(SETTINGS, "get-secret" if secret else "get", key)

    # The host program, a real application of the facade (tools/dropbox-host).
    def host(self, *args, timeout=120):
        """Runs `dropbox-host ARGS` to its end; a CompletedProcess with text."""
        return subprocess.run(program(os.path.join(self.build, "dropbox-host"), *args),
                              env=self.env(), capture_output=True, text=True, timeout=timeout)

    def start_host(self, *args):
        """Starts `dropbox-host ARGS` with its output on a pipe, line buffered."""
        return subprocess.Popen(program(os.path.join(self.build, "dropbox-host"), *args),
                                env=self.env(), stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, bufsize=1)

    def set_network(self, available, connected):
        """The simulated network of this root (platform/README.md)."""
        os.makedirs(self.real("/var/run"), exist_ok=True)
        with open(self.real("/var/run/network"), "w") as f:
            f.write("available=%d\nconnected=%d\nfail_delay_ms=0\n" % (available, connected))

    def sync_error(self):
        value = self.settings(SYNC_ERR, "get", "sync_error")
        return None if value is None else int(value)

    def shared_state_file(self):
        """The file of the shared block "/dropbox_state" of this root. Blocks are
        scoped by the root: the name carries the FNV-1a hash of its path."""
        h = 0xcbf29ce484222325
        for b in self.path.encode():
            h = ((h ^ b) * 0x100000001b3) & 0xFFFFFFFFFFFFFFFF
        return "/dev/shm/dropbox_state.%016x" % h

    def remove_shared_state(self):
        try:
            os.unlink(self.shared_state_file())
        except FileNotFoundError:
            pass

    def run_state(self):
        """The run state word (1 idle, 2 running), or None before any program of
        this root has made the block."""
        try:
            with open(self.shared_state_file(), "rb") as f:
                f.seek(16)
                return struct.unpack("<i", f.read(4))[0]
        except (OSError, struct.error):
            return None

    def log(self):
        try:
            with open(self.real(LOG), encoding="utf-8", errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def download_status(self, name="dropbox"):
        try:
            with open(self.real("/tmp/download_status/%s.json" % name)) as f:
                return json.load(f)
        except (FileNotFoundError, ValueError):
            return None

    # The store, read as the host's file browser would.
    def database(self):
        return os.path.join(self.sync_folder(), ".dropbox", "files.db")

    def store_rows(self):
        """{'folders': {path: (status, error)}, 'files': {path: (rev, status, error)}}."""
        db = sqlite3.connect("file:%s?mode=ro" % self.database(), uri=True)
        try:
            folders = {p: (s, e) for p, s, e in
                       db.execute("SELECT path, status, error FROM Folders")}
            files = {}
            for folder, name, rev, status, error in db.execute(
                    "SELECT Folders.path, filename, rev, Files.status, Files.error FROM Files "
                    "JOIN Folders ON Files.folder_id = Folders.id"):
                files[folder + "/" + name] = (rev, status, error)
            info = dict(db.execute("SELECT key, value FROM Info"))
            return {"folders": folders, "files": files, "info": info}
        finally:
            db.close()

    def local_tree(self):
        """{relative path: bytes or None for a folder}, the store's folder left out."""
        tree = {}
        top = self.sync_folder()
        for dirpath, dirnames, filenames in os.walk(top):
            dirnames[:] = [d for d in dirnames if not (dirpath == top and d == ".dropbox")]
            rel = dirpath[len(top):]
            for d in dirnames:
                tree[rel + "/" + d] = None
            for name in filenames:
                with open(os.path.join(dirpath, name), "rb") as f:
                    tree[rel + "/" + name] = f.read()
        return tree


def wait_for(predicate, timeout=10.0, step=0.05):
    deadline = time.time() + timeout
    while time.time() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(step)
    return predicate()


# ---------------------------------------------------------------------------
# Scenarios: one device and one server account, changed step by step.

# Requests every run makes whatever it has to do: the account check and the
# listing pages. Everything else a run sends must be expected by the test.
BASELINE_ROUTES = ("users/get_current_account", "files/list_folder", "files/list_folder/continue")


def tree_of(files, folders=()):
    """{path: bytes, folder path: None} for `files` ({path: bytes}) and
    `folders`, with every parent folder filled in."""
    tree = {}
    for path in list(folders) + list(files):
        parts = path.split("/")[1:]
        for i in range(1, len(parts)):
            tree["/" + "/".join(parts[:i])] = None
        tree[path] = files.get(path) if path in files else None
    return tree


def _drop_subtree(tree, path):
    for key in [k for k in tree if k == path or k.startswith(path + "/")]:
        del tree[key]


def _move_subtree(tree, src, dst):
    for key in sorted(k for k in tree if k == src or k.startswith(src + "/")):
        tree[dst + key[len(src):]] = tree.pop(key)


def _assert_same(what, actual, expected):
    if actual == expected:
        return
    def short(v):
        return v if v is None or len(v) < 40 else v[:40] + b"..."
    if isinstance(actual, dict):
        extra = {k: short(v) for k, v in actual.items() if k not in expected}
        missing = {k: short(v) for k, v in expected.items() if k not in actual}
        differ = sorted(k for k in actual if k in expected and actual[k] != expected[k])
        raise AssertionError("%s: unexpected %r, missing %r, content differs %r" %
                             (what, extra, missing, differ))
    raise AssertionError("%s: unexpected %r, missing %r" %
                         (what, sorted(actual - expected), sorted(expected - actual)))


class Run:
    """One run of the worker: its outcome and the requests it made."""

    def __init__(self, result, requests):
        self.returncode = result.returncode
        self.sync_error = result.sync_error
        self.stderr = result.stderr
        self.requests = requests

    def counts(self, all_routes=False):
        """{route: number of requests}, the baseline routes left out unless asked."""
        counts = {}
        for r in self.requests:
            if all_routes or r["route"] not in BASELINE_ROUTES:
                counts[r["route"]] = counts.get(r["route"], 0) + 1
        return counts

    def paths(self, route):
        """The argument paths of the requests of `route`, in order (the commit
        path for a session's finish)."""
        out = []
        for r in self.requests:
            if r["route"] == route:
                args = r.get("args") or {}
                out.append(args.get("path") or (args.get("commit") or {}).get("path"))
        return out

    def __repr__(self):
        return "Run(exit=%s, sync_error=%s, %s)" % (self.returncode, self.sync_error, self.counts())


class Scenario:
    """A device root and an account of the emulator, for end-to-end stories.

        scene = Scenario(root, server, "user1")       # root logged in to user1
        scene.device(put={"/Books/a.epub": b"..."}, mkdir=["/Empty"])
        scene.server(put={"/b.txt": b"..."}, delete=["/old"])   # another device
        scene.sync(requests={"files/upload": 1, "files/create_folder": 2,
                             "files/download": 1})    # runs the real dropbox_sync
        scene.check()                                 # local tree, store, server

    `device` and `server` take put={path: bytes}, mkdir=[path], delete=[path]
    (a file or a whole folder) and move=[(from, to)]; both also apply the
    change to `scene.model`, the tree both sides should hold after the next
    successful run. `sync` fails the test unless the run ends with sync error
    `expect` and, outside the baseline routes, made exactly the requests
    counted in `requests` (None skips that check): a needless upload,
    download, deletion or folder creation fails. `check` compares the local
    tree, the server's tree as the emulator holds it, and the store's rows
    with the model or with the expectations it is given.
    """

    def __init__(self, root, server, account):
        self.root = root
        self.server_client = server
        self.account = account
        self.model = {}
        server.clear_requests()  # the log then holds this scenario's requests only
        self._seen = 0

    def path(self, rel):
        """The real path of `rel` (a store path such as "/Books/a.epub")."""
        return self.root.sync_folder() + rel

    # ----- changes -----

    def device(self, put=None, mkdir=(), delete=(), move=()):
        for rel in mkdir:
            os.makedirs(self.path(rel), exist_ok=True)
        for rel, data in (put or {}).items():
            os.makedirs(os.path.dirname(self.path(rel)), exist_ok=True)
            with open(self.path(rel), "wb") as f:
                f.write(data.encode() if isinstance(data, str) else data)
        for rel in delete:
            if os.path.isdir(self.path(rel)):
                shutil.rmtree(self.path(rel))
            else:
                os.unlink(self.path(rel))
        for src, dst in move:
            os.rename(self.path(src), self.path(dst))
        self._apply(put, mkdir, delete, move)

    def server(self, put=None, mkdir=(), delete=(), move=()):
        for rel in mkdir:
            self.server_client.mkdir(self.account, rel)
        for rel, data in (put or {}).items():
            self.server_client.put_file(self.account, rel, data)
        for rel in delete:
            self.server_client.delete(self.account, rel)
        for src, dst in move:
            self.server_client.move(self.account, src, dst)
        self._apply(put, mkdir, delete, move)

    def _apply(self, put, mkdir, delete, move):
        put = {k: (v.encode() if isinstance(v, str) else v) for k, v in (put or {}).items()}
        self.model.update(tree_of(put, mkdir))
        for rel in delete:
            _drop_subtree(self.model, rel)
        for src, dst in move:
            _move_subtree(self.model, src, dst)

    def costs(self, preset=None, **costs):
        """What the emulator's requests cost from now on, for every account:
        preset "real" or "off", then single costs (see EmulatorClient.set_costs)."""
        return self.server_client.set_costs(preset, **costs)

    # ----- the worker -----

    def sync(self, expect=0, requests=None, **env):
        """Runs dropbox_sync once; returns a Run. See the class for the checks."""
        began = time.time()
        result = self.root.run_sync(**env)
        # The emulator logs a request just after answering it: wait until no
        # request begun during the run is still open, so that each of them
        # counts in this run and none in the next. Requests of workers stopped
        # earlier may stay open longer; they began before this run.
        assert wait_for(lambda: not [r for r in self.server_client.pending_requests()
                                     if r["time"] >= began], timeout=60), "requests still open"
        run = Run(result, self.new_requests())
        if expect is not None:
            assert run.sync_error == expect, "%r\nstderr: %s\nlog tail:\n%s" % (
                run, run.stderr[-2000:], self.root.log()[-3000:])
        if requests is not None:
            assert run.counts() == requests, "requests %r, expected %r\n%s" % (
                run.counts(), requests, [(r["route"], r.get("args")) for r in run.requests
                                         if r["route"] not in BASELINE_ROUTES])
        return run

    def new_requests(self):
        """The worker's requests logged since the last call. Only this account's:
        a request that another test's stopped worker left held at the emulator
        may be logged while this one runs."""
        new = self.server_client.requests(since=self._seen)
        if new:
            self._seen = new[-1]["seq"]
        return [r for r in new if r.get("account") in (self.account, None)]

    # ----- the three views -----

    def server_tree(self):
        """{path_display: bytes or None} of the account, from the emulator."""
        tree = {}
        for e in self.server_client.tree(self.account, content=True):
            if e["path_display"] in ("", "/"):
                continue
            tree[e["path_display"]] = (base64.b64decode(e["content_b64"])
                                       if e["tag"] == "file" else None)
        return tree

    def server_revs(self):
        return {e["path_lower"]: e["rev"] for e in self.server_client.tree(self.account)
                if e["tag"] == "file"}

    def rows(self):
        return self.root.store_rows()

    def check(self, local=None, server=None, files=None, folders=None, statuses=None):
        """Asserts the three views. `local` and `server` are whole trees
        ({path: bytes or None}); both default to the model, and `server` to
        `local` when only that is given. The store must hold a row for each
        file (`files`, default the files of `local`) whose rev is the server's
        for that path, and a row for each folder (`folders`, default the
        folders of `local`; the root's row is not looked at). Every file row is synced
        unless `statuses` ({path: (status, error)}) says otherwise; a null
        error reads as 0."""
        local = self.model if local is None else local
        server = local if server is None else server
        _assert_same("local tree", self.root.local_tree(), local)
        _assert_same("server tree", self.server_tree(), server)
        rows = self.rows()
        files = set(p for p, v in local.items() if v is not None) if files is None else set(files)
        folders = set(p for p, v in local.items() if v is None) if folders is None else set(folders)
        _assert_same("file rows", set(rows["files"]), files)
        _assert_same("folder rows", set(rows["folders"]) - {""}, folders)
        revs = self.server_revs()
        statuses = statuses or {}
        for path, (rev, status, error) in rows["files"].items():
            if path.lower() in revs:
                assert rev == revs[path.lower()], "rev of %s: %s, server %s" % (
                    path, rev, revs[path.lower()])
            assert (status, error or 0) == statuses.get(path, (1, 0)), "status of %s: %s" % (
                path, (status, error))
        return rows
