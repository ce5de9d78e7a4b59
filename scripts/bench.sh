#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the release preset's benchmarks, runs them all and prints what the figures are judged by: medians, and ratios of
# medians of one run, which a busy machine disturbs least. The trace is recorded from this kernel when run as root.
#   bench.sh [REPETITIONS]   default 9
set -euo pipefail
cd "$(dirname "$0")/.."

repetitions=${1:-9}
build=${CE_BUILD_DIR:-build/release}

cmake --preset release -B "$build" >/dev/null
cmake --build "$build" --target bench_detect bench_trace bench_rate_limiter -- --quiet
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for bench in bench_rate_limiter bench_trace bench_detect; do
    # Interleaved, so that what disturbs the machine for a while disturbs both sides of a ratio. The first has none, and
    # the writer of CSV wants those with counters of their own first.
    interleaved=true
    if [ "$bench" = bench_rate_limiter ]; then interleaved=false; fi
    "$build/bench/$bench" --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true \
        --benchmark_min_time=0.1 --benchmark_enable_random_interleaving="$interleaved" --benchmark_format=csv \
        2>"$work/errors" >"$work/$bench" || { cat "$work/errors" >&2; exit 1; }
    # A measurement that failed has no times, and a text at the end of its line.
    if grep ',true,"' "$work/$bench" >&2; then exit 1; fi
done

# Columns: name, iterations, real time, CPU time, unit, bytes and items per second.
awk -F, -v work="$work" '
    { gsub(/"/, "") }
    $1 !~ /_median$/ { next }
    { name = substr($1, 1, length($1) - 7); cpu[FILENAME, name] = $4
      if (name ~ /^(BurstLeaves|SteadyRate|Faked|Live)/) printf "%-34s %12.0f %s\n", name, $4, $5
      else printf "%-34s %12.1f ns for an event\n", name, 1e9 / $7 }
    function ratio(bench, name, aim) {
        bench = work "/bench_" bench
        printf "%s: %.2f times decoding alone (aim: at most %s)\n", name,
            cpu[bench, name] / cpu[bench, "DecodingAlone"], aim }
    END {
        ratio("trace", "FromPageToTask", "1.5")
        ratio("detect", "WholeWay/unknownProcess", "1.5")
        ratio("detect", "WholeWay/knownProcess", "2") }
' "$work"/bench_rate_limiter "$work"/bench_trace "$work"/bench_detect
