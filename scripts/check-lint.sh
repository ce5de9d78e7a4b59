#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# clang-tidy over the product's sources, with the compile commands of the release build. One file for each process: its
# analyser takes a va_list for uninitialised when it has seen another file before.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files 'host/*.cpp' 'module/*.cpp' 'module_utils/*.cpp' |
    xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p build/release 2>/dev/null
