#!/usr/bin/env bash
# The armhf packages on an armhf Debian 12 system: boots the image of scripts/device-image.sh under
# qemu-system-arm (machine virt, its own systemd and system bus) on a throwaway overlay, and runs there
# every DEP-8 test of debian/tests/control on dist/kepclient and dist/kep-sim of the changelog's version
# for armhf (built first with scripts/package.sh armhf when missing), through autopkgtest and its ssh
# server. KEP_EMULATED=1 is set for the tests: the case tables skip their fast-clock rows, as under
# qemu-user. Prints each test's result and the counts of rows its tables printed, and exits 0 only
# when every test passed.
#   scripts/device-test.sh
# The run's logs stay in build-device/: autopkgtest's, its output directory, the serial console.
# Nothing outlives the run: the virtual machine, autopkgtest and the overlay go at its end, whatever
# ends it. Needs root, or sudo, for making the image.
set -euo pipefail
cd "$(dirname "$0")/.."

# Time limits, in seconds: the boot until ssh takes connections, the tests, the whole virtual machine.
boot_limit=300
tests_limit=900
vm_limit=$((boot_limit + tests_limit + 60))
# The virtual machine: a Cortex-A15, which has the LPAE that the armmp-lpae kernel needs, as many
# processors as this machine has, memory in MiB.
guest_cpu=cortex-a15
guest_memory=2048
kernel_arguments="root=/dev/vda rootfstype=ext4 rw console=ttyAMA0 systemd.firstboot=off"
# What the image's unit writes on the serial console once ssh takes connections.
ready_line="kep-device: ready"
logs=build-device

scripts/install-deps.sh qemu-system-arm qemu-user-static qemu-utils ipxe-qemu mmdebstrap arch-test \
    autopkgtest openssh-client e2fsprogs

work=$(mktemp -d)
# What the run started and has yet to stop, the virtual machine last; the traps stop them all. The
# package build and the making of the image are process groups of their own, stopped whole.
preparing=""
watcher=""
waiting=""
testing=""
vm=""
# shellcheck disable=SC2317 # called by the traps
finish() {
    local started_job
    if [ -n "$preparing" ]; then
        kill -- -"$preparing" 2>/dev/null || true
        wait "$preparing" 2>/dev/null || true
    fi
    for started_job in $waiting $watcher $testing $vm; do
        kill "$started_job" 2>/dev/null || true
        wait "$started_job" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP
# prepare COMMAND...: runs COMMAND in a process group of its own, its output in $work/prepared.
prepare() {
    setsid "$@" >"$work/prepared" &
    preparing=$!
    wait "$preparing"
    preparing=""
}

version=$(dpkg-parsechangelog -S Version)
debs=(dist/kepclient_"$version"_armhf.deb dist/kep-sim_"$version"_armhf.deb)
if [ ! -e "${debs[0]}" ] || [ ! -e "${debs[1]}" ]; then
    echo "device-test: building the armhf packages" >&2
    prepare scripts/package.sh armhf
fi
prepare scripts/device-image.sh "${debs[@]}"
image=$(cat "$work/prepared")

rm -rf "$logs"
mkdir -p "$logs"
console=$logs/console.log
: >"$console"

# The tests' tree autopkgtest copies to the testbed: the files git tracks, as the work tree has them,
# as the tree of a build (debian/files lists its packages), so that it is taken as it is, not prepared
# for a build with dpkg-dev's tools, which the testbed does not have.
mkdir "$work/source"
git ls-files -z | tar --null -T - -cf - | tar -xf - -C "$work/source"
for deb in "${debs[@]}"; do
    echo "$(basename "$deb") $(dpkg-deb --field "$deb" Section) $(dpkg-deb --field "$deb" Priority)"
done >"$work/source/debian/files"
qemu-img create -q -f qcow2 -b "$image/root.qcow2" -F qcow2 "$work/overlay.qcow2"
install -m 600 "$image/id_ed25519" "$work/id_ed25519"
# A free port of this machine's loopback for the guest's ssh.
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

# Each wait below is a job of its own, waited for with the shell's wait, which a signal interrupts.
started=$SECONDS
timeout "$vm_limit" qemu-system-arm -machine virt -cpu "$guest_cpu" -smp "$(nproc)" -m "$guest_memory" \
    -nodefaults -display none -no-reboot \
    -kernel "$image/vmlinuz" -initrd "$image/initrd.img" -append "$kernel_arguments" \
    -drive file="$work/overlay.qcow2",format=qcow2,if=none,id=root -device virtio-blk-device,drive=root \
    -netdev user,id=net,restrict=on,hostfwd=tcp:127.0.0.1:"$port"-:22 -device virtio-net-device,netdev=net \
    -device virtio-rng-device \
    -chardev file,id=console,path="$console" -serial chardev:console \
    >"$logs/qemu.log" 2>&1 &
vm=$!

# The guest's line on the serial console, read as the console is written (the guest's terminal ends
# its lines with a carriage return); given up when the virtual machine ends or after the boot's limit.
mkfifo "$work/console"
tail -n +1 -F --pid="$vm" "$console" >"$work/console" 2>/dev/null &
watcher=$!
timeout "$boot_limit" grep -q -m 1 -F "$ready_line" <"$work/console" &
waiting=$!
booted=0
wait "$waiting" || booted=$?
waiting=""
kill "$watcher" 2>/dev/null || true
wait "$watcher" 2>/dev/null || true
watcher=""
if [ "$booted" -ne 0 ]; then
    tail -n 30 "$console" "$logs/qemu.log" >&2
    echo "device-test: the guest did not take ssh connections within $boot_limit s" \
        "(the console's last lines above)" >&2
    exit 1
fi
boot_seconds=$((SECONDS - started))
echo "device-test: booted in $boot_seconds s; running debian/tests/control's tests" >&2

started=$SECONDS
timeout "$tests_limit" autopkgtest --env=KEP_EMULATED=1 --output-dir "$logs/autopkgtest" \
    "$work/source" "${debs[@]}" -- \
    ssh --hostname 127.0.0.1 --port "$port" --login root --identity "$work/id_ed25519" \
    --capability isolation-machine >"$logs/autopkgtest.log" 2>&1 &
testing=$!
status=0
wait "$testing" || status=$?
testing=""
tests_seconds=$((SECONDS - started))

# The tally: each test's result, and the counts its case tables printed.
summary=$logs/autopkgtest/summary
passed=0
total=0
if [ -e "$summary" ]; then
    while read -r test result _; do
        total=$((total + 1))
        [ "$result" != PASS ] || passed=$((passed + 1))
        # A test that runs no case table (systembus) prints no counts.
        counts=""
        if [ -e "$logs/autopkgtest/$test-stdout" ]; then
            counts=$(sed -n -E '/^[0-9]+ passed, [0-9]+ failed, [0-9]+ skipped$/p' \
                "$logs/autopkgtest/$test-stdout" | paste -sd ';' - | sed 's/;/; /g')
        fi
        printf 'device-test: %-12s %s%s\n' "$test" "$result" "${counts:+  $counts}"
    done <"$summary"
fi
echo "device-test: $passed of $total tests passed (boot $boot_seconds s, tests $tests_seconds s)"
if [ "$status" -ne 0 ] || [ "$total" -eq 0 ] || [ "$passed" -ne "$total" ]; then
    tail -n 30 "$logs/autopkgtest.log" >&2
    echo "device-test: FAIL (autopkgtest's exit status $status; its log's last lines above," \
        "all of it in $logs/)" >&2
    exit 1
fi
