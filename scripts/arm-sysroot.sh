#!/usr/bin/env bash
# Builds the armhf sysroot that the cross build compiles against and that
# qemu-arm runs the programs in:  scripts/arm-sysroot.sh SYSROOT_DIR
#
# The packages are Debian's own armhf packages, resolved and downloaded by apt
# with a private configuration and state (never the host's dpkg database, so
# the host gets no foreign architecture), then unpacked with dpkg-deb -x. The
# result is cached: a second run with the same package list does nothing.
# Exit status 3 means the packages could not be had (no mirror reachable).
#
# Mirrors: QS_DEBIAN_MIRROR (default http://deb.debian.org/debian) and
# QS_DEBIAN_SECURITY_MIRROR (default http://deb.debian.org/debian-security).
set -euo pipefail

sysroot=${1:?usage: $0 SYSROOT_DIR}
suite=bookworm
mirror=${QS_DEBIAN_MIRROR:-http://deb.debian.org/debian}
security=${QS_DEBIAN_SECURITY_MIRROR:-http://deb.debian.org/debian-security}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg

# What the library, the workers and the unit tests link, with the C and C++
# runtime; apt adds their dependencies.
packages=(
  libc6-dev libstdc++-12-dev
  libcurl4-openssl-dev libsqlite3-dev libjsoncpp-dev libjson-c-dev
  libutf8proc-dev libxxhash-dev libgtest-dev libgmock-dev
)

stamp="$sysroot/.qs-sysroot"
want="$suite ${packages[*]}"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
  exit 0
fi

for tool in apt-get dpkg-deb; do
  command -v "$tool" >/dev/null || { echo "arm sysroot: $tool is missing" >&2; exit 3; }
done
[ -r "$keyring" ] || { echo "arm sysroot: $keyring is missing" >&2; exit 3; }

sysroot=$(mkdir -p "$sysroot" && cd "$sysroot" && pwd)
apt_dir="$sysroot.apt"   # apt's private state and package cache, kept for reruns
mkdir -p "$apt_dir"/{state/lists/partial,cache/archives/partial,etc/apt.conf.d,etc/preferences.d,etc/trusted.gpg.d,log}
: >"$apt_dir/state/status"   # nothing installed: apt fetches the whole closure
cat >"$apt_dir/etc/sources.list" <<EOF
deb [arch=armhf signed-by=$keyring] $mirror $suite main
deb [arch=armhf signed-by=$keyring] $mirror $suite-updates main
deb [arch=armhf signed-by=$keyring] $security $suite-security main
EOF
cat >"$apt_dir/apt.conf" <<EOF
Dir::State "$apt_dir/state";
Dir::State::status "$apt_dir/state/status";
Dir::Cache "$apt_dir/cache";
Dir::Etc "$apt_dir/etc";
Dir::Etc::sourcelist "$apt_dir/etc/sources.list";
Dir::Etc::sourceparts "$apt_dir/etc/sources.list.d";
Dir::Etc::parts "$apt_dir/etc/apt.conf.d";
Dir::Etc::preferencesparts "$apt_dir/etc/preferences.d";
Dir::Etc::trustedparts "$apt_dir/etc/trusted.gpg.d";
Dir::Log "$apt_dir/log";
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
APT::Install-Recommends "false";
APT::Install-Suggests "false";
Debug::NoLocking "true";
Acquire::Languages "none";
Acquire::Retries "3";
EOF
apt=(env APT_CONFIG="$apt_dir/apt.conf" apt-get -q -y)

# A mirror caught mid-sync fails an index now and then: try again, and at last
# go on without the security suite rather than without a sysroot.
update() { "${apt[@]}" update >"$apt_dir/log/update.log" 2>&1; }
updated=false
if update || { sleep 5; update; }; then
  updated=true
else
  sed -i '/-security /d' "$apt_dir/etc/sources.list"
  if update; then
    updated=true
    echo "arm sysroot: the security suite's index failed to download; using $suite and $suite-updates"
  fi
fi
# An empty cache first: every .deb left in it is unpacked below.
"${apt[@]}" clean
if ! $updated ||
   ! "${apt[@]}" install --download-only "${packages[@]}" >"$apt_dir/log/download.log" 2>&1; then
  exit 3  # the caller says so; the logs stay in $apt_dir/log
fi

# Unpack into a fresh tree, so packages dropped from the list leave nothing.
rm -rf "$sysroot.new"
mkdir -p "$sysroot.new"
for deb in "$apt_dir"/cache/archives/*.deb; do
  dpkg-deb -x "$deb" "$sysroot.new"
done
# Absolute links would point into the host; make them relative to the sysroot.
find "$sysroot.new" -type l -lname '/*' | while read -r link; do
  target=$(readlink "$link")
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot.new$target")" "$link"
done
rm -rf "$sysroot"
mv "$sysroot.new" "$sysroot"
echo "$want" >"$stamp"
echo "arm sysroot: $(ls "$apt_dir"/cache/archives/*.deb | wc -l) Debian armhf packages in $sysroot" \
  "($(du -sh "$sysroot" | cut -f1))"
