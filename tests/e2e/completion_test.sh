#!/bin/bash
# What bash offers after TAB: commands and options of the help, values, and names of what is there.
. "$(dirname "$0")/kestrel_support.sh"
unset KESTREL_SERVER
source=$(cd "$(dirname "$0")/../.." && pwd)
PATH=$bin:$PATH

# offered WORD...: what is offered for the last word, on one line.
offered() {
  bash -c '
    source "$1"
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _kestrel
    printf "%s\n" "${COMPREPLY[@]}"' - "$source/packaging/completion/kestrel" "$@" </dev/null >"$work/offered" 2>"$work/err" ||
    fail "completion of '$*' failed"
  [ ! -s "$work/err" ] || fail "completion of '$*' is not quiet"
  sort "$work/offered" | xargs
}
offers() { # WANTED WORD...: exactly these
  local wanted=$1
  shift
  equal "$(offered "$@")" "$wanted" "offered after '$*'"
}
includes() { # WANTED WORD...: among others
  local wanted=$1
  shift
  offered "$@" | tr ' ' '\n' | grep -qx -- "$wanted" || fail "'$wanted' is not offered after '$*': $(offered "$@")"
}

note "every command of the help, and nothing else"
commands=$("$kestrel" --help | sed -n '/^Subcommands:/,$ s/^  \([a-z][a-z-]*\) .*/\1/p' | sort | xargs)
[ -n "$commands" ] || fail "the help lists no commands"
offers "$commands" kestrel ""
offers "backup backups" kestrel backu
offers "add list remove" kestrel pool ""
offers "remove resume run runs" kestrel job r
offers "abort" kestrel job a
offers "show switch" kestrel job s
includes --host kestrel job switch nightly --
offers "add list password remove" kestrel server user ""
offers "history" kestrel agent h
includes --limit kestrel agent history --
offers "status" kestrel --server https://nowhere.invalid stat

note "options of each command, and the global ones before it"
includes --json kestrel --
includes --level kestrel backup --
offers "--compression --compression-level" kestrel backup DB1 --comp
includes --follow kestrel job log --
includes --out kestrel server enroll --

note "values"
offers "diff full incr" kestrel backup DB1 --level ""
offers "zlib zstd" kestrel export --compression z
offers "operator" kestrel user add vera --role o
offers "" kestrel backup --rate-limit ""

note "names of what is there"
mkdir -p "$pool" "$work/second"
run 0 "$kestrel" pool add main --path "$pool"
run 0 "$kestrel" pool add mirror --path "$work/second"
offers "main mirror" kestrel pool remove ""
offers "mirror" kestrel backup DB1 --pool mi

note "files"
touch "$work/nightly.json"
offers "$work/nightly.json" kestrel job define "$work/nigh"
offers "$work/second" kestrel pool add x --path "$work/sec"

note "nothing, quietly, when nobody can be asked"
offers "" kestrel --server https://127.0.0.1:1 job show ""
offers "" kestrel --server https://127.0.0.1:1 hosts --host ""
offers "" kestrel nonsense ""
echo "completion: ok"
