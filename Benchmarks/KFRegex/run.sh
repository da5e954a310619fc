#!/bin/sh
# run.sh BUILD-DIR: what the regular expressions cost, in instructions and in time. Exit status 1 where a bound is not
# kept. Times are the least of interleaved repetitions, for eight threads the median, which a busy machine makes stray.
set -eu
build=$(cd "$1" && pwd)
cd "$(dirname "$0")"
status=0

echo "Instructions for one operation (callgrind), the layer against ICU alone on an expression that is kept:"
echo
./instructions.sh "$build" || status=1

if [ ! -x "$build/bin/kfregex_bench" ]; then
    echo "No times: Google Benchmark (libbenchmark-dev) is not installed." >&2
    exit 1
fi
times=$(mktemp)
trap 'rm -f "$times"' EXIT

# measure STATISTIC FILTER REPETITIONS: adds the least or the median of the repetitions, which are interleaved, to the
# file: name;real nanoseconds;CPU nanoseconds
measure() {
    "$build/bin/kfregex_bench" --benchmark_filter="$2" --benchmark_repetitions="$3" --benchmark_min_time=0.2 \
        --benchmark_enable_random_interleaving=true --benchmark_format=csv 2>/dev/null |
        awk -v statistic="$1" '/^"(match|strip|split|find|lock)/ {
            name = $0; sub(/^"/, "", name); sub(/".*/, "", name)
            rest = $0; sub(/^[^"]*"[^"]*",/, "", rest); split(rest, field, ",")
            factor = field[4] == "us" ? 1000 : 1
            if (statistic == "median" && sub(/_median$/, "", name)) {
                real[name] = field[2] * factor; cpu[name] = field[3] * factor
            } else if (statistic == "least" && name !~ /_(mean|median|stddev|cv)$/) {
                if (!(name in cpu) || field[3] * factor < cpu[name]) cpu[name] = field[3] * factor
                if (!(name in real) || field[2] * factor < real[name]) real[name] = field[2] * factor
            }
        }
        END { for (name in cpu) printf "%s;%.1f;%.1f\n", name, real[name], cpu[name] }' >>"$times"
}
# Uncontended locks first: once threads have slept at a lock, its price in that process is another.
measure least 'uncontended/.*' 9
measure least 'second thread' 9
measure median '8 threads' 15
measure least '^(match|strip|split|find).*/(layer|icu|icu-open)(/[0-9]+)?$' 5
measure least '^(match|strip|split|find).*/(std::regex|boost|re2|pcre2-jit|qt)(/[0-9]+)?$' 2

# bound TEXT COLUMN LAYER OTHER BOUND
bound() {
    awk -F';' -v text="$1" -v column="$2" -v layer="$3" -v other="$4" -v bound="$5" '
        $1 == layer { a = $column } $1 == other { b = $column }
        END {
            if (!a || !b) { print "not measured: " text; exit 1 }
            printf "| %-62s | %9.1f | %9.1f | %6.3f | %5s | %-8s |\n", text, a, b, a / b, bound,
                a / b <= bound ? "kept" : "NOT KEPT"
            exit a / b > bound
        }' "$times" || status=1
}
echo
echo "Nanoseconds, the layer against ICU alone or std::mutex:"
echo
echo "| Case                                                           |     layer |     other |  ratio | bound |          |"
echo "|----------------------------------------------------------------|-----------|-----------|--------|-------|----------|"
bound "strip white space from 1 MB of base64" 3 "strip 1 MB/layer/1048576" "strip 1 MB/icu/1048576" 1.15
bound "lock and unlock, uncontended, one thread in the process" 3 "lock, uncontended/layer" \
    "lock, uncontended/std::mutex" 0.6
bound "lock and unlock, uncontended, two threads in the process" 3 "lock, uncontended, second thread/layer" \
    "lock, uncontended, second thread/std::mutex" 0.6
bound "8 threads, 1 us inside (wall clock)" 2 "lock, 8 threads/layer/real_time/threads:8" \
    "lock, 8 threads/std::mutex/real_time/threads:8" 1.2

echo
echo "Microseconds of CPU, beside other libraries (ICU and PCRE2 give ranges, the others strings):"
echo
awk -F';' '
    $1 !~ /^lock|^decode|^work/ {
        split($1, part, "/")
        if (!(part[1] in seen)) { seen[part[1]] = 1; cases[++caseCount] = part[1] }
        library[part[2]] = 1
        time[part[1], part[2]] = $3 / 1000
    }
    END {
        count = split("layer icu icu-open pcre2-jit re2 qt std::regex boost", order, " ")
        printf "| %-16s |", "Case"
        for (i = 1; i <= count; ++i) if (order[i] in library) printf " %10s |", order[i]
        printf "\n|------------------|"
        for (i = 1; i <= count; ++i) if (order[i] in library) printf "------------|"
        printf "\n"
        for (c = 1; c <= caseCount; ++c) {
            printf "| %-16s |", cases[c]
            for (i = 1; i <= count; ++i)
                if (order[i] in library) printf " %10.2f |", time[cases[c], order[i]]
            printf "\n"
        }
    }' "$times"
exit "$status"
