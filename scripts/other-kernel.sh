#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Boots another kernel of Debian's in an emulated machine. Runs the kernel's tests there, shows that the agent sees a
# container's calls by every table of calls wherever it records them, that a storm of calls is accounted for to the last
# one, that a kernel which is locked down is named as such, and counts the instructions of a call that is not watched.
# Takes three minutes. Installs nothing and needs no root.
#   other-kernel.sh KERNEL [BUILD_DIR]   the name of a package (linux-image-6.1.0-56-cloud-amd64), its .deb file, or
#                                        "stock" for what linux-image-cloud-amd64 stands for; default build/release
# Needs qemu-system-x86, busybox-static, cpio, xz-utils, and a build with its tests and benchmarks. Ends with 0 when the
# tests passed and the alarms came.
set -euo pipefail
kernel=$1
[ "$kernel" != stock ] || kernel=$(apt-cache depends linux-image-cloud-amd64 | sed -n 's/^ *Depends: //p')
[[ $kernel != *.deb ]] || kernel=$(realpath "$kernel")
cd "$(dirname "$0")/.."
build=$(realpath "${2:-build/release}")
tests=(test_ftrace test_ftrace_kernel test_filenotify_kernel)

work=$(mktemp -d)
trap 'kill $(cat "$work"/*.pid 2>/dev/null) 2>/dev/null || true; rm -rf "$work"' EXIT
[[ $kernel == *.deb ]] || { (cd "$work" && apt-get download -qq "$kernel"); kernel=$(echo "$work"/*.deb); }
dpkg-deb -x "$kernel" "$work/package"

# The programs lie where they lie here: the build's paths are in them.
root=$work/root
mkdir -p "$root"/{bin,dev,proc,sys,tmp}
cp "$(command -v busybox)" "$root/bin/busybox"
files=("$build"/bin/containerescape-agent "$build"/lib/*/*.so "$build/tools/probe" "$build/bench/load" "${tests[@]/#/$build/tests/}")
{ printf '%s\n' "${files[@]}"; ldd "${files[@]}" 2>/dev/null | grep -oE '/[^ :]+( |$)' || true; } |
    xargs realpath -s | sort -u | xargs cp -L --parents -t "$root"
overlay=$(find "$work/package" -name 'overlay.ko*')
case $overlay in *.xz) xz -dc "$overlay" ;; *) cat "$overlay" ;; esac >"$root/overlay.ko"

# The agent's programs need Linux 5.12, and what it hears of a tmpfs 5.13. Before that, what --syscalls auto falls back to
# is to be shown.
version=$(basename "$work"/package/boot/vmlinuz-*)
version=${version#vmlinuz-}
sources="function enter tracefs"
[ "$(printf '%s\n' 5.13 "$version" | sort -V | head -1)" = 5.13 ] || { sources="auto tracefs" tests=(test_ftrace); }
x32=0 # whether the kernel serves that table of calls
! grep -q '^CONFIG_X86_X32_ABI=y' "$work"/package/boot/config-* || x32=1
printf 'build=%q\ntests=%q\nsources=%q\nx32=%d\n' "$build" "${tests[*]}" "$sources" $x32 >"$root/settings"
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
# awaits PATTERN FILE: whether the file gets such a line within two minutes, while the agent runs
awaits() {
    for _ in $(seq 240); do
        grep -q "$1" "$2" && return
        kill -0 $agent 2>/dev/null && sleep 0.5 || break
    done
    return 1
}
# container: makes one's control group; its id is in $id
container() {
    id=$(head -c 32 /dev/urandom | od -An -tx1 | tr -d ' \n')
    mkdir -p /sys/fs/cgroup/docker/$id
}
# inside DEED...: what a process of the container does
inside() {
    sh -c 'echo $$ >/sys/fs/cgroup/docker/$0/cgroup.procs; exec "$@"' $id "$build/tools/probe" "$@"
}
# expect ALARM DEED...: an alarm of that name, or with that text, is to come of a container made for it
expect() {
    alarm=$1; shift
    container
    inside "$@"
    check "--syscalls $source: $*" awaits "$alarm.*$id" /tmp/alarms
}
# expect_calls HOW ENTRY CALL...: each as a high-risk call
expect_calls() {
    how=$1 entry=$2; shift 2
    for call in "$@"; do
        name=$call; [ $call = umount ] && name=umount2 # the older one, of i386 alone
        expect "\"sys_call\":\"$name\"" $how $entry $call
    done
}
# agent ARGUMENT...: starts it
agent() {
    : >/tmp/log # here: what is in the background may come to it only after the first look for the new one's line
    "$build/bin/containerescape-agent" run --policy /tmp/policy --docker-socket none --alarms /tmp/alarms \
        --alarm-format envelope --syscalls $source --stats /tmp/stats "$@" 2>/tmp/log &
    agent=$!
    awaits 'agent: ready' /tmp/log
}
# policy CALL...: these are high-risk, and the directories of $watched are watched
watched=
policy() {
    list=$(printf ', "%s"' "$@")
    echo '{"content": {"image_white_namelist": [], "container_escape_detect_task":
        {"scope": "container", "highrisk_calls": ['"${list#, }"'], "host_directorys": ['"$watched"']}}}' >/tmp/policy
}
counter() { grep -oE "\"$1\": ?[0-9]+" /tmp/stats | grep -oE '[0-9]+$'; }
stop() {
    kill $agent
    check "--syscalls $source: clean stop" wait $agent
}
# storm CALLS: all are delivered or counted
storm() {
    policy getppid
    agent --buffer-kb 64
    container
    inside self storm $1 getppid
    stop
    sum=0
    for each in calls.delivered trace.lost_dropped trace.shed_kernel trace.shed calls.refused; do
        count=$(counter $each) || count=0 # as long as nothing was counted it is not there
        echo "$each $count"
        sum=$((sum + count))
    done
    check "--syscalls $source: $sum of $1 calls of a storm accounted for" [ $sum = $1 ]
}
calls="unshare setns mount umount2 chroot pivot_root keyctl capset prctl process_vm_readv ptrace init_module mknodat"
test_detection() {
    uname -r
    case $sources in *enter*) export CE_TESTS_MUST_RUN=1 ;; esac
    for test in $tests; do
        check "$test" "$build/tests/$test" --gtest_brief=1
    done
    for source in $sources; do
        : >/tmp/alarms
        policy $calls
        agent
        for how in self fork vfork thread daemon; do
            expect "Shocker attack" $how call getdents64,getdents64,open_by_handle_at
        done
        expect "Bruteforce syscall attack" self brute 301
        expect_calls fork call $calls
        case $source in
        auto) check "without BPF: the agent says so" grep -q 'warning: no BPF (' /tmp/log ;;
        function | enter)
            expect_calls fork call32 $calls umount
            [ $x32 = 0 ] || expect_calls fork callx32 $calls
            expect "Shocker attack" thread call32 readdir,open_by_handle_at
            check "--syscalls $source: what was executed is recorded" \
                awk '!/"argv":\[[^]]*probe/ || !/"exe":"[^"]*probe"/ { bad = 1 } END { exit bad || !NR }' /tmp/alarms
            policy mount
            kill -HUP $agent
            awaits 'policy.*watching 1 of 1' /tmp/log
            expect '"sys_call":"mount"' self call32 mount
            policy mount keyctl
            kill -HUP $agent
            awaits 'policy.*watching 2 of 2' /tmp/log
            expect '"sys_call":"keyctl"' self call keyctl
            ;;
        esac
        stop
        cat /tmp/log
        case $source in function | enter) storm 300000 ;; esac
    done
}
# Under -icount an instruction takes a nanosecond. least ARGUMENT...: of an operation of the load
least() { "$build/bench/load" "$@" | sort -n | head -1; }
count_instructions() {
    mkdir -p /tmp/watched/load /tmp/elsewhere/load
    watched='"/tmp/watched"'
    policy $calls
    for source in none $sources; do
        [ $source = none ] || { agent; sleep 1; }
        call=$(least call getuid 10000 50)
        write=$(least file write /tmp/elsewhere/load/file 2000 50)
        echo "instructions of a call that is not watched and of a write outside of the watched directory, $source:" \
            "$call, $write"
        case $source in
        none) none="$call $write" ;;
        function)
            # A watch anywhere on a filesystem has the kernel look for one at each write. An event takes thousands.
            check "--syscalls function: costs other calls nothing, and makes no event of other writes" \
                awk -v now="$call $write" -v none="$none" \
                'BEGIN { split(now, n); split(none, o); exit !(n[1] - o[1] < 1 && n[2] - o[2] < 300) }'
            ;;
        esac
        [ $source = none ] || stop
    done
}
test_lockdown() {
    mount -t securityfs none /sys/kernel/security
    policy $calls
    "$build/bin/containerescape-agent" check --policy /tmp/policy >/tmp/log
    status=$?
    cat /tmp/log
    check "lockdown is named" [ "$status $(grep -c '^error: finds the kernel locked down' /tmp/log)" = "2 1" ]
}
case $(cat /proc/cmdline) in
*cost*) count_instructions ;;
*lockdown*) test_lockdown ;;
*) test_detection ;;
esac
poweroff -f
INIT
chmod +x "$root/init"
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/initrd"

# boot NAME CPUS KERNEL_ARGUMENT QEMU_ARGUMENT...
# One thread emulates all CPUs: with one for each, the emulator (QEMU 7.2) goes on running the breakpoint by which a
# kernel changes its code, after the kernel has taken it away, and both CPUs hang in it, now and then, when an agent
# starts or stops. A kernel that hangs for two minutes ends with a trace of its CPUs.
boot() {
    local name=$1 cpus=$2 argument=$3; shift 3
    timeout --foreground 20m nice qemu-system-x86_64 -accel tcg,thread=single -cpu max -smp "$cpus" -m 2048 -nographic \
        -no-reboot -nic none -pidfile "$work/$name.pid" \
        -kernel "$work"/package/boot/vmlinuz-* -initrd "$work/initrd" \
        -append "console=ttyS0 quiet panic=-1 watchdog_thresh=60 softlockup_panic=1 softlockup_all_cpu_backtrace=1 $argument" \
        "$@" </dev/null | sed -u 's/\r//g' | tee "$work/$name.console"
}
boot detection 2 "" &
detection=$!
{ boot cost 1 cost -icount shift=0,sleep=off; boot lockdown 1 lockdown=confidentiality; } >"$work/others" || true
wait "$detection" || true
cat "$work/others"
cat "$work"/*.console >"$work/all"
expected=$((${#tests[@]} + 1))
for source in $sources; do
    expected=$((expected + 5 + 1 + 13 + 1 + 1)) # attacks and clean stops
    case $source in
    function) expected=$((expected + 1 + 14 + 13 * x32 + 6)) ;;
    enter) expected=$((expected + 14 + 13 * x32 + 6)) ;;
    auto) expected=$((expected + 1)) ;;
    esac
done
! grep -q '^other-kernel: .* failed$' "$work/all" && [ "$(grep -c '^other-kernel: .* passed$' "$work/all")" = $expected ]
