#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What a host relies on when it loads the detection module: its soname, its entry point, and the only libraries that it
# may need.   check-module.sh [LIBRARY]
set -euo pipefail
cd "$(dirname "$0")/.."
library=${1:-$(find build/release -name libcontainerescape_module.so | head -n 1)}

allowed='framework sdk ftrace_module filenotify_module container_module process_collect_module
    PocoFoundation PocoUtil jsoncpp stdc++ m gcc_s c'
dynamic=$(readelf --dynamic --wide "$library")
failed=0
complain() { echo "$library: $*" >&2; failed=1; }

grep -q 'SONAME.*\[libcontainerescape_module.so\]' <<<"$dynamic" || complain "has another soname"
symbols=$(readelf --dyn-syms --wide "$library")
grep -qE 'GLOBAL +DEFAULT +[0-9]+ CreateModule$' <<<"$symbols" || complain "exports no CreateModule"
for needed in $(sed -nE 's/.*\(NEEDED\).*\[lib(.*)\.so[^]]*\]/\1/p' <<<"$dynamic"); do
    grep -qwF -- "$needed" <<<"$allowed" || complain "needs lib$needed"
done
exit "$failed"
