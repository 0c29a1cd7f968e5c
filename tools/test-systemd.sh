#!/usr/bin/env bash
# Runs the units of packaging/ under a systemd of their own: readiness, status, reload, restart after a kill, watchdog, stop.
# Usage (as root): tools/test-systemd.sh [BUILD]      BUILD: a built tree, default build/release
# The system's own files are the lower layer of an overlay in memory, and processes, mounts, network, host name and control
# groups have namespaces: nothing of it is seen outside, and all of it ends with the script. It needs systemd installed, not
# running. Not part of ./test.sh: not every machine may make such namespaces.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build/release}" && pwd)
[ "$(id -u)" -eq 0 ] || { echo "test-systemd: must run as root (namespaces, mounts)" >&2; exit 2; }
for program in /lib/systemd/systemd cmake unshare nsenter pivot_root curl jq openssl; do
  command -v "$program" >/dev/null || { echo "test-systemd: $program is not installed" >&2; exit 2; }
done

stage=$(mktemp -d /var/tmp/kestrel-systemd.XXXXXX)
group=kestrel-systemd-$$
manager=
groups=()
cleanup() {
  local status=$? each
  trap - EXIT
  trap '' INT TERM HUP
  # The first process of the namespace takes all others with it.
  [ -z "$manager" ] || { kill -KILL "$manager" 2>/dev/null; wait "$manager" 2>/dev/null; } || true
  for each in "${groups[@]}"; do
    # A group can go once the last process in it has ended.
    for _ in $(seq 100); do
      find "$each" -depth -type d -exec rmdir {} \; 2>/dev/null || true
      [ -d "$each" ] || break
      sleep 0.1
    done
  done
  rmdir "$stage" 2>/dev/null || rm -rf --one-file-system "$stage"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

note() { echo "-- ($SECONDS s) $*"; }
fail() {
  echo "FAILED: $*" >&2
  inside journalctl --no-pager -n 40 -o cat >&2 2>/dev/null || true
  inside systemctl status --no-pager kestrel-server kestrel-agent >&2 2>/dev/null || true
  exit 1
}
inside() { nsenter -t "$init" -m -u -i -n -p -C env -u KESTREL_ROOT -u KESTREL_SERVER HOME=/root "$@"; }
property() { inside systemctl show --value -p "$2" "$1"; }
equal() { [ "$1" = "$2" ] || fail "$3: '$1' is not '$2'"; }
wait_until() { # SECONDS COMMAND...
  local deadline=$((SECONDS + $1))
  shift
  until "$@" >/dev/null 2>&1; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.2
  done
}

# Control groups of its own: a folder in each hierarchy that systemd uses, in which the namespace begins.
for hierarchy in /sys/fs/cgroup/systemd /sys/fs/cgroup/unified /sys/fs/cgroup; do
  case $(stat -f -c %T "$hierarchy" 2>/dev/null) in
  cgroupfs | cgroup2fs)
    mkdir "$hierarchy/$group"
    groups+=("$hierarchy/$group")
    ;;
  esac
done
[ "${#groups[@]}" -gt 0 ] || { echo "test-systemd: there are no control groups in /sys/fs/cgroup" >&2; exit 2; }

# What the first process does before it becomes systemd.
cat >"$stage/begin" <<'BEGIN'
set -euo pipefail
stage=$1 build=$2 top=$1/memory root=$1/memory/root
mount --make-rprivate /
mkdir "$top"
mount -t tmpfs -o mode=755 tmpfs "$top"
mkdir "$top"/{upper,work,root}
mount -t overlay -o "lowerdir=/,upperdir=$top/upper,workdir=$top/work" overlay "$root"
mount -t proc proc "$root/proc"
mount -t sysfs -o ro sysfs "$root/sys"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
mount -t tmpfs -o mode=755 tmpfs "$root/dev"
mkdir "$root"/dev/{pts,shm}
mount -t devpts -o newinstance,ptmxmode=666 devpts "$root/dev/pts"
mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
ln -s pts/ptmx "$root/dev/ptmx"
ln -s /proc/self/fd "$root/dev/fd"
for node in null zero full random urandom tty; do cp -a "/dev/$node" "$root/dev/$node"; done
if [ "$(stat -f -c %T /sys/fs/cgroup)" = cgroup2fs ]; then
  mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
else
  mount -t tmpfs -o mode=755 tmpfs "$root/sys/fs/cgroup"
  mkdir "$root"/sys/fs/cgroup/{systemd,unified}
  mount -t cgroup -o none,name=systemd cgroup "$root/sys/fs/cgroup/systemd"
  mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup/unified"
fi
ip link set lo up
hostname kestrel-systemd

# Nothing of this machine is started, and nothing of an installation here is seen.
rm -rf "$root"/etc/systemd/system/* "$root"/lib/systemd/system/*.target.wants "$root/var/opt/tarnvik" "$root/var/log/kestrel3"
mkdir -p "$root"/lib/systemd/system/sysinit.target.wants
ln -s ../systemd-journald.service "$root/lib/systemd/system/sysinit.target.wants/"
rm -rf "$root/var/log/journal" "$root/etc/fstab"
: >"$root/etc/machine-id"
# cmake writes into the built tree what it has installed; this way even that is in memory only.
chroot "$root" cmake --install "$build" --prefix /usr >"$stage/install.log"

mkdir "$root/old"
cd "$root"
pivot_root . old
umount -l /old
export container=kestrel-test
exec env -i container=kestrel-test PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --system --unit=basic.target \
  --log-target=journal --show-status=no
BEGIN
note "a systemd of its own"
bash -c '
  for each in "${@:4}"; do echo 0 >"$each/cgroup.procs"; done
  exec unshare --mount --pid --fork --kill-child --uts --ipc --net --cgroup bash "$1/begin" "$1" "$2"' \
  begin "$stage" "$build" - "${groups[@]}" >"$stage/log" 2>&1 </dev/null &
manager=$!
first_child() { init=$(pgrep -P "$manager" | head -1) && [ -n "$init" ]; }
wait_until 30 first_child || { cat "$stage/log" >&2; fail "no namespace"; }
is_up() { inside systemctl is-active basic.target; }
wait_until 90 is_up || { cat "$stage/log" >&2; fail "systemd does not start"; }

note "installed: both units are known, and enabled by their own section"
inside systemctl daemon-reload
for unit in kestrel-server kestrel-agent; do
  equal "$(property $unit LoadState)" loaded "$unit"
  equal "$(property $unit Type)" notify "type of $unit"
  inside systemctl enable "$unit" 2>/dev/null || fail "$unit cannot be enabled"
done
inside test -s /usr/share/man/man1/kestrel.1 || fail "the man pages are not installed"

note "the server is not started before 'server init', and ready once it has started"
inside systemctl start kestrel-server
equal "$(property kestrel-server ConditionResult)" no "condition of a server without files"
inside sh -c 'umask 077; openssl rand -hex 16 >/root/password'
inside kestrel server init --name localhost --address 127.0.0.1 --admin root --password-file /root/password >/dev/null
inside systemctl start kestrel-server || fail "the server does not start"
equal "$(property kestrel-server ActiveState)" active "the server"
[ -n "$(property kestrel-server StatusText)" ] || fail "the server says nothing of itself"
tls=/var/opt/tarnvik/kestrel3/server/tls
ask_server() { inside curl -s --cacert $tls/ca.crt -o /dev/null -w '%{http_code}' https://localhost:7480/k2/r/hosts; }
equal "$(ask_server)" 401 "answer of a server that is ready"

note "the agent: ready, connected"
inside kestrel server enroll here --out /root/here.enrollment >/dev/null
inside timeout 60 sh -c 'kestrel agent --enrollment /root/here.enrollment >/root/agent.log 2>&1 & agent=$!
  until [ -s /var/opt/tarnvik/kestrel3/agent/server_key.json ]; do sleep 0.2; done; kill $agent; wait $agent'
inside systemctl start kestrel-agent || fail "the agent does not start"
equal "$(property kestrel-agent ActiveState)" active "the agent"
connected() { property kestrel-agent StatusText | grep -q "^connected"; }
wait_until 30 connected || fail "the agent's status is: $(property kestrel-agent StatusText)"
echo "   server: $(property kestrel-server StatusText)"
echo "   agent:  $(property kestrel-agent StatusText)"

note "reload: the server takes the renewed certificate up, both go on as the same process"
serial() { inside openssl s_client -connect localhost:7480 </dev/null 2>/dev/null | openssl x509 -noout -serial; }
before=$(serial)
for unit in kestrel-server kestrel-agent; do eval "pid_${unit#kestrel-}=$(property $unit MainPID)"; done
inside kestrel server renew >/dev/null
inside systemctl reload kestrel-server || fail "the server cannot be reloaded"
inside systemctl reload kestrel-agent || fail "the agent cannot be reloaded"
renewed() { [ "$(serial)" != "$before" ]; }
wait_until 30 renewed || fail "the server shows the old certificate"
equal "$(property kestrel-server MainPID)" "$pid_server" "process of the reloaded server"
equal "$(property kestrel-agent MainPID)" "$pid_agent" "process of the reloaded agent"

restarted() { [ "$(property "$1" NRestarts)" -ge "$2" ] && [ "$(property "$1" ActiveState)/$(property "$1" SubState)" = active/running ]; }
note "killed: started again"
for unit in kestrel-server kestrel-agent; do
  inside systemctl kill --signal=KILL "$unit"
  wait_until 60 restarted $unit 1 || fail "$unit is not started again after a kill"
done
wait_until 60 connected || fail "the agent does not come back: $(property kestrel-agent StatusText)"

note "hanging: the watchdog ends it, and it is started again"
for unit in kestrel-server kestrel-agent; do
  inside sh -c "mkdir -p /run/systemd/system/$unit.service.d && printf '[Service]\nWatchdogSec=4\n' >/run/systemd/system/$unit.service.d/soon.conf"
done
inside systemctl daemon-reload
inside systemctl restart kestrel-server kestrel-agent
for unit in kestrel-server kestrel-agent; do
  pid=$(property $unit MainPID)
  sleep 9 # two rounds of the watchdog: one that is fed must not be ended
  equal "$(property $unit MainPID)" "$pid" "process of $unit, which feeds its watchdog"
  inside kill -STOP "$pid"
  another() { [ "$(property $unit MainPID)" != "$pid" ] && restarted $unit 1; }
  wait_until 60 another || fail "$unit hangs and stays"
  inside journalctl --no-pager -o cat -u $unit | grep -q 'Watchdog timeout' || fail "it was not the watchdog that ended $unit"
done

note "stop: in order, and at once"
for unit in kestrel-agent kestrel-server; do
  begin=$SECONDS
  inside systemctl stop $unit
  equal "$(property $unit ActiveState)/$(property $unit Result)" inactive/success "$unit after its stop"
  [ $((SECONDS - begin)) -lt 30 ] || fail "$unit took $((SECONDS - begin)) s to stop"
done
equal "$(inside pgrep -xc kestrel || true)" 0 "processes left"
echo "systemd: ok, $(/lib/systemd/systemd --version | head -1)"
