"""A host on a device that is not as it should be: a run state block it
cannot use, a device that never synced, workers that must not leave their
memory in a core file, and a log that must stay small."""

import os
import resource
import struct
import subprocess


import qshost

BLOCK_PROBLEMS = {
    "too short": (b"\0" * 16, "too short"),
    "foreign": (struct.pack("<IIII", 0, 0xDEADBEEF, 4, 0) + struct.pack("<i", 2),
                "not made by this system"),
    "another user's": (struct.pack("<IIII", 0, 0x51534253, 4, 0) + struct.pack("<i", 2),
                       "another user"),
}


def test_a_damaged_run_state_block_is_reported_and_a_sync_still_runs(root, server, account):
    status = root.host("status")
    assert "last sync:   never" in status.stdout, status.stdout
    for name, (content, why) in BLOCK_PROBLEMS.items():
        block = root.shared_state_file()
        root.remove_shared_state()
        with open(block, "wb") as f:
            f.write(content)
        if name == "another user's":
            if os.geteuid() != 0:
                continue  # only root can give a block away
            os.chown(block, 65534, 65534)
        for command in ("status", "sync"):
            run = root.host(command)
            assert run.returncode == 0, (name, command, run.stdout, run.stderr)
            assert "/dropbox_state" in run.stderr and why in run.stderr, (name, run.stderr)
            assert "syncing:     yes" not in run.stdout, (name, run.stdout)
        with open(block, "rb") as f:
            assert f.read() == content, name  # nothing of it was repaired away
    assert "last sync:   synced (sync_error 0)" in root.host("status").stdout


def core_limit(pid):
    try:
        with open("/proc/%d/limits" % pid) as f:
            for line in f:
                if line.startswith("Max core file size"):
                    return line.split()[4:6]
    except OSError:
        return None
    return None


def test_workers_cannot_write_a_core_file(root, server):
    # Each worker is kept waiting: the person at the browser does nothing, the
    # listing is slow.
    root.person(browser="idle", idle_ms=4000)
    server.add_fault(route="files/list_folder", delay=4)

    def allow_cores():
        _, hard = resource.getrlimit(resource.RLIMIT_CORE)
        resource.setrlimit(resource.RLIMIT_CORE, (hard, hard))

    workers = [subprocess.Popen(qshost.program(root.real("/fwroot/bin/" + name)), env=root.env(),
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                preexec_fn=allow_cores)
               for name in ("dropbox_auth", "dropbox_sync")]
    try:
        for worker in workers:
            assert qshost.wait_for(lambda: core_limit(worker.pid) == ["0", "0"], timeout=3), \
                (worker.args, core_limit(worker.pid))
    finally:
        for worker in workers:
            worker.kill()
            worker.wait()


def test_a_first_sync_costs_at_most_200_bytes_of_log_per_file(root, server, account):
    os.unlink(root.real(qshost.DEVICE))  # the device's default level
    files = 200
    for i in range(files):
        server.put_file(account.name, "/books%d/b%03d.txt" % (i % 8, i), b"text %d" % i)
    assert root.run_sync().returncode == 0
    per_file = len(root.log().encode()) / files
    assert per_file <= 200, per_file
