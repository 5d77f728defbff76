"""Host harness: device roots, the emulator, and the worker programs.

One small harness for the end-to-end tests, the demo and the benchmarks:

    with Emulator(data_dir, accounts=[("alice", TOKEN, ACCOUNT_ID)]) as emu:
        root = DeviceRoot.create(path, build_dir)
        root.trust(emu)                      # service.cfg + CA bundle
        root.login(TOKEN)
        result = root.run_sync()             # runs fwroot/bin/dropbox_sync
        root.store_rows()                    # what the store remembers

Everything runs as an ordinary user under the device root; nothing touches
the real /mnt, /fwroot or /etc.
"""

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

SETTINGS = "/mnt/ext1/system/config/dropbox/dropbox.cfg"
SYNC_ERR = "/mnt/ext1/system/config/dropbox/sync_err.cfg"
SERVICE = "/fwroot/etc/dropbox/service.cfg"
DEVICE = "/fwroot/etc/device.cfg"
CA_BUNDLE = "/etc/ssl/certs/ca-certificates.crt"
DEFAULT_FOLDER = "/mnt/ext1/Dropbox Quillstone"
LOG = "/var/log/quillstone.log"


def build_dir():
    """The build folder to take programs from (QS_BUILD_DIR, else ./build)."""
    return os.path.abspath(os.environ.get("QS_BUILD_DIR", os.path.join(SOURCE_DIR, "build")))


def program(path, *args):
    """The command line that runs a program of the build. QS_RUN_PREFIX puts a
    wrapper in front, such as "qemu-arm -L SYSROOT" for a cross build."""
    return shlex.split(os.environ.get("QS_RUN_PREFIX", "")) + [path] + list(args)


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
        import emulator_client  # tools/dropbox_emulator
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
            os.symlink(os.path.join(build, "fwroot", "bin"), bin_link)
        return root

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
        for key in ("authorize_url", "token_url"):
            if key in info:
                self.settings(SERVICE, "set", key, info[key])
        shutil.copyfile(info["ca_file"], self.real(CA_BUNDLE))

    def login(self, token):
        self.settings(SETTINGS, "set-secret", "access_token_v2", token)

    def token(self):
        return self.settings(SETTINGS, "get-secret", "access_token_v2")

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
