#!/bin/bash
# PID 1 of the guest, started by the initramfs from the host's read-only root. Prepares the little
# that a full init would, runs the scenarios (or a shell), and powers the VM off.
share=/tmp/qb-e2e
set -a; . "$share/run.env"; set +a
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export HOME=/root LANG=C.UTF-8
mkdir -p /dev/pts /dev/shm
mount -t devpts devpts /dev/pts 2>/dev/null
mount -t tmpfs tmpfs /dev/shm 2>/dev/null
ip link set lo up 2>/dev/null

# modules come from the extracted kernel, which the host does not have under /lib/modules
cat >/run/modprobe <<EOF
#!/bin/sh
exec /sbin/modprobe -d "$QB_E2E_KERNEL_ROOT" "\$@"
EOF
chmod +x /run/modprobe
echo /run/modprobe >/proc/sys/kernel/modprobe

echo "stage2: up at $(cut -d' ' -f1 /proc/uptime)s, kernel $(uname -r)"
if [ "${QB_E2E_SHELL:-0}" = 1 ]; then
  setsid -c bash --rcfile "$QB_E2E_GUEST_DIR/shellrc.sh" -i </dev/ttyS0 >/dev/ttyS0 2>&1
else
  bash "$QB_E2E_GUEST_DIR/scenarios.sh" >"$share/scenarios.log" 2>&1
  echo "stage2: scenarios exit status $?"
fi
sync
echo "stage2: powering off at $(cut -d' ' -f1 /proc/uptime)s"
echo o >/proc/sysrq-trigger
sleep 10 2>/dev/null
