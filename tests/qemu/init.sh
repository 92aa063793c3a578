#!/bin/sh
# The guest's first process: bring up USB, wait for the emulated bridges,
# run the check program, and power off. Everything it prints goes to the
# serial console, which the host reads.
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
for module in usb-common usbcore xhci-hcd xhci-pci; do
    insmod /modules/$module.ko || echo "guest: insmod $module failed"
done
# The bridges enumerate a moment after the host controller comes up.
want=$(cat /bridges)
tries=0
while [ "$(cat /sys/bus/usb/devices/*/idVendor 2>/dev/null | grep -c 0403)" -lt "$want" ]; do
    tries=$((tries + 1))
    [ $tries -gt 100 ] && { echo "guest: only $(cat /sys/bus/usb/devices/*/idVendor | grep -c 0403) of $want bridges appeared"; break; }
    sleep 0.1
done
LD_LIBRARY_PATH=/opt/kavrel KAVREL_UNPLUG=KSIM0002 /opt/kavrel/kavrel_usb_check
echo "guest: check exited with $?"
poweroff -f
