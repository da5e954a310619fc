#!/bin/sh
# run.sh BUILD-DIR: looking up an address in keychains of 1,000 and 10,000 certificates, each tenth with its key (wall
# clock, best of 9 processes). The keychains are made once and kept in the build folder. Exit status 1 where a bound is
# not kept.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
export KEYFOLD_AUTHORIZATION=none
unset XDG_DATA_HOME XDG_CONFIG_HOME
runs=9
patience=60
address=member-500@orvane.example
status=0

# home COUNT: prints the home folder whose keychain holds so many. Made in memory: NSS waits for the disk at each object.
home() {
    home=$build/benchmark/lookup-$1
    if ! [ "$home/made" -nt "$here/MakeKeychain.cpp" ]; then
        echo "Making a keychain of $1 certificates; this takes a while, once." >&2
        scratch=$(mktemp -d -p /dev/shm 2>/dev/null || mktemp -d)
        rm -rf "$home"
        "$build/bin/make_keychain" "$scratch/nssdb" "$1" >&2
        mkdir -p "$home/.pki"
        cp -r "$scratch/nssdb" "$home/.pki/"
        rm -rf "$scratch"
        touch "$home/made"
    fi
    echo "$home"
}

row() { # TEXT VALUE UNIT BOUND: BOUND "-" for none
    awk -v text="$1" -v value="$2" -v unit="$3" -v bound="$4" 'BEGIN {
        kept = bound == "-" || value + 0 <= bound + 0
        printf "%-66s %9.1f %s%s%s\n", text, value, unit,
            bound == "-" ? "" : " (at most " bound ")", kept ? "" : "  NOT KEPT"
        exit !kept
    }' || status=1
}

# best FIELD: the least value of a field of all runs.
best() {
    awk -v field="$1" 'NR == 1 || $field < least { least = $field } END { print least }' "$results"
}

results=$(mktemp)
trap 'rm -f "$results"' EXIT
for count in 1000 10000; do
    HOME=$(home "$count")
    export HOME
    database=sql:$HOME/.pki/nssdb
    firstBound=60 secondBound=- sizeBound=-
    [ "$count" = 1000 ] || firstBound=- secondBound=5 sizeBound=40
    for kind in identities certificates; do
        : > "$results"
        for _ in $(seq "$runs"); do
            "$build/bin/lookup_once" "$kind" "$address" >> "$results"
        done
        if ! awk '$4 != 1 { exit 1 }' "$results"; then
            echo "run.sh: not exactly one of the $kind was found" >&2
            exit 1
        fi
        row "${kind}ForEmailAddress, $count certificates, first call" "$(best 1)" ms "$firstBound"
        row "  second call in the same process" "$(best 2)" ms "$secondBound"
        row "  the process at its largest" "$(awk -v kib="$(best 3)" 'BEGIN { print kib / 1024 }')" MiB "$sizeBound"
    done
    start=$(date +%s%N)
    if timeout "$patience" certutil -L -d "$database" --email "$address" | grep -q "$address"; then
        row "  the same question asked of certutil -L, process and all" "$(($(date +%s%N) - start))e-6" ms -
    else
        echo "  the same question asked of certutil -L: no answer within $patience s"
    fi
done
exit "$status"
