#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Shows the alarms that need no container engine: starts the agent, makes a control group that looks like a container's,
# and lets processes in it attack, one way after the other. The other alarms: a watched file and the namespace check ask
# the engine about the container, and the Dirty COW detector follows in silence.
#   demo.sh [BUILD_DIR]   default build/release
# Ends with 0 when all alarms came, 1 when one did not within 30 s, 77 when this machine cannot run it. Mounts tracefs
# where it is not mounted, and leaves it so: another program may use it by then.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/release}
agent=$build/bin/containerescape-agent
patience=30

cannot() { echo "demo.sh: $*" >&2; exit 77; }
[ "$(id -u)" = 0 ] || cannot "run this as root: it reads the kernel's trace events."
[ -x "$agent" ] || { echo "demo.sh: no agent at $agent: build it first." >&2; exit 1; }
[ -e /sys/kernel/tracing/instances ] || mount -t tracefs nodev /sys/kernel/tracing ||
    cannot "this kernel has no tracefs."

# The first hierarchy that takes processes: version 2 before version 1, never one that needs settings first (cpuset).
hierarchy=$(awk '$3 == "cgroup2" { print 1, $2 } $3 == "cgroup" && $4 !~ /cpuset/ { print 2, $2 }' /proc/mounts |
    sort -n | while read -r _ dir; do [ ! -w "$dir" ] || { echo "$dir"; break; }; done)
[ -n "$hierarchy" ] || cannot "no control group hierarchy that can be written to."

work=$(mktemp -d)
id=$(od -An -N32 -tx1 /dev/urandom | tr -d ' \n')
parent=$hierarchy/docker
made_parent=
agent_pid=
reader_pid=

# shellcheck disable=SC2317  # the trap calls it
clean_up() {
    if [ -n "$agent_pid" ]; then kill "$agent_pid" 2>/dev/null || true; wait "$agent_pid" || true; fi
    if [ -n "$reader_pid" ]; then kill "$reader_pid" 2>/dev/null || true; fi
    rmdir "$parent/$id" 2>/dev/null || true
    [ -z "$made_parent" ] || rmdir "$parent" 2>/dev/null || true
    rm -rf "$work"
}
trap clean_up EXIT

if [ ! -d "$parent" ]; then mkdir "$parent"; made_parent=1; fi
mkdir "$parent/$id"
mkdir "$work/host"
cc -O1 -pthread -o "$work/probe" tools/probe.c

# Without open_by_handle_at, which two detectors of their own watch.
cat >"$work/policy.json" <<POLICY
{"content": {"image_white_namelist": [],
             "container_escape_detect_task": {"scope": "container",
                                              "highrisk_calls": ["unshare", "setns", "mount", "ptrace",
                                                                 "pivot_root"],
                                              "host_directorys": ["$work/host"]}}}
POLICY

mkfifo "$work/log" "$work/alarms"
"$agent" run --policy "$work/policy.json" --docker-socket none >"$work/alarms" 2>"$work/log" &
agent_pid=$!
exec 3<"$work/alarms" 4<"$work/log"

# Shows the agent's log until it says that it is ready, then the rest beside the alarm.
is_ready=
while read -r -t "$patience" -u 4 line; do
    echo "  $line"
    case $line in "containerescape-agent: ready"*) is_ready=1; break ;; esac
done
[ -n "$is_ready" ] || { echo "demo.sh: the agent did not get ready." >&2; exit 1; }
sed -u 's/^/  /' <&4 &
reader_pid=$!

# attack TEXT EVENT_NAME DEED...: one process in the control group does the deeds; its alarm is shown.
attack() {
    local text=$1 name=$2
    shift 2
    echo
    echo "A process in the control group docker/${id:0:12}... $text:"
    # The shell moves itself; what it then executes is the container's first program.
    printf '%s\n' "$@" | sh -c 'echo $$ >"$1/cgroup.procs"; exec "$2" serve >"$3"' sh "$parent/$id" "$work/probe" \
        "$work/said"
    until read -r -t "$patience" -u 3 alarm; do
        echo "demo.sh: no alarm within $patience seconds." >&2
        exit 1
    done
    echo "Alarm:"
    if command -v jq >/dev/null; then jq . <<<"$alarm"; else echo "$alarm"; fi
    case $alarm in
        *"\"event_name\":\"$name\""*"\"container_id\":\"$id\""*) ;;
        *) echo "demo.sh: that is not the alarm of this attack." >&2; exit 1 ;;
    esac
}
attack "calls unshare(2)" "High-Risk System Invocation" "self call unshare"
attack "lists a directory, lists it again, opens a file by its handle" "Shocker attack" \
    "self list /" "self list /" "self brute 1"
attack "opens files by guessed handles, 400 in a row" "Bruteforce syscall attack" "self brute 400"
attack "writes to a watched directory of the host" "Container file escape attack" "self write $work/host/file"
echo
kill "$agent_pid"
wait "$agent_pid" && status=0 || status=$?
agent_pid=
wait "$reader_pid" || true
reader_pid=
[ "$status" = 0 ] || { echo "demo.sh: the agent ended with $status." >&2; exit 1; }
