#!/bin/sh
# run.sh BUILD-DIR: from the start of the process to the wizard's painted window, and the most memory that was resident
# until then, beside an empty window of the same toolkit (medians of 15 interleaved runs, without a display). Exit status
# 1 where a bound is not kept.
set -eu
build=$(cd "$1" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
HOME=$scratch
QT_QPA_PLATFORM=offscreen
export HOME QT_QPA_PLATFORM
unset XDG_CONFIG_HOME XDG_DATA_HOME XDG_CACHE_HOME

once() {
    "$build/bin/window_benchmark" "$(date +%s%N)" "$@" 2>/dev/null
}

for run in 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15; do
    empty=$(once empty)
    wizard=$(once wizard "$build/lib/keyfold/KFInstaller.bundle")
    # The first run only warms the caches.
    [ "$run" = 0 ] || echo "$empty $wizard"
done > "$scratch/results"

median() {
    sort -n -k "$1,$1" "$scratch/results" | awk -v column="$1" 'NR == 8 { print $column }'
}
# report WHAT VALUE UNIT [BOUND]: a line; false where the bound is not kept.
report() {
    awk -v what="$1" -v value="$2" -v unit="$3" -v bound="${4:-}" 'BEGIN {
        kept = bound == "" || value <= bound
        printf "%-48s %8.1f %s%s%s\n", what, value, unit, bound == "" ? "" : " (at most " bound ")",
            kept ? "" : "  NOT KEPT"
        exit !kept
    }'
}
status=0
report "empty window, from start to paint" "$(median 1)" ms
report "wizard, from start to paint" "$(median 3)" ms 150 || status=1
report "empty window, resident" "$(median 2)" MB
report "wizard, resident" "$(median 4)" MB 60 || status=1
exit "$status"
