#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A Docker Engine of its own for the tests: it shares nothing with an engine that this machine may run already.
#   engine.sh start DIR [DOCKERD_OPTION...]   starts it; its socket is DIR/docker.sock
#   engine.sh restart DIR                     ends the daemon and starts it again with the same data
#   engine.sh stop DIR                        ends its containers and the daemon, by pid, and removes DIR
set -euo pipefail

fail() { echo "engine.sh: $*" >&2; exit 1; }
[ $# -ge 2 ] || fail "usage: engine.sh start|restart|stop DIR"
action=$1
dir=$2
shift 2
docker=$(PATH=/usr/bin:$PATH command -v docker) || fail "no docker client: apt-get install docker.io"
export DOCKER_HOST=unix://$dir/docker.sock

alive() { [ -f "$dir/dockerd.pid" ] && kill -0 "$(cat "$dir/dockerd.pid")" 2>/dev/null; }

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
        kill -0 "$pid" 2>/dev/null || { rm -f "$dir/dockerd.pid"; return 0; }
        sleep 0.1
    done
    kill -9 "$pid"
    fail "the engine had to be killed"
}

case $action in
    start) start_daemon "$@" ;;
    restart) stop_daemon; start_daemon "$@" ;;
    stop)
        if alive; then
            for _ in $(seq 20); do  # another client may be removing one of them just now
                containers=$("$docker" ps -aq)
                [ -n "$containers" ] || break
                # shellcheck disable=SC2086  # one word for each container
                "$docker" rm -f $containers >/dev/null || sleep 0.5
            done
        fi
        stop_daemon
        awk -v dir="$dir/" 'index($2, dir) == 1 { print $2 }' /proc/mounts | sort -r | xargs -r umount
        rm -rf "$dir"
        ;;
    *) fail "unknown action $action" ;;
esac
