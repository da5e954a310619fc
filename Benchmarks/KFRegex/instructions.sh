#!/bin/sh
# instructions.sh BUILD-DIR: the instructions of each case, counted by callgrind, beside its bound. Counts repeat
# exactly, which times do not. Exit status 1 where a bound is not kept.
set -eu
cost=$1/bin/kfregex_cost
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

collected() {
    valgrind --tool=callgrind --callgrind-out-file="$scratch/out" "$cost" "$1" "$2" 2>&1 |
        sed -n 's/.*Collected : *\([0-9]*\).*/\1/p'
}

# count CASE LESS MORE: what one run costs, as the difference of two counts, so that starting costs nothing.
count() {
    [ -f "$scratch/$1" ] || echo $((($(collected "$1" "$3") - $(collected "$1" "$2")) / ($3 - $2))) >"$scratch/$1"
    cat "$scratch/$1"
}

status=0
# row TEXT LAYER RAW BOUND: one line of the table; a bound of - is only told.
row() {
    awk -v text="$1" -v layer="$2" -v raw="$3" -v bound="$4" 'BEGIN {
        ratio = layer / raw
        kept = bound == "-" ? "" : ratio <= bound ? "kept" : "NOT KEPT"
        printf "| %-62s | %9d | %9d | %6.3f | %5s | %-8s |\n", text, layer, raw, ratio, bound, kept
        exit kept == "NOT KEPT"
    }' || status=1
}

echo "| Case                                                           |     layer |       raw |  ratio | bound |          |"
echo "|----------------------------------------------------------------|-----------|-----------|--------|-------|----------|"
raw_match=$(count raw-match 1000 3000)
row "match, 40 characters, two 16-bit subjects in turn, last slot" "$(count match-wide 1000 3000)" "$raw_match" 1.04
row "match, 40 characters, two 8-bit subjects in turn, by hash" "$(count match-narrow-hash 1000 3000)" "$raw_match" 1.12
row "match, the same subject again" "$(count match-repeated 1000 3000)" "$raw_match" -
row "(ICU opened for each match)" "$(count open-match 100 300)" "$raw_match" -
row "strip white space from 4 KB of base64" "$(count strip-4k 100 300)" "$(count raw-strip-4k 100 300)" 1.03
row "strip, text never seen before" "$(($(count strip-fresh-4k 100 300) - $(count fresh-4k 100 300)))" \
    "$(count raw-strip-4k 100 300)" -
row "split 10,000 fields into strings" "$(count split 4 12)" "$(count raw-split 4 12)" 1.7
row "find all, 5,000 matches with 3 groups, into arrays" "$(count find-all 4 12)" "$(count raw-find-all 4 12)" 1.7
row "8 KB of base64 to bytes (raw: strip and filter)" "$(count decode-8k 50 150)" \
    "$(($(count strip-8k 50 150) + $(count filter-8k 50 150)))" 1.05
exit "$status"
