#!/usr/bin/env bash
# check-package.sh DEB ARCH: what a unit needs is in the package, and it is built for ARCH.
set -uo pipefail
deb=$1 arch=$2
problems=()
[ -f "$deb" ] || { echo "check-package: no $deb" >&2; exit 1; }

listing=$(dpkg -c "$deb" | awk '{ print $6 }')
for path in ./usr/sbin/quorbel-bluetoothd ./lib/systemd/system/quorbel-bluetoothd.service \
            ./usr/share/dbus-1/interfaces/com.quorbel.common.Bluetooth1.xml \
            ./usr/share/man/man8/quorbel-bluetoothd.8.gz; do
  grep -qxF "$path" <<<"$listing" || problems+=("$path is not in the package")
done

[ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || problems+=("Architecture is $(dpkg-deb -f "$deb" Architecture)")
depends=$(dpkg-deb -f "$deb" Depends)
for dep in libsystemd0 libsigc++-2.0-0v5 bluez dbus dbus-user-session libpam-systemd; do
  grep -qE "(^|, )$(sed 's/[+.]/\\&/g' <<<"$dep")( |,|$)" <<<"$depends" || problems+=("Depends lacks $dep: $depends")
done

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
dpkg-deb -e "$deb" "$tmp/control"
enables=no starts=no
# without enabling, debhelper still re-enables a unit that the admin had enabled, behind "debian-installed"
grep -q "deb-systemd-helper enable 'quorbel-bluetoothd.service'" "$tmp/control/postinst" 2>/dev/null &&
  ! grep -q "deb-systemd-helper debian-installed 'quorbel-bluetoothd.service'" "$tmp/control/postinst" &&
  enables=yes
grep -qF 'deb-systemd-invoke $_dh_action '"'"'quorbel-bluetoothd.service'"'" "$tmp/control/postinst" 2>/dev/null &&
  starts=yes
# the unit's package runs the daemon as installed; a development host's only installs it
if [ "$arch" = armhf ]; then
  [ "$enables" = yes ] || problems+=("the postinst does not enable the unit")
  [ "$starts" = yes ] || problems+=("the postinst does not start the unit")
else
  [ "$enables" = no ] || problems+=("the postinst enables the unit on a development host")
  [ "$starts" = no ] || problems+=("the postinst starts the unit on a development host")
fi
grep -q "loginctl enable-linger root" "$tmp/control/postinst" 2>/dev/null ||
  problems+=("the postinst does not let root linger")
grep -q "loginctl disable-linger root" "$tmp/control/postrm" 2>/dev/null ||
  problems+=("the postrm does not undo root's lingering")

dpkg-deb -x "$deb" "$tmp/root"
binary=$tmp/root/usr/sbin/quorbel-bluetoothd
kind=$(file -b "$binary")
echo "check-package: $arch binary: $kind"
case "$arch" in
  armhf)
    [[ "$kind" == "ELF 32-bit LSB "*"executable, ARM, EABI5"* ]] || problems+=("not an ARM EABI5 executable: $kind")
    [[ "$kind" == *"interpreter /lib/ld-linux-armhf.so.3"* ]] || problems+=("not the hard-float loader: $kind")
    readelf -A "$binary" | grep -q 'Tag_ABI_VFP_args: VFP registers' ||
      problems+=("arguments are not passed in VFP registers (not hard-float)")
    ;;
  amd64)
    [[ "$kind" == "ELF 64-bit LSB "*"x86-64"* ]] || problems+=("not an x86-64 executable: $kind")
    ;;
esac

if [ "${#problems[@]}" -gt 0 ]; then
  printf 'check-package: %s\n' "${problems[@]}"
  exit 1
fi
echo "check-package: $(basename "$deb") has the daemon, the unit, the D-Bus description and the manual;" \
  "Depends: $depends"
