#!/usr/bin/env bash
# Builds a small initramfs: busybox and the virtio/9p/overlay modules of the guest kernel. Its /init
# mounts the host's root read-only over 9p under a tmpfs overlay and switch_roots into radio_init.
# Usage: mkinitramfs.sh MODULES_DIR OUTPUT
set -euo pipefail
MODS=$1 OUT=$2
W=$(mktemp -d); trap 'rm -rf "$W"' EXIT
mkdir -p "$W"/{bin,proc,sys,dev,lower,rw,newroot,mods}
cp /bin/busybox "$W/bin/busybox"
for a in sh mount mkdir insmod switch_root echo cat sed sleep poweroff; do ln -s busybox "$W/bin/$a"; done
order="virtio_ring virtio virtio_pci_legacy_dev virtio_pci_modern_dev virtio_pci 9pnet 9pnet_virtio netfs fscache 9p overlay"
for m in $order; do
  f=$(find "$MODS/kernel" -name "$m.ko" | head -1)
  [ -n "$f" ] || { echo "mkinitramfs: module $m not found under $MODS" >&2; exit 1; }
  cp "$f" "$W/mods/"
done
cat > "$W/init" <<INIT
#!/bin/sh
mount -t proc proc /proc; mount -t sysfs sys /sys; mount -t devtmpfs dev /dev
for m in $order; do insmod /mods/\$m.ko || echo "radio: insmod \$m failed"; done
mount -t 9p -o trans=virtio,version=9p2000.L,ro,cache=loose,msize=262144 hostroot /lower \
  || { echo "radio: bring-up failed: 9p mount"; poweroff -f; }
mount -t tmpfs -o size=512m tmpfs /rw; mkdir -p /rw/u /rw/w
mount -t overlay overlay -o lowerdir=/lower,upperdir=/rw/u,workdir=/rw/w /newroot \
  || { echo "radio: bring-up failed: overlay"; poweroff -f; }
GI=\$(sed -n 's/.*radio_init=\([^ ]*\).*/\1/p' /proc/cmdline)
exec switch_root /newroot "\$GI"
INIT
chmod +x "$W/init"
(cd "$W" && find . | cpio -o -H newc --quiet | gzip -1) > "$OUT.$$"
mv "$OUT.$$" "$OUT"   # a guest booting from the old one keeps reading it
