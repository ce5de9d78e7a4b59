#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs those of Debian's packages that are missing here: what building and running needs, with "test" also what the
# tests need. Asks the package lists for news only when something is missing.
#   install-packages.sh [--ask] [test]   --ask: asks before it installs, if a person sits at the terminal
set -euo pipefail

build=(g++ cmake ninja-build pkg-config make libc6-dev libpoco-dev libjsoncpp-dev libtracefs-dev libtraceevent-dev
    libcli11-dev libconcurrentqueue-dev libbpf-dev libseccomp-dev prometheus-cpp-dev libre2-dev libgrpc++-dev
    libprotobuf-dev protobuf-compiler protobuf-compiler-grpc libcurl4-openssl-dev clang bpftool)
test=(libgtest-dev libgmock-dev libbenchmark-dev docker.io podman uidmap crun curl busybox-static python3
    python3-jsonschema clang-format clang-tidy libclang-rt-dev git procps logrotate prometheus qemu-system-x86
    cpio xz-utils)

ask=
if [ "${1:-}" = --ask ]; then ask=1; shift; fi
packages=("${build[@]}")
[ "${1:-}" != test ] || packages+=("${test[@]}")
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f '${Status}\n' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

[ "$(id -u)" = 0 ] || { echo "Missing packages: ${missing[*]}. Run this as root." >&2; exit 77; }
if [ -n "$ask" ] && [ -t 0 ] && [ -t 1 ]; then
    read -r -p "Install ${missing[*]}? [Y/n] " answer
    case $answer in [Yy]* | "") ;; *) echo "Not installed; nothing was changed."; exit 1 ;; esac
fi
echo "Installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
