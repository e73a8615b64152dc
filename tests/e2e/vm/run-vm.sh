#!/usr/bin/env bash
# End-to-end tier: boots Debian's own kernel in qemu with the host's root shared read-only over
# virtio-9p, and runs inside it the real Bluetooth stack (bluetooth + hci_vhci modules, dbus-daemon,
# three btvirt controllers hci0-hci2, bluetoothd) with the scenarios of tests/e2e/guest/scenarios.sh.
# Binaries built on the host run in the guest unchanged.
#
#   run-vm.sh --build-dir DIR [--install-deps SCRIPT] [--driver NAME=PATH ...]
#             [--systemd UNITS_DIR] [--env NAME=VALUE ...] [--out NAME]
#
# --systemd boots the host's own systemd as PID 1 instead, over a writable overlay of the host's root,
# with the units of UNITS_DIR added and qb-e2e.target as the boot target; what runs then is up to
# those units. --env adds settings to the guest's run.env; --out names the run's folder in DIR
# (default e2e-out; failures are kept in DIR/NAME-failed).
#
# Exit status: 0 all scenarios passed, 1 a scenario failed, 77 this machine cannot run the tier.
# A run whose guest kernel crashed (a BUG or an oops in its log: the emulated controllers' driver, not
# the code under test) boots once more; its logs are kept like a failure's.
# Environment:
#   QB_E2E_CACHE      where the extracted kernel and the initramfs are kept (default DIR/e2e-cache)
#   QB_E2E_SCENARIOS  scenarios to run, comma separated (default: all of them)
#   QB_E2E_TIMEOUT    seconds before the VM is killed (default 220)
#   QB_E2E_SHELL=1    bring the stack up, then an interactive shell on the console instead
#   QB_E2E_QEMU       the qemu binary (default qemu-system-x86_64)
#   QB_E2E_SCRIPT     a guest script (absolute host path) to source after the stack is up, instead
#                     of the scenarios: for investigations; it may call step, peer, took
set -uo pipefail

SKIP=77
here=$(cd "$(dirname "$0")" && pwd)
args=("$@")
e2e_dir=$(dirname "$here")
build_dir=
install_deps=
drivers=()
units_dir=
extra_env=()
out_name=e2e-out
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build_dir=$2; shift 2 ;;
    --install-deps) install_deps=$2; shift 2 ;;
    --driver) drivers+=("$2"); shift 2 ;;
    --systemd) units_dir=$(cd "$2" && pwd) || exit 2; shift 2 ;;
    --env) extra_env+=("$2"); shift 2 ;;
    --out) out_name=$2; shift 2 ;;
    *) echo "usage: $0 --build-dir DIR [--install-deps SCRIPT] [--driver NAME=PATH ...]" \
         "[--systemd UNITS_DIR] [--env NAME=VALUE ...] [--out NAME]" >&2; exit 2 ;;
  esac
done
[ -n "$build_dir" ] || { echo "run-vm: --build-dir is required" >&2; exit 2; }

t_start=$(date +%s.%N)
elapsed() { awk -v a="$t_start" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }'; }
say() { echo "e2e [$(elapsed)s] $*"; }
skip() { echo "e2e: SKIPPED: $*"; exit $SKIP; }

cache=${QB_E2E_CACHE:-$build_dir/e2e-cache}
out=$build_dir/$out_name
mkdir -p "$cache"

# ---- what the host needs ---------------------------------------------------------------------------
if [ -n "$install_deps" ] && [ -x "$install_deps" ]; then
  "$install_deps" --e2e >"$cache/install-deps.log" 2>&1 ||
    say "install-deps --e2e failed (log: $cache/install-deps.log); checking what is there"
fi
qemu_bin=${QB_E2E_QEMU:-qemu-system-x86_64}
command -v "$qemu_bin" >/dev/null ||
  skip "$qemu_bin is not installed and could not be installed (package qemu-system-x86)"
for tool in btvirt btmon bluetoothd hcitool hciconfig dbus-daemon cpio modprobe depmod; do
  [ -n "$(PATH=$PATH:/usr/sbin:/sbin:/usr/libexec/bluetooth command -v "$tool")" ] ||
    skip "$tool is not installed (scripts/install-deps --e2e installs it)"
done
/usr/bin/python3 -c 'import dbus, dbus.service, gi.repository.GLib' 2>/dev/null ||
  skip "/usr/bin/python3 lacks dbus or gi (python3-dbus, python3-gi)"

# ---- kernel: Debian's linux-image-amd64, extracted, never installed ----------------------------------
kroot=$cache/kernel
if [ ! -f "$kroot/.complete" ]; then
  say "extracting Debian's kernel into $kroot (once per cache)"
  kpkg=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-/ { print $2; exit }')
  [ -n "$kpkg" ] || skip "apt does not know linux-image-amd64 (run apt-get update)"
  tmp=$(mktemp -d "$cache/download.XXXXXX")
  if ! (cd "$tmp" && apt-get download "$kpkg" >"$cache/kernel-download.log" 2>&1); then
    rm -rf "$tmp"
    skip "cannot download $kpkg (log: $cache/kernel-download.log)"
  fi
  rm -rf "$kroot" "$kroot.partial"
  dpkg -x "$tmp"/"$kpkg"_*.deb "$kroot.partial" && rm -rf "$tmp" || { rm -rf "$tmp"; exit 1; }
  kver=$(ls "$kroot.partial/lib/modules" | head -n 1)
  depmod -b "$kroot.partial" "$kver" || exit 1
  mv "$kroot.partial" "$kroot" && touch "$kroot/.complete"
fi
kver=$(ls "$kroot/lib/modules" | head -n 1)
vmlinuz=$kroot/boot/vmlinuz-$kver
[ -f "$vmlinuz" ] || { echo "run-vm: no $vmlinuz; remove $kroot to extract again" >&2; exit 1; }

# the initramfs depends on the kernel and on its generator only
stamp=$(cat "$here/make-initramfs.sh" | sha1sum | cut -c1-12)
initramfs=$cache/initramfs-$kver-$stamp.cpio.gz
if [ ! -f "$initramfs" ]; then
  rm -f "$cache"/initramfs-*.cpio.gz
  "$here/make-initramfs.sh" "$kroot" "$kver" "$initramfs" || exit 1
fi

# ---- the run's share: settings in, logs and verdict out ----------------------------------------------
rm -rf "$out"
mkdir -p "$out"
{
  echo "QB_E2E_GUEST_DIR=$e2e_dir/guest"
  echo "QB_E2E_PEERS_DIR=$e2e_dir/peers"
  echo "QB_E2E_KERNEL_ROOT=$kroot"
  echo "QB_E2E_SCENARIOS=${QB_E2E_SCENARIOS:-all}"
  echo "QB_E2E_SHELL=${QB_E2E_SHELL:-0}"
  echo "QB_E2E_SCRIPT=${QB_E2E_SCRIPT:-}"
  if [ -n "$units_dir" ]; then
    echo "QB_E2E_INIT=systemd"
    echo "QB_E2E_UNITS_DIR=$units_dir"
  fi
  for e in "${extra_env[@]}"; do echo "$e"; done
  for d in "${drivers[@]}"; do
    name=${d%%=*} path=${d#*=}
    [ -x "$path" ] || { echo "run-vm: driver $name not found at $path" >&2; exit 1; }
    echo "QB_E2E_DRIVER_$name=$path"
  done
} >"$out/run.env"

timeout_s=${QB_E2E_TIMEOUT:-220}
append="console=ttyS0 panic=-1 quiet loglevel=3"
if [ -n "$units_dir" ]; then
  # no fstab (the host's describes another machine), no first-boot questions, the test's own target
  append="$append fstab=no systemd.firstboot=off systemd.unit=qb-e2e.target systemd.show_status=error"
fi
# TCG on purpose: a host whose /dev/kvm is a paravirtualised one cannot boot a stock kernel with it
qemu=("$qemu_bin" -machine pc -accel tcg,thread=multi -cpu max -m 1024 -smp 2
  -nodefaults -no-user-config -display none -no-reboot
  -kernel "$vmlinuz" -initrd "$initramfs"
  -append "$append"
  -fsdev local,id=hostroot,path=/,security_model=none,readonly=on,multidevs=remap
  -device virtio-9p-pci,fsdev=hostroot,mount_tag=hostroot
  -fsdev "local,id=share,path=$out,security_model=none,multidevs=remap"
  -device virtio-9p-pci,fsdev=share,mount_tag=share)

say "booting kernel $kver (TCG)"
if [ "${QB_E2E_SHELL:-0}" = 1 ]; then
  exec "${qemu[@]}" -serial mon:stdio
fi
t_boot=$(date +%s.%N)
timeout --kill-after=5 "$timeout_s" "${qemu[@]}" -serial "file:$out/console.log" </dev/null
qemu_rc=$?
vm_s=$(awk -v a="$t_boot" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }')
[ "$qemu_rc" = 124 ] && say "VM killed after ${timeout_s}s"

grep -h '^stage2: up at' "$out/console.log" 2>/dev/null | sed 's/^/e2e boot: /'
echo "---- steps (guest uptime) ----"
cat "$out/steps.txt" 2>/dev/null || echo "(no steps recorded)"
result=$(cat "$out/result" 2>/dev/null || echo "NO-RESULT")
say "VM ran ${vm_s}s, qemu exit $qemu_rc, result $result"
if [ "$result" = NO-RESULT ]; then
  # what kept the guest from starting, in the initramfs's own words
  grep -h '^initramfs: ' "$out/console.log" 2>/dev/null | sed 's/^/e2e: the guest could not start: /'
fi
if [ "$result" = PASS ]; then
  exit 0
fi

# keep this run's logs: the next run starts by wiping $out (and keep only the last few failures)
kept=$build_dir/${out_name%-out}-failed/$(date +%Y%m%d-%H%M%S)
mkdir -p "$kept" && cp -a "$out"/. "$kept"/
ls -1d "$build_dir"/${out_name%-out}-failed/*/ 2>/dev/null | head -n -5 | xargs -r rm -rf
echo "---- console (tail) ----"
tail -n 40 "$out/console.log" 2>/dev/null
if [ -z "${QB_E2E_RETRIED:-}" ] &&
   grep -qE 'kernel BUG at|Oops:|general protection fault' "$out/dmesg.txt" "$out/console.log" 2>/dev/null; then
  grep -hE -m1 'kernel BUG at|Oops:|general protection fault|corruption' "$out/dmesg.txt" 2>/dev/null |
    sed 's/^/e2e: guest kernel crashed: /'
  echo "e2e: the guest kernel crashed (logs kept in $kept); booting once more"
  QB_E2E_RETRIED=1 exec "$0" "${args[@]}"
fi
echo "e2e: FAILED; logs (btmon trace, bluetoothd log, driver and peer logs) kept in $kept"
exit 1
