#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What the running agent takes: resident memory, CPU time and wake-ups when idle, and resident memory after a million
# calls from one process of a made-up container. Needs root.
#   footprint.sh [BUILD_DIR [SECONDS]]   default build/release, 10 s of idling
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/release}
idle=${2:-10}
hierarchy=$(awk '$3 == "cgroup2" { print 1, $2 } $3 == "cgroup" && $4 !~ /cpuset/ { print 2, $2 }' /proc/mounts |
    sort -n | while read -r _ dir; do [ ! -w "$dir" ] || { echo "$dir"; break; }; done)
group=$hierarchy/docker/$(od -An -N32 -tx1 /dev/urandom | tr -d ' \n')
work=$(mktemp -d)
agent_pid=

# shellcheck disable=SC2317  # the trap calls it
clean_up() {
    if [ -n "$agent_pid" ]; then kill "$agent_pid"; wait "$agent_pid" || true; fi
    rmdir "$group" && { rmdir "$hierarchy/docker" 2>/dev/null || true; }
    rm -rf "$work"
}
trap clean_up EXIT

mkdir -p "$group"
cc -O1 -pthread -o "$work/probe" tools/probe.c
mkfifo "$work/log"
"$build/bin/containerescape-agent" run --policy packaging/policy.json --docker-socket none \
    >"$work/alarms" 2>"$work/log" &
agent_pid=$!
exec 3<"$work/log"
until read -r -t 30 -u 3 line && [[ $line == *": ready"* ]]; do [ -n "${line:-}" ] || exit 1; done

memory() { awk '/^VmRSS|^VmHWM/ { printf "%s %.1f MB  ", $1, $2 / 1024 } END { print "" }' "/proc/$agent_pid/status"; }
ticks() { awk '{ print $14 + $15 }' "/proc/$agent_pid/stat"; }  # proc(5): utime, stime
wake_ups() { awk '/^voluntary_ctxt/ { sum += $2 } END { print sum }' "/proc/$agent_pid"/task/*/status; }

echo "ready:                  $(memory)"
sleep 15  # what is idle waits longer after a while
before=$(ticks)
woken=$(wake_ups)
sleep "$idle"
woken=$(($(wake_ups) - woken))
awk -v ticks=$(($(ticks) - before)) -v hz="$(getconf CLK_TCK)" -v seconds="$idle" -v woken=$woken \
    'BEGIN { printf "idle for %d s:           %.2f %% of one CPU, %.1f wake-ups a second\n", seconds,
             100 * ticks / hz / seconds, woken / seconds }'
sh -c 'echo $$ >"$1/cgroup.procs"; exec "$2" self brute 1000000' sh "$group" "$work/probe" >"$work/said"
echo "after a million calls:  $(memory)"
sleep 2
echo "two seconds later:      $(memory)"
echo "alarms: $(wc -l <"$work/alarms")"
kill "$agent_pid"
wait "$agent_pid"
agent_pid=
grep -o 'stopped: .*' <&3
