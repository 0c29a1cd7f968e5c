#!/usr/bin/env bash
# Runs a command of this checkout on a Debian 12 that has nothing: what debootstrap calls minbase, and not a package more.
# A package that tools/install-deps.sh forgets is missing there, while every machine of a developer has it.
# Usage (as root): tools/test-empty-machine.sh [DIR [COMMAND...]]
#   DIR      where that Debian is made and kept, default /var/tmp/kestrel-empty; what is there already is used again
#   COMMAND  run in the checkout's copy, default ./demo.sh
# It has files, processes, devices and a host name of its own; the network is this machine's, for Debian's packages.
# Not part of ./test.sh: it needs root and 10 GB, and builds everything once more.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
env_dir=${1:-/var/tmp/kestrel-empty}
[ $# -eq 0 ] || shift
[ $# -gt 0 ] || set -- ./demo.sh
[ "$(id -u)" -eq 0 ] || { echo "test-empty-machine: must run as root (namespaces, mounts)" >&2; exit 2; }
for program in debootstrap git unshare pivot_root; do
  command -v "$program" >/dev/null || { echo "test-empty-machine: $program is not installed" >&2; exit 2; }
done

if [ ! -e "$env_dir/.kestrel-ready" ]; then
  echo "== making an empty Debian 12 in $env_dir"
  rm -rf --one-file-system "$env_dir"
  debootstrap --variant=minbase bookworm "$env_dir" "${KESTREL_DEBIAN_MIRROR:-http://deb.debian.org/debian}" >"$env_dir.log" 2>&1 ||
    { tail -20 "$env_dir.log" >&2; exit 1; }
  rm "$env_dir.log"
  # What Debian's installer writes.
  cp /etc/resolv.conf "$env_dir/etc/resolv.conf"
  printf '127.0.0.1\tlocalhost\n127.0.1.1\tempty\n::1\tlocalhost ip6-localhost ip6-loopback\n' >"$env_dir/etc/hosts"
  echo empty >"$env_dir/etc/hostname"
  touch "$env_dir/.kestrel-ready"
fi

# Only what git knows: a file that was not added is missing for everybody else too.
mkdir -p "$env_dir/src"
find "$env_dir/src" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
git -C "$source_dir" ls-files -z | tar -C "$source_dir" --null -T - -cf - | tar -C "$env_dir/src" --no-same-owner -xf -

echo "== $*"
# shellcheck disable=SC2016
exec unshare --mount --pid --uts --ipc --fork --kill-child bash -euc '
  mount --make-rprivate /
  mount --bind "$1" "$1"
  cd "$1"
  shift
  mount -t proc proc proc
  mount -t sysfs sysfs sys
  mount -t tmpfs -o mode=755 tmpfs run
  mount -t tmpfs -o mode=755 tmpfs dev
  mkdir dev/pts dev/shm run/lock run/old
  mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
  mount -t tmpfs -o mode=1777 tmpfs dev/shm
  for node in null zero full random urandom tty; do cp -a "/dev/$node" "dev/$node"; done
  ln -s pts/ptmx dev/ptmx
  ln -s /proc/self/fd dev/fd
  for fd in 0:stdin 1:stdout 2:stderr; do ln -s "/proc/self/fd/${fd%:*}" "dev/${fd#*:}"; done
  hostname empty
  pivot_root . run/old
  cd /src
  umount -l /run/old
  rmdir /run/old
  # This shell stays, as the process that takes in orphans.
  env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=dumb "$@" || exit $?
' empty "$env_dir" "$@"
