# Both ends of brcmd's pipe by hand, for the tests of the stand-in's brcmd. Sourced after lab_support.sh.
# shellcheck shell=bash
fifo=$work/fifo
mkfifo "$fifo"
brcmd_log=$work/brcmd.log

# `exec=exec brcmd_backup &` replaces the background shell, so that $! is the number of brcmd itself.
brcmd_backup() { # [level [instance]]
  ${exec:-} "$home/bin/brcmd" -O backup -d "${2:-$instance}" -u sysdba -p secret -P "$port" -t "${1:-full}" -k pipe -f "$fifo" \
    -e "$brcmd_log"
}

brcmd_restore() { # [instance]
  ${exec:-} "$home/bin/brcmd" -O restore -d "${1:-$instance}" -t backup_point_last -k pipe -f "$fifo" -e "$brcmd_log"
}

# backup_to FILE [level [instance]]: as an agent does it, in blocks of 8 KiB.
backup_to() {
  local status
  dd bs=8k if="$fifo" of="$1" 2>/dev/null &
  local reader=$!
  background+=("$reader")
  shift
  brcmd_backup "$@" >"$work/out" 2>"$work/err" </dev/null
  status=$?
  # A run that failed early never opened the pipe; the reader still waits for a writer then.
  [ "$status" -eq 0 ] || { : 1<>"$fifo"; }
  wait "$reader"
  return "$status"
}

info_bytes() { printf '%d' "0x$(head -c 4 "$1" | od -An -tx1 | tr -d ' \n')"; }

# restore_from FILE [instance]: the info block alone first, then the whole stream from its first byte.
restore_from() {
  local image=$1 status
  shift
  {
    head -c "$(info_bytes "$image")" "$image"
    sleep 0.1
    cat "$image"
  } >"$fifo" 2>/dev/null &
  local writer=$!
  background+=("$writer")
  brcmd_restore "$@" >"$work/out" 2>"$work/err" </dev/null
  status=$?
  [ "$status" -eq 0 ] || { : 0<>"$fifo"; }
  wait "$writer"
  return "$status"
}

chain_value() { sed -n "s/^${instance}_$1=//p" "$home/agent/lastlsn.dat"; }
check() { "$lab" check "$home" "$instance"; }
side_leftovers() { find "$home/odbs" "$work" -maxdepth 2 \( -name '*.restore' -o -name '*.old' -o -name 'restore.*' \); }
