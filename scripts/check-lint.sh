#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# clang-tidy over the product's sources, with the compile commands of the release build, which must have been built.
#   check-lint.sh [FILE...]   default: all of them
# One file for each process: its analyser takes a va_list for uninitialised when it has seen another file before.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${CE_BUILD_DIR:-build/release}

# The headers that GCC precompiled are none for clang.
mkdir -p "$build/lint"
sed -E 's/ -Winvalid-pch//g; s/ -include [^ ]*cmake_pch\.hxx//g' "$build/compile_commands.json" \
    >"$build/lint/compile_commands.json"

# The messages of one file stay together; clang-tidy's own counts go.
# shellcheck disable=SC2016  # the inner shell's variables
{ [ $# -eq 0 ] && git ls-files 'host/*.cpp' 'module/*.cpp' 'module_utils/*.cpp' || printf '%s\n' "$@"; } |
    xargs -P "$(nproc)" -n 1 sh -c 'said=$(clang-tidy --quiet -p "$0" "$1" 2>&1) || {
        echo "$said" | grep -vE "^[0-9]+ warnings? (and [0-9]+ errors? )?generated|^Suppressed|^Use -header-filter"
        exit 1; }' "$build/lint"
