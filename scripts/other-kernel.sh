#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Boots another kernel of Debian's in an emulated machine, runs the kernel's tests there, and shows that the agent sees a
# container's calls through both entries. Takes minutes; not a part of test.sh. Installs nothing and needs no root.
#   other-kernel.sh KERNEL [BUILD_DIR]   the name of a package (linux-image-6.1.0-56-cloud-amd64) or its .deb file;
#                                        default build/release
# Needs qemu-system-x86, busybox-static, cpio, xz-utils, and a build with its tests. Ends with 0 when the tests passed
# and the alarms came.
set -euo pipefail
kernel=$1
[[ $kernel != *.deb ]] || kernel=$(realpath "$kernel")
cd "$(dirname "$0")/.."
build=$(realpath "${2:-build/release}")
tests=(test_ftrace test_ftrace_kernel test_filenotify_kernel)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
[[ $kernel == *.deb ]] || { (cd "$work" && apt-get download -qq "$kernel"); kernel=$(echo "$work"/*.deb); }
dpkg-deb -x "$kernel" "$work/package"

# The programs lie where they lie here: the build's paths are in them.
root=$work/root
mkdir -p "$root"/{bin,dev,proc,sys,tmp}
cp "$(command -v busybox)" "$root/bin/busybox"
files=("$build"/bin/containerescape-agent "$build"/lib/*/*.so "$build/tools/probe" "${tests[@]/#/$build/tests/}")
{ printf '%s\n' "${files[@]}"; ldd "${files[@]}" 2>/dev/null | grep -oE '/[^ :]+( |$)' || true; } |
    xargs realpath -s | sort -u | xargs cp -L --parents -t "$root"
overlay=$(find "$work/package" -name 'overlay.ko*')
case $overlay in *.xz) xz -dc "$overlay" ;; *) cat "$overlay" ;; esac >"$root/overlay.ko"

printf 'build=%q\ntests=%q\n' "$build" "${tests[*]}" >"$root/settings"
cat >"$root/init" <<'INIT'
#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t proc none /proc && mount -t sysfs none /sys && mount -t devtmpfs none /dev
mount -t tracefs none /sys/kernel/tracing && mount -t cgroup2 none /sys/fs/cgroup
insmod /overlay.ko
. /settings
# check WHAT COMMAND...
check() {
    what=$1; shift
    "$@" && verdict=passed || verdict=failed
    echo "other-kernel: $what $verdict"
}
uname -r
export CE_TESTS_MUST_RUN=1
for test in $tests; do
    check "$test" "$build/tests/$test" --gtest_brief=1
done

# awaits PATTERN FILE: whether the file gets such a line within two minutes, while the agent runs
awaits() {
    for _ in $(seq 240); do
        grep -q "$1" "$2" && return
        kill -0 $agent 2>/dev/null && sleep 0.5 || break
    done
    return 1
}
# expect CALL DEED...: a process of the container makes the call; the alarm is to come
expect() {
    call=$1; shift
    sh -c 'echo $$ >"$0/cgroup.procs"; exec "$@"' "$group" "$build/tools/probe" "$@"
    check "--syscalls $source: $*" awaits "High-Risk.*\"sys_call\":\"$call\".*$id" /tmp/alarms
    sleep 4 # alarms of one name are merged for less
}
echo '{"content": {"image_white_namelist": [], "container_escape_detect_task":
    {"scope": "container", "highrisk_calls": ["unshare", "setns"], "host_directorys": []}}}' >/tmp/policy
id=$(head -c 32 /dev/urandom | od -An -tx1 | tr -d ' \n')
group=/sys/fs/cgroup/docker/$id
mkdir -p "$group"
for source in bpf tracefs; do
    : >/tmp/alarms
    "$build/bin/containerescape-agent" run --policy /tmp/policy --docker-socket /tmp/none --alarms /tmp/alarms \
        --syscalls $source 2>/tmp/log &
    agent=$!
    awaits 'agent: ready' /tmp/log
    expect unshare fork call unshare
    [ $source = tracefs ] || expect setns fork call32 setns
    kill $agent
    check "--syscalls $source: clean stop" wait $agent
    cat /tmp/log /tmp/alarms
done
poweroff -f
INIT
chmod +x "$root/init"
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/initrd"

timeout --foreground 20m nice qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m 2048 -nographic -no-reboot -nic none \
    -kernel "$work"/package/boot/vmlinuz-* -initrd "$work/initrd" -append 'console=ttyS0 quiet panic=-1' </dev/null |
    sed -u 's/\r//g' | tee "$work/console"
! grep -q '^other-kernel: .* failed$' "$work/console" &&
    [ "$(grep -c '^other-kernel: .* passed$' "$work/console")" = $((${#tests[@]} + 5)) ]
