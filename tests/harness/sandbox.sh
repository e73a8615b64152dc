#!/bin/bash
# Runs a command in a private mount namespace of the hermetic unit:
#   /usr/bin/hcitool, /usr/bin/hciconfig -> the recording stubs in $W/stubs
#   /sys/class/bluetooth                 -> $W/sys_bluetooth (create or remove hci0 there from outside)
# Usage: sandbox.sh WORKDIR CMD [ARGS...]   (root, or where unshare -rm maps root)
set -euo pipefail
W=$1; shift
if [ -z "${QB_SANDBOX_INNER:-}" ]; then
  export QB_SANDBOX_INNER=1
  if [ "$(id -u)" = 0 ]; then
    exec unshare -m --propagation private "$0" "$W" "$@"
  fi
  exec unshare -rm --propagation private "$0" "$W" "$@"
fi
unset QB_SANDBOX_INNER
for tool in hcitool hciconfig; do
  [ -e "/usr/bin/$tool" ] || { echo "sandbox: /usr/bin/$tool missing (install bluez)" >&2; exit 97; }
  mount --bind "$W/stubs/$tool" "/usr/bin/$tool"
done
if [ ! -d /sys/class/bluetooth ]; then
  # sysfs refuses mkdir: lay a read-only overlay holding an empty bluetooth/ over /sys/class ...
  mkdir -p "$W/sysclass_lower/bluetooth"
  if ! mount -t overlay overlay -o "lowerdir=$W/sysclass_lower:/sys/class" /sys/class 2>/dev/null; then
    # ... or, where overlayfs refuses sysfs, a tmpfs with the real entries bound back
    mkdir -p "$W/sysclass_orig"
    mount --bind /sys/class "$W/sysclass_orig"
    mount -t tmpfs -o mode=755 tmpfs /sys/class
    for d in "$W/sysclass_orig"/*; do
      n=${d##*/}; mkdir "/sys/class/$n"; mount --bind "$d" "/sys/class/$n"
    done
    mkdir -p /sys/class/bluetooth
  fi
fi
mount --bind "$W/sys_bluetooth" /sys/class/bluetooth
exec "$@"
