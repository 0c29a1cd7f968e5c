#!/bin/bash
# The man pages are well formed, and tell of every command and option of the help.
. "$(dirname "$0")/kestrel_support.sh"
pages=$(cd "$(dirname "$0")/../../packaging/man" && pwd)
command -v man >/dev/null || { left_out "no 'man' here; tools/install-deps.sh installs it"; exit 77; }

# page NAME: as text, one line, without hyphenation.
page() {
  MAN_KEEP_FORMATTING='' MANROFFOPT='-rHY=0' MANWIDTH=400 man --warnings -E UTF-8 -l "$pages/$1" 2>"$work/err" | col -bx >"$work/$1.txt"
  [ ! -s "$work/err" ] || fail "$1: $(cat "$work/err")"
  [ -s "$work/$1.txt" ] || fail "$1 is empty"
}
subcommands() { "$kestrel" "$@" --help | sed -n '/^Subcommands:/,/^$/ s/^  \([a-z][a-z-]*\) .*/\1/p'; }
options() { "$kestrel" "$@" --help | sed -n '/^Options:/,/^$/ s/^  \(-[^ ]*\).*/\1/p' | tr , '\n' | sed 's/:.*//' | grep '^--' | grep -vx -e --help; }

# covers PAGE COMMAND...: the command's own entry, its options, and what stands below it.
checked=0
covers() {
  local file=$1 option below
  shift
  # An entry ends where the next line stands as far left as it does.
  if [ "$#" -gt 0 ] && { [ -z "$(subcommands "$@")" ] || [ "$*" = server ]; }; then
    awk -v words="$*" '
      /^       [^ ]/ { inside = index(substr($0, 8) " ", words " ") == 1 && substr($0, 9 + length(words)) !~ /^[a-z]+( |$)/ }
      inside' "$work/$file.txt" >"$work/entry"
    [ -s "$work/entry" ] || fail "$file does not tell of 'kestrel $*'"
  else
    cp "$work/$file.txt" "$work/entry"
  fi
  for option in $(options "$@"); do
    grep -qE -- "(^|[ ,])$option( |$|,)" "$work/entry" || fail "$file does not tell of $option of 'kestrel $*'"
    checked=$((checked + 1))
  done
  for below in $(subcommands "$@"); do
    case "$* $below" in
      " server" | " agent") continue ;;
    esac
    covers "$file" "$@" "$below"
  done
}

for file in kestrel.1 kestrel-server.8 kestrel-agent.8 kestrel-server.toml.5 kestrel-agent.toml.5; do
  note "$file"
  page "$file"
done
covers kestrel.1
covers kestrel-server.8 server
covers kestrel-agent.8 agent
[ "$checked" -gt 60 ] || fail "only $checked options were looked for"

note "settings"
for key in $(sed -n 's/.*{"\([a-z_]*\)", [a-z]*_setter.*/\1/p' "$pages/../../server/server_config.cpp"); do
  grep -qw -- "$key" "$work/kestrel-server.toml.5.txt" || fail "kestrel-server.toml.5 does not tell of $key"
done
for key in name log_level url ca_file probe_minutes max_concurrent history_days stop stop_seconds; do
  grep -q "\"$key\"" "$pages/../../agent/agent_config.cpp" || fail "the agent has no setting $key any more"
  grep -qw -- "$key" "$work/kestrel-agent.toml.5.txt" || fail "kestrel-agent.toml.5 does not tell of $key"
done
echo "man pages: ok, $checked options"
