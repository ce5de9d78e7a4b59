#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Whether every source file is as clang-format writes it.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run -Werror
