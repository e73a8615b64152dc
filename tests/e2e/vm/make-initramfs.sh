#!/usr/bin/env bash
# make-initramfs.sh KERNEL_ROOT KVER OUTPUT
# A tiny initramfs: static busybox, some modules of the extracted kernel, and an /init
# that mounts the host's root read-only over virtio-9p, the run's share read-write, and hands over
# to the guest stage named in the share's run.env.
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
for applet in sh mount insmod mkdir switch_root cat echo poweroff sleep; do
  ln -s busybox "$tree/bin/$applet"
done

# Loaded from RAM at boot, in the order of the kernel's own dependency data: the transport to the
# host's root, then the Bluetooth stack with the socket crypto that the emulator opens. Loaded on
# demand over 9p instead, they arrive so late on a busy host that the kernel gives up waiting for the
# first emulated controller's answer to Reset.
for module in virtio_pci 9pnet_virtio 9p bluetooth hci_vhci af_alg algif_hash algif_skcipher ecb cmac; do
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
# everything the guest writes lands on tmpfs or on the run's share, never on the host
mount -t tmpfs -o mode=1777 tmpfs /newroot/tmp
mount -t tmpfs -o mode=755 tmpfs /newroot/run
mount -t tmpfs -o mode=1777 tmpfs /newroot/var/tmp
mount -t tmpfs -o mode=700 tmpfs /newroot/var/lib/bluetooth
mkdir -p /newroot/tmp/qb-e2e
mount -t 9p -o trans=virtio,version=9p2000.L,msize=512000 share /newroot/tmp/qb-e2e ||
  fail "cannot mount the run's share"
[ -r /newroot/tmp/qb-e2e/run.env ] || fail "no run.env in the share"
. /newroot/tmp/qb-e2e/run.env
mount --move /dev /newroot/dev
mount --move /proc /newroot/proc
mount --move /sys /newroot/sys
exec switch_root /newroot /bin/bash "$QB_E2E_GUEST_DIR/stage2.sh"
EOF
chmod +x "$tree/init"
(cd "$tree" && find . | cpio -o -H newc --quiet | gzip -1) >"$output.tmp"
mv "$output.tmp" "$output"
