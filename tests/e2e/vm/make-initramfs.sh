#!/usr/bin/env bash
# make-initramfs.sh KERNEL_ROOT KVER OUTPUT
# A tiny initramfs: static busybox, some modules of the extracted kernel, and an /init
# that mounts the host's root read-only over virtio-9p, the run's share read-write, and hands over
# to the guest stage named in the share's run.env: a script as PID 1, or (QB_E2E_INIT=systemd) the
# host's own systemd over a writable overlay of the host's root.
set -euo pipefail
kroot=$1 kver=$2 output=$3

busybox=/usr/bin/busybox
file -L "$busybox" 2>/dev/null | grep -q 'statically linked' ||
  ldd "$busybox" 2>&1 | grep -q 'not a dynamic executable' ||
  { echo "make-initramfs: $busybox is not static (install busybox-static)" >&2; exit 1; }

tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
mkdir -p "$tree"/{bin,dev,proc,sys,newroot,modules}
cp "$busybox" "$tree/bin/busybox"
for applet in sh mount insmod mkdir switch_root cat cp rm echo poweroff sleep; do
  ln -s busybox "$tree/bin/$applet"
done

# Loaded from RAM at boot, in the order of the kernel's own dependency data: the transport to the
# host's root, then the Bluetooth stack with the socket crypto that the emulator opens. Loaded on
# demand over 9p instead, they arrive so late on a busy host that the kernel gives up waiting for the
# first emulated controller's answer to Reset.
for module in virtio_pci 9pnet_virtio 9p overlay bluetooth hci_vhci af_alg algif_hash algif_skcipher ecb cmac; do
  modprobe -d "$kroot" -S "$kver" --show-depends "$module" | awk '$1 == "insmod" { print $2 }'
done | awk '!seen[$0]++' | while read -r ko; do
  cp "$ko" "$tree/modules/"
  basename "$ko" >>"$tree/modules/order"
done

cat >"$tree/init" <<'EOF'
#!/bin/sh
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
for m in $(cat /modules/order); do insmod "/modules/$m" || echo "initramfs: insmod $m failed"; done
fail() { echo "initramfs: $*"; echo o >/proc/sysrq-trigger; sleep 5; poweroff -f; }
mount -t 9p -o trans=virtio,version=9p2000.L,ro,msize=512000,cache=loose hostroot /newroot ||
  fail "cannot mount the host root"
mkdir -p /share
mount -t 9p -o trans=virtio,version=9p2000.L,msize=512000 share /share || fail "cannot mount the run's share"
[ -r /share/run.env ] || fail "no run.env in the share"
. /share/run.env
# The guest writes where it likes, into RAM over the host's read-only root; the host's /tmp stays
# visible, with any tree cloned there
mkdir -p /host /rw
mount --move /newroot /host
mount -t tmpfs -o mode=755 tmpfs /rw
mkdir -p /rw/upper /rw/work
mount -t overlay -o lowerdir=/host,upperdir=/rw/upper,workdir=/rw/work overlay /newroot ||
  fail "cannot mount the overlay of the host root"
mkdir -p /newroot/tmp/qb-e2e
if [ "${QB_E2E_INIT:-}" = systemd ]; then
  mkdir -p /newroot/etc/systemd/system /newroot/etc/tmpfiles.d
  # the boot's clean-up of /tmp would hide the host's /tmp
  : >/newroot/etc/tmpfiles.d/tmp.conf
  [ -d "/newroot$QB_E2E_UNITS_DIR" ] ||
    fail "the test's units ($QB_E2E_UNITS_DIR) are not visible in the host's root as the guest sees it"
  cp "/newroot$QB_E2E_UNITS_DIR"/* /newroot/etc/systemd/system/ || fail "cannot add the test's units"
  # what makes the host a container image is not part of a unit: systemd would take the marker for a
  # container, and dpkg's policy-rc.d would keep packages from starting their services
  rm -f /newroot/.dockerenv /newroot/usr/sbin/policy-rc.d
else
  # the host's run-time state means nothing here
  mount -t tmpfs -o mode=755 tmpfs /newroot/run
  [ -r "/newroot$QB_E2E_GUEST_DIR/stage2.sh" ] ||
    fail "the guest stage ($QB_E2E_GUEST_DIR/stage2.sh) is not visible in the host's root as the guest sees it"
fi
mount --move /share /newroot/tmp/qb-e2e
mount --move /dev /newroot/dev
mount --move /proc /newroot/proc
mount --move /sys /newroot/sys
if [ "${QB_E2E_INIT:-}" = systemd ]; then
  exec switch_root /newroot /lib/systemd/systemd
fi
exec switch_root /newroot /bin/bash "$QB_E2E_GUEST_DIR/stage2.sh"
EOF
chmod +x "$tree/init"
(cd "$tree" && find . | cpio -o -H newc --quiet | gzip -1) >"$output.tmp"
mv "$output.tmp" "$output"
