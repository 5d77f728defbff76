#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need;
# "setup.sh arm" adds the armhf cross compilers and user-mode qemu.
# Safe to run again: it installs only what is missing. Exit status 3: the
# packages could not be installed (no mirror).
set -euo pipefail

packages=(
  build-essential cmake pkg-config ca-certificates openssl psmisc curl
  libcurl4-openssl-dev libsqlite3-dev libjsoncpp-dev libjson-c-dev
  libutf8proc-dev libxxhash-dev libgtest-dev libgmock-dev
  python3 python3-pytest python3-pytest-xdist python3-dropbox pyflakes3
  clang libclang-rt-14-dev
)
if [ "${1:-}" = arm ]; then
  packages+=(crossbuild-essential-armhf qemu-user)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Other sessions on the machine may hold the dpkg lock for a while.
"${sudo_cmd[@]}" apt-get update -qq || true
"${sudo_cmd[@]}" apt-get install -y -qq -o DPkg::Lock::Timeout=600 --no-install-recommends \
  "${missing[@]}" || exit 3
