"""The installed package is enough to build an application: install the build,
configure tests/package against the install alone (CMake package, then
pkg-config), and run what was built against the emulator."""

import os
import subprocess

import pytest

import qshost

APP_DIR = os.path.join(qshost.SOURCE_DIR, "tests", "package")


def cache_value(build, key):
    with open(os.path.join(build, "CMakeCache.txt")) as f:
        for line in f:
            if line.startswith(key + ":"):
                return line.split("=", 1)[1].strip()
    return ""


def run(args, **kwargs):
    proc = subprocess.run(args, capture_output=True, text=True, **kwargs)
    assert proc.returncode == 0, "%s\n%s%s" % (args, proc.stdout, proc.stderr)
    return proc.stdout


def test_application_built_against_the_install(tmp_path, root, server, account):
    build = qshost.build_dir()
    if "ON" in (cache_value(build, "QS_SANITIZE"), cache_value(build, "QS_TSAN")) or \
            cache_value(build, "CMAKE_TOOLCHAIN_FILE"):
        pytest.skip("the application is built plainly for the host")
    prefix = tmp_path / "prefix"
    run(["cmake", "--install", build, "--prefix", str(prefix)])
    server.put_file(account.name, "/Top.pdf", b"top")
    server.put_file(account.name, "/Books/a.epub", b"book")

    # Through the CMake package, in a folder that sees nothing of the source tree.
    app_build = tmp_path / "app"
    run(["cmake", "-S", APP_DIR, "-B", str(app_build), "-DCMAKE_PREFIX_PATH=" + str(prefix)])
    run(["cmake", "--build", str(app_build)])
    out = run([str(app_build / "package_app")], env=root.env())
    assert out.splitlines() == ["sync_error=0", "Top.pdf 1"]
    assert root.local_tree()["/Books/a.epub"] == b"book"

    # Through pkg-config: the same source, compiled and linked by its flags alone.
    pc_env = dict(os.environ, PKG_CONFIG_PATH=str(next(prefix.glob("lib*/**/pkgconfig"))))
    flags = run(["pkg-config", "--cflags", "--libs", "quillstone-dropbox"], env=pc_env).split()
    libdir = [f[2:] for f in flags if f.startswith("-L")][0]
    run(["g++", "-std=c++17", "-o", str(tmp_path / "pc_app"), os.path.join(APP_DIR, "main.cpp")]
        + flags + ["-Wl,-rpath," + libdir])
    out = run([str(tmp_path / "pc_app")], env=root.env())
    assert out.splitlines() == ["sync_error=0", "Top.pdf 1"]
