#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what is missing, builds the agent, shows it one alarm of each kind that needs no container engine, and then
# runs it on this machine's containers until Ctrl-C.
#   start.sh [--demo-only] [--yes] [OPTION...]
#     --demo-only   stops after the demonstration
#     --yes         installs without asking; without a terminal nothing is asked anyway
#     OPTION        the agent's; a policy is taken from packaging/ if none is given
set -euo pipefail
cd "$(dirname "$0")/.."

demo_only=
ask=--ask
while true; do
    case ${1:-} in
        --demo-only) demo_only=1 ;;
        --yes) ask= ;;
        *) break ;;
    esac
    shift
done
[ "$(id -u)" = 0 ] || { echo "Run this as root: it reads the kernel's trace events." >&2; exit 77; }
scripts/install-packages.sh ${ask:+"$ask"}
# Its own build tree without tests and benchmarks: the first alarm is worth more than they are.
cmake -S . -B build/start -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DCE_BUILD_BENCH=OFF \
    -DCE_PRECOMPILE=ON >/dev/null
cmake --build build/start -- --quiet
if [ ! -e /sys/kernel/tracing/instances ]; then mount -t tracefs tracefs /sys/kernel/tracing; fi

scripts/demo.sh build/start
[ -z "$demo_only" ] || exit 0
echo "Now watching this machine's containers; end with Ctrl-C."
[[ " $* " == *" --policy"[\ =]* ]] || set -- --policy packaging/policy.json "$@"
exec build/start/bin/containerescape-agent run "$@"
