# Sourced by the bench/run*.sh scripts: timing of commands, medians, and the rows of the result table.
# Wanted from the caller: $bench (the program pump_bench), $work (a private folder), $results (a file that collects rows).
# shellcheck shell=bash
# shellcheck disable=SC2154

# timed NAME COMMAND...: runs the command and keeps "wall user system peak_kib" of it and its children as one more round
# of NAME. The first round of each name is the warm-up. What the command prints is left in $work/stdout.
timed() {
  local name=$1
  shift
  "$bench" time "$work/times.$name" "$@" >"$work/stdout" 2>"$work/stderr" || {
    echo "bench: $* failed:" >&2
    cat "$work/stderr" >&2
    return 1
  }
}

# median: of the numbers on the standard input.
median() { sort -g | awk '{v[NR] = $1} END {if (NR == 0) exit 1; print (v[int((NR + 1) / 2)] + v[int(NR / 2) + 1]) / 2}'; }
# rounds_of NAME wall|cpu|kib: that column of all rounds but the warm-up.
rounds_of() {
  awk -v c="$2" 'NR > 1 {print c == "wall" ? $1 : c == "cpu" ? $2 + $3 : $4}' "$work/times.$1"
}
middle() { rounds_of "$1" "$2" | median; }
# calculate EXPRESSION: in awk, with four digits behind the point.
calculate() { awk "BEGIN {printf \"%.4f\", $1}"; }
# spread NAME COLUMN RIVAL: lowest and highest ratio NAME/RIVAL within one round.
spread() {
  paste <(rounds_of "$1" "$2") <(rounds_of "$3" "$2") | awk '{print $1 / $2}' | sort -g |
    awk 'NR == 1 {low = $1} {high = $1} END {printf "%.2f-%.2f", low, high}'
}
# inverse_spread NAME COLUMN RIVAL: the same of RIVAL/NAME, which for times is the ratio of speeds.
inverse_spread() { spread "$3" "$2" "$1"; }

# judge VALUE '>='|'<='|'<' LIMIT
judge() { awk -v v="$1" -v o="$2" -v l="$3" 'BEGIN {ok = o == ">=" ? v >= l : o == "<=" ? v <= l : v < l; print ok ? "met" : "MISSED"}'; }

# row FIGURE MEASURED RIVAL RATIO SPREAD DEMAND VERDICT: one line of the result table; cells hold no "|".
row() {
  local IFS='|'
  printf '%s\n' "$*" >>"$results"
}
section() { printf '#%s\n' "$*" >>"$results"; }
remark() { printf '!%s\n' "$*" >>"$results"; }

# compare_speed FIGURE NAME RIVAL RIVAL_TITLE BYTES [OPERATOR LIMIT]: MB/s of both, and how many times as fast NAME is.
compare_speed() {
  local mine theirs ratio verdict='-' demand='-'
  mine=$(middle "$2" wall) theirs=$(middle "$3" wall)
  ratio=$(calculate "$theirs / $mine")
  [ $# -lt 7 ] || { demand="$6 $7" verdict=$(judge "$ratio" "$6" "$7"); }
  row "$1" "$(calculate "$5 / $mine / 1e6" | cut -d. -f1) MB/s" "$4: $(calculate "$5 / $theirs / 1e6" | cut -d. -f1) MB/s" \
    "$(printf '%.2f' "$ratio")" "$(inverse_spread "$2" wall "$3")" "$demand" "$verdict"
}
# compare_cpu FIGURE NAME RIVAL RIVAL_TITLE BYTES [OPERATOR LIMIT]: processor time per byte.
compare_cpu() {
  local mine theirs ratio verdict='-' demand='-'
  mine=$(middle "$2" cpu) theirs=$(middle "$3" cpu)
  ratio=$(calculate "$mine / $theirs")
  [ $# -lt 7 ] || { demand="$6 $7" verdict=$(judge "$ratio" "$6" "$7"); }
  row "$1" "$(printf '%.3f' "$(calculate "$mine / $5 * 1e9")") ns/B" "$4: $(printf '%.3f' "$(calculate "$theirs / $5 * 1e9")") ns/B" \
    "$(printf '%.2f' "$ratio")" "$(spread "$2" cpu "$3")" "$demand" "$verdict"
}

# print_table: the collected rows as text columns.
print_table() {
  { echo "FIGURE|MEASURED|RIVAL|RATIO|ROUNDS|DEMANDED|"; awk '/^#/ {print substr($0, 2) "||||||"; next} !/^!/' "$results"; } | column -t -s '|'
  grep '^!' "$results" | sed 's/^!/note: /' || true
}
# print_markdown: the collected rows as Markdown tables, one a section.
print_markdown() {
  awk -F'|' '
    /^#/ {printf "\n### %s\n\n| figure | measured | rival | ratio | lowest-highest | demanded | |\n|---|---|---|---|---|---|---|\n", substr($0, 2); next}
    /^!/ {notes = notes "\n- " substr($0, 2); next}
    {printf "| %s | %s | %s | %s | %s | %s | %s |\n", $1, $2, $3, $4, $5, $6, $7}
    END {if (notes != "") print "\nNotes:\n" notes}' "$results"
}
