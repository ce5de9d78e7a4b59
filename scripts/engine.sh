#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A Docker Engine of its own for the tests: it shares nothing with an engine that this machine may run already.
#   engine.sh start DIR [DOCKERD_OPTION...]   starts it; its socket is DIR/docker.sock
#   engine.sh restart DIR                     ends the daemon and starts it again with the same data
#   engine.sh stop DIR                        ends its containers and the daemon, by pid, and removes DIR with all that
#                                             runtimes left: processes, mounts, control groups
set -euo pipefail

fail() { echo "engine.sh: $*" >&2; exit 1; }
[ $# -ge 2 ] || fail "usage: engine.sh start|restart|stop DIR"
action=$1
dir=$2
shift 2
docker=$(PATH=/usr/bin:$PATH command -v docker) || fail "no docker client: apt-get install docker.io"
export DOCKER_HOST=unix://$dir/docker.sock

# A zombie has no command line.
alive() { [ -f "$dir/dockerd.pid" ] && grep -qs . "/proc/$(cat "$dir/dockerd.pid")/cmdline"; }

start_daemon() {
    command -v dockerd >/dev/null || fail "no dockerd: apt-get install docker.io"
    mkdir -p "$dir"
    setsid dockerd --data-root "$dir/data" --exec-root "$dir/exec" --pidfile "$dir/docker.pid" \
        --host "$DOCKER_HOST" --iptables=false --ip6tables=false --bridge=none "$@" \
        </dev/null >>"$dir/dockerd.log" 2>&1 &
    echo $! >"$dir/dockerd.pid"
    for _ in $(seq 300); do
        if "$docker" version >/dev/null 2>&1; then return; fi
        alive || break
        sleep 0.1
    done
    tail -n 20 "$dir/dockerd.log" >&2
    fail "the engine did not start"
}

stop_daemon() {
    alive || return 0
    local pid
    pid=$(cat "$dir/dockerd.pid")
    kill "$pid"
    for _ in $(seq 300); do
        alive || { rm -f "$dir/dockerd.pid"; return 0; }
        sleep 0.1
    done
    kill -9 "$pid"
    fail "the engine had to be killed"
}

# Shims and runtimes that outlived the engine, e.g. because it was killed; all of them carry its path.
end_runtimes() {
    local pid told
    while read -r pid; do
        told=$(tr '\0' '\n' <"/proc/$pid/cmdline"; tr '\0' '\n' <"/proc/$pid/environ"; readlink "/proc/$pid/cwd") || true
        case $told in *"$dir/"*) kill -9 "$pid" || true ;; esac
    done < <(grep -lsE '^(containerd|runc)' /proc/[0-9]*/comm | cut -d/ -f3) 2>/dev/null  # some are gone by then
}

# Of the containers that it had, by their ids, with the processes in them. 0 would be one of another pid namespace.
end_containers() {
    local ids=$dir/ids groups
    { ls "$dir/data/containers"; grep -ohE '\b[0-9a-f]{64}\b' "$dir/dockerd.log"; } 2>/dev/null | sort -u >"$ids" || true
    for _ in $(seq 20); do  # what was killed leaves its group a little later
        groups=$(find /sys/fs/cgroup -depth -type d -path '*/docker/*' | grep -F -f "$ids") || return 0
        xargs -I{} cat {}/cgroup.procs <<<"$groups" | grep -vx 0 | sort -u | xargs -r kill -9 || true
        xargs rmdir <<<"$groups" || sleep 0.1
    done 2>/dev/null
}

case $action in
    start) start_daemon "$@" ;;
    restart) stop_daemon; start_daemon "$@" ;;
    stop)
        if alive; then
            for _ in $(seq 20); do  # another client may be removing one of them just now
                containers=$("$docker" ps -aq) || break
                [ -n "$containers" ] || break
                # shellcheck disable=SC2086  # one word for each container
                "$docker" rm -f $containers >/dev/null || sleep 0.5
            done
        fi
        (stop_daemon) || true  # it has said why
        end_runtimes
        end_containers
        awk -v dir="$dir/" 'index($2, dir) == 1 { print $2 }' /proc/mounts | sort -r | xargs -r umount
        rm -rf "$dir"
        ;;
    *) fail "unknown action $action" ;;
esac
