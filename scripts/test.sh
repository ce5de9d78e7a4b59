#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what is missing, builds everything and runs every test, those with the real kernel and a real Docker Engine
# included. Ends with the names of what failed and a line of counts; exits with 0 only when nothing failed.
#   test.sh [--thorough]   the unit and kernel tests once more as built by the other compiler, clang, with the address
#                          and undefined behaviour sanitizers, and with the thread sanitizer; the release build also on
#                          Debian's stock kernel, in an emulated machine
#   CE_TESTS_MUST_RUN=1    a test that cannot run here fails instead of being skipped
set -euo pipefail
cd "$(dirname "$0")/.."
export CE_BUILD_DIR=$PWD/build/release

more=()
case ${1:-} in
    --thorough) more=(asan tsan) ;;
    ?*) echo "usage: test.sh [--thorough]" >&2; exit 2 ;;
esac
scripts/install-packages.sh test
if [ "$(id -u)" = 0 ] && [ ! -e /sys/kernel/tracing/instances ]; then
    mount -t tracefs tracefs /sys/kernel/tracing || echo "No tracefs on this kernel." >&2
fi

passed=0
skipped=0
failures=()
step() { echo; echo "== $* ($((SECONDS / 60)) min $((SECONDS % 60)) s)"; }
check() { # check NAME COMMAND...: one pass or failure
    step "$1"
    if "${@:2}"; then passed=$((passed + 1)); else failures+=("$1"); fi
}
# count WHAT FILE: adds the lines "passed: N", "skipped: N" and "failed: NAME" of the file to the counts
count() {
    local run skip names
    run=$(sed -n 's/^passed: //p' "$2") skip=$(sed -n 's/^skipped: //p' "$2")
    mapfile -t names < <(sed -n "s/^failed: /$1: /p" "$2")
    [ -n "$run" ] || names+=("$1: did not run to its end")
    echo "${run:-0} passed, ${#names[@]} failed, ${skip:-0} skipped"
    passed=$((passed + ${run:-0})) skipped=$((skipped + ${skip:-0})) failures+=("${names[@]}")
}
build() { # build PRESET
    # A compiler cache does not go with precompiled headers.
    local precompile=ON
    [ -z "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ] || precompile=OFF
    cmake --preset "$1" -DCE_PRECOMPILE="$precompile" >/dev/null && cmake --build --preset "$1" -- --quiet
}
unit_tests() { # unit_tests PRESET
    step "unit and kernel tests: $1"
    local dir=$PWD/build/$1
    # The thread sanitizer's fixed address ranges collide with what a kernel with much randomness chooses.
    setarch -R ctest --test-dir "$dir" --output-on-failure --output-junit "$dir/ctest.xml" >"$dir/ctest.log" 2>&1 || true
    python3 - "$dir/ctest.xml" >"$dir/counts" <<'PYTHON' || true
import sys, xml.etree.ElementTree as tree
cases = [(case.get("status"), case.get("name")) for case in tree.parse(sys.argv[1]).getroot().findall("testcase")]
states = [state for state, _ in cases]
print("passed:", states.count("run"))
print("skipped:", len(states) - states.count("run") - states.count("fail"))
for name in (name for state, name in cases if state == "fail"):
    print("failed:", name)
PYTHON
    grep -E '\*\*\*Skipped' "$dir/ctest.log" || true
    if ! grep -q '^passed' "$dir/counts" || grep -q '^failed' "$dir/counts"; then cat "$dir/ctest.log"; fi
    count "$1" "$dir/counts"
}
finish() {
    local failed=${#failures[@]}
    if [ -n "${CE_TESTS_MUST_RUN:-}" ]; then failed=$((failed + skipped)); fi
    step "all"
    if [ ${#failures[@]} -gt 0 ]; then printf 'failed: %s\n' "${failures[@]}"; fi
    echo "$passed passed, $failed failed, $skipped skipped"
    [ "$failed" = 0 ] || exit 1
    exit 0
}

# aside NAME COMMAND...: a check that runs beside others; what it says and its exit status wait in files
aside() {
    local status=0
    "${@:2}" >"$asides/$1.log" 2>&1 || status=$?
    echo "$status" >"$asides/$1.status"
}
replay() { # replay NAME: as if it had run just now
    cat "$asides/$1.log"
    return "$(cat "$asides/$1.status")"
}

check "build: release" build release
[ ${#failures[@]} = 0 ] || finish
check "format" scripts/check-format.sh
check "the module as a host sees it" scripts/check-module.sh
unit_tests release

# The end-to-end tests mostly wait, and the emulated machine has one CPU: the CPU time that they leave goes to lint and to
# the other builds, which take minutes.
asides=$CE_BUILD_DIR/asides
rm -rf "$asides"
mkdir "$asides"
set -m # a process group of its own
(
    chrt --idle --pid 0 "$BASHPID"
    aside lint scripts/check-lint.sh
    for preset in "${more[@]}"; do aside "build: $preset" build "$preset"; done
) </dev/null &
set +m
asides_pid=$!
trap 'kill -- "-$asides_pid"' EXIT
step "end-to-end tests: real kernel, real containers"
python3 tests/e2e/run.py | tee "$CE_BUILD_DIR/e2e.log" || true
count "end-to-end" "$CE_BUILD_DIR/e2e.log"
if [ ${#more[@]} -gt 0 ]; then check "Debian's stock kernel" scripts/other-kernel.sh stock; fi
step "what is left of lint and the other builds"
wait "$asides_pid" || true
trap - EXIT

check "lint" replay lint
for preset in "${more[@]}"; do
    check "build: $preset" replay "build: $preset"
    [ "$(cat "$asides/build: $preset.status")" != 0 ] || unit_tests "$preset"
done
finish
