#!/usr/bin/env bash
# End to end through a real USB stack: a small Linux guest under QEMU sees two
# emulated FTDI chips (QEMU's usb-serial device on an xHCI controller) whose
# serial sides are Unix sockets served on the host by kavrel-sim, one CM2 and
# one NIR instrument. In the guest, usb_check drives them through
# libkavrel_direct.so, which has no vendor driver there and so reaches them
# through libftdi1 and libusb. Its report must equal the one the same program
# prints on the host against the simulated instruments directly. Last, the
# NIR instrument's bridge is unplugged while open, and its calls must fail.
#
# Usage: tests/qemu/run.sh BUILD_DIR   (a build with kavrel_usb_check,
# kavrel_usb_check_sim and kavrel-sim built). Skips, saying why, only where
# QEMU, a kernel or busybox cannot be had.
set -euo pipefail
build=$(cd "${1:?usage: tests/qemu/run.sh BUILD_DIR}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$build/qemu
mkdir -p "$work"

skip() {
  echo "qemu end-to-end: SKIPPED: $*"
  exit 0
}
fail() {
  echo "qemu end-to-end: FAILED: $*"
  exit 1
}

# --- What the guest is made of ---------------------------------------------
packages=(qemu-system-x86 linux-image-amd64 busybox-static)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo -n"
  if command -v apt-get >/dev/null; then
    echo "installing: ${missing[*]}"
    { $sudo apt-get update -q && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q \
        --no-install-recommends "${missing[@]}"; } >"$work/apt.log" 2>&1 ||
      skip "could not install ${missing[*]} (see $work/apt.log)"
  fi
fi
command -v qemu-system-x86_64 >/dev/null || skip "qemu-system-x86_64 is not installed"
[ -x /bin/busybox ] || skip "busybox is not installed"
kernel=$(ls /boot/vmlinuz-* 2>/dev/null | sort -V | tail -n 1)
[ -n "$kernel" ] || skip "no kernel in /boot"
version=${kernel#/boot/vmlinuz-}
modules=/lib/modules/$version
[ -d "$modules" ] || skip "no modules for kernel $version"

check=$build/tests/kavrel_usb_check
check_sim=$build/tests/kavrel_usb_check_sim
sim=${KAVREL_SIM:-$build/sim/server/kavrel-sim}
for f in "$check" "$check_sim" "$sim"; do [ -x "$f" ] || fail "$f is not built"; done

# QEMU boots an uncompressed ELF kernel directly, seconds faster than the
# bzImage; extract it once per kernel version.
vmlinux=$work/vmlinux-$version
if [ ! -s "$vmlinux" ]; then
  /usr/bin/python3 "$here/extract_vmlinux.py" "$kernel" "$vmlinux.part"
  mv "$vmlinux.part" "$vmlinux"
fi

# The initramfs: busybox, the USB modules, the check program and every
# shared library it loads, libftdi1 and libusb included (loaded at run time,
# so ldd of the program does not name them).
root=$work/root
rm -rf "$root"
mkdir -p "$root"/{bin,dev,proc,sys,modules,opt/kavrel}
cp /bin/busybox "$root/bin/"
for applet in sh mount insmod cat grep sleep poweroff echo; do ln -s busybox "$root/bin/$applet"; done
for module in usb-common usbcore xhci-hcd xhci-pci; do
  file=$(find "$modules" -name "$module.ko*" | head -n 1)
  [ -n "$file" ] || fail "module $module not found under $modules"
  case $file in
    *.xz) xz -dc "$file" >"$root/modules/$module.ko" ;;
    *.zst) zstd -qdc "$file" >"$root/modules/$module.ko" ;;
    *) cp "$file" "$root/modules/$module.ko" ;;
  esac
done
cp "$here/init.sh" "$root/init"
cp "$check" "$root/opt/kavrel/"
library_path() { /sbin/ldconfig -p | awk -v name="$1" '$1 == name && /x86-64/ { print $NF; exit }'; }
libkavrel=$(ldd "$check" | awk '/libkavrel_direct/ { print $3 }')
libftdi=$(library_path libftdi1.so.2)
libusb=$(library_path libusb-1.0.so.0)
[ -n "$libftdi" ] && [ -n "$libusb" ] || fail "libftdi1.so.2 or libusb-1.0.so.0 not installed"
cp -L "$libkavrel" "$root/opt/kavrel/"
for object in "$check" "$libkavrel" "$libftdi" "$libusb"; do
  echo "$object"
  ldd "$object" | awk '/=> \// { print $3 } /^\t\// { print $1 }'
done | sort -u | grep -v libkavrel_direct | while read -r library; do
  mkdir -p "$root$(dirname "$library")"
  cp -L "$library" "$root$library"
done
echo 2 >"$root/bridges"
(cd "$root" && find . | busybox cpio -o -H newc 2>/dev/null) >"$work/initramfs.cpio"

# --- The instruments --------------------------------------------------------
# A socket's path must fit in 108 bytes, which a deep build folder may not.
sockets=$(mktemp -d /tmp/kavrel-qemu.XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$sockets"
}
trap cleanup EXIT
"$sim" --protocol cm2 --unix "$sockets/cm2" >"$work/sim-cm2.log" 2>&1 &
pids+=($!)
"$sim" --protocol nir --unix "$sockets/nir" >"$work/sim-nir.log" 2>&1 &
pids+=($!)
for _ in $(seq 50); do
  [ -S "$sockets/cm2" ] && [ -S "$sockets/nir" ] && break
  sleep 0.1
done
[ -S "$sockets/cm2" ] && [ -S "$sockets/nir" ] || fail "kavrel-sim did not open its sockets"

# --- The guest --------------------------------------------------------------
started=$SECONDS
timeout "${KAVREL_QEMU_TIMEOUT:-180}" qemu-system-x86_64 -accel tcg -cpu max -m 512 -nodefaults -no-user-config \
  -display none -no-reboot -serial stdio -monitor unix:"$sockets/monitor",server=on,wait=off \
  -kernel "$vmlinux" -initrd "$work/initramfs.cpio" -append "console=ttyS0 panic=-1 quiet" \
  -device qemu-xhci,id=xhci \
  -chardev socket,id=cm2,path="$sockets/cm2" -device usb-serial,bus=xhci.0,chardev=cm2,serial=KSIM0001 \
  -chardev socket,id=nir,path="$sockets/nir" -device usb-serial,bus=xhci.0,chardev=nir,serial=KSIM0002,id=nirchip \
  </dev/null >"$work/console.log" 2>&1 &
qemu=$!
pids+=($qemu)
# When the guest has the NIR instrument open and in use, pull its bridge out.
while kill -0 $qemu 2>/dev/null && ! grep -q "guest: unplug" "$work/console.log"; do sleep 0.2; done
# The monitor drops a command whose connection closes before it has run.
/usr/bin/python3 -c 'import socket, sys, time
s = socket.socket(socket.AF_UNIX)
s.connect(sys.argv[1])
s.sendall(b"device_del nirchip\n")
time.sleep(1)' "$sockets/monitor" || true
wait $qemu || true
echo "qemu end-to-end: guest ran $((SECONDS - started)) s"
grep -q "guest: check exited with 0" "$work/console.log" ||
  { tail -n 40 "$work/console.log"; fail "the guest did not complete its check"; }
grep -q "unplugged: KSIM0002 gives -4" "$work/console.log" ||
  fail "after its bridge was unplugged the NIR instrument did not fail with -4: $(grep unplugged: "$work/console.log")"

# --- The verdict ------------------------------------------------------------
grep '^report:' "$work/console.log" | tr -d '\r' >"$work/guest.report"
"$check_sim" | { grep "^report:" || true; } >"$work/host.report"
if ! diff -u "$work/host.report" "$work/guest.report"; then
  fail "the guest's report differs from the simulated instruments' (above: host -, guest +)"
fi
cat "$work/guest.report"
echo "qemu end-to-end: passed"
