#!/usr/bin/env bash
# Builds the tree and runs its unit, component and fuzz corpus tests in a 32-bit Debian 12, which it makes with debootstrap.
# Usage (as root): tools/test-i386.sh [DIR]      DIR: where the environment is made and kept, default /var/tmp/kestrel-i386
# Not part of ./test.sh: it needs root, 3 GB below DIR, and the network for Debian's packages. DIR is kept, so a second run
# installs and compiles only what is new.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
env_dir=${1:-/var/tmp/kestrel-i386}
[ "$(id -u)" -eq 0 ] || { echo "test-i386: must run as root (chroot, mount)" >&2; exit 2; }
command -v debootstrap >/dev/null || { apt-get update -q >/dev/null; apt-get install -y -q --no-install-recommends debootstrap >/dev/null; }

# The mirror this host installs from; both forms of apt's source lists.
mirror=$({ cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources 2>/dev/null || true; } |
         sed -n -e 's/^deb \(\[[^]]*\] \)\?\([^ ]*\) bookworm .*/\2/p' -e 's/^URIs: *\([^ ]*\).*/\1/p' | grep -v security | head -1)
mirror=${KESTREL_DEBIAN_MIRROR:-${mirror:-http://deb.debian.org/debian}}

inside() { linux32 chroot "$env_dir" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=dumb LANG=C.UTF-8 "$@"; }

if [ ! -e "$env_dir/.kestrel-ready" ]; then
  echo "== making a 32-bit Debian 12 in $env_dir"
  rm -rf --one-file-system "$env_dir"
  debootstrap --arch=i386 --variant=minbase bookworm "$env_dir" "$mirror" >"$env_dir.log" 2>&1 ||
    { tail -20 "$env_dir.log"; exit 1; }
  cp -a /etc/apt/apt.conf.d/. "$env_dir/etc/apt/apt.conf.d/"
  cp /etc/resolv.conf "$env_dir/etc/resolv.conf" 2>/dev/null || true
  touch "$env_dir/.kestrel-ready"
fi

# No service of the environment starts when its package is installed.
printf '#!/bin/sh\nexit 101\n' >"$env_dir/usr/sbin/policy-rc.d"
chmod 755 "$env_dir/usr/sbin/policy-rc.d"

cleanup() { umount "$env_dir/dev/shm" "$env_dir/dev/pts" "$env_dir/proc" 2>/dev/null || true; }
trap cleanup EXIT
cleanup
mount -t proc proc "$env_dir/proc"
mkdir -p "$env_dir/dev/pts" && mount -t devpts -o newinstance,ptmxmode=0666 devpts "$env_dir/dev/pts"
mkdir -p "$env_dir/dev/shm" && mount -t tmpfs tmpfs "$env_dir/dev/shm"

echo "== copying the tree"
mkdir -p "$env_dir/src"
find "$env_dir/src" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
# New times: a file that was changed between two runs may be older than what the run before built of it.
tar -C "$source_dir" --exclude=./build --exclude=./.git -cf - . | tar -C "$env_dir/src" -xmf -

# An environment that was kept may lack what the tree has come to need since.
echo "== installing what is missing"
inside /src/tools/install-deps.sh >>"$env_dir.log" 2>&1 || { tail -20 "$env_dir.log"; exit 1; }

echo "== building ($(inside uname -m))"
inside cmake -S /src -B /src/build/i386 -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 >/dev/null
# Goes on past an error: one run shows all of them.
inside cmake --build /src/build/i386 -j "$(nproc)" -- -k 0
echo "== testing"
inside ctest --test-dir /src/build/i386 -L '^(unit|component|fuzz)$' -LE check -j "$(nproc)" --output-on-failure
