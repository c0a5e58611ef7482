#!/usr/bin/env bash
# Runs the radio scenarios against the real bluetoothd: boots Debian's kernel under qemu (software
# emulation, no Bluetooth hardware needed) with this machine's root shared read-only, two emulated
# LE controllers in the guest, `tqble post` on one and the SDK's bluez backend on the other.
# Usage: scripts/radio/run.sh BUILD_DIR     (the tqble tool and tqble_radio must be built there)
# Prints one line per scenario and a summary; exits non-zero when a scenario fails.
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=$(cd "${1:?usage: run.sh BUILD_DIR}" && pwd)
WORK=$BUILD/radio
BOOT_TIMEOUT=${RADIO_BOOT_TIMEOUT:-540}   # seconds for one whole guest run, scenarios included
mkdir -p "$WORK/cache"
started=$(date +%s)

for tool in "$BUILD/cli/tqble" "$BUILD/tests/radio/tqble_radio"; do
  [ -x "$tool" ] || { echo "radio: $tool is not built" >&2; exit 2; }
done

# The kernel: the package that linux-image-amd64 currently depends on, downloaded once (not installed).
kpkg=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ {print $2; exit}')
[ -n "$kpkg" ] || { echo "radio: cannot resolve linux-image-amd64 (run apt-get update)" >&2; exit 2; }
KVER=${kpkg#linux-image-}
KDIR=$WORK/kernel-$KVER
if [ ! -f "$KDIR/.unpacked" ]; then
  deb=$(ls "$WORK/cache/${kpkg}_"*.deb 2>/dev/null | head -1 || true)
  if [ -z "$deb" ]; then
    echo "radio: downloading $kpkg"
    sandbox=(); [ "$(id -u)" -eq 0 ] && sandbox=(-o APT::Sandbox::User=root)  # _apt cannot write here
    (cd "$WORK/cache" && apt-get download -q "${sandbox[@]}" "$kpkg" >/dev/null)
    deb=$(ls "$WORK/cache/${kpkg}_"*.deb | head -1)
  fi
  rm -rf "$KDIR"; mkdir -p "$KDIR"
  # Only the kernel image and the modules the guest loads: virtio, 9p, overlay, Bluetooth, crypto.
  dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$KDIR" --wildcards \
    "./boot/vmlinuz-$KVER" "./lib/modules/$KVER/modules.*" \
    "./lib/modules/$KVER/kernel/drivers/virtio/*" "./lib/modules/$KVER/kernel/net/9p/*" \
    "./lib/modules/$KVER/kernel/fs/9p/*" "./lib/modules/$KVER/kernel/fs/netfs/*" \
    "./lib/modules/$KVER/kernel/fs/fscache/*" "./lib/modules/$KVER/kernel/fs/overlayfs/*" \
    "./lib/modules/$KVER/kernel/net/bluetooth/*" "./lib/modules/$KVER/kernel/drivers/bluetooth/*" \
    "./lib/modules/$KVER/kernel/net/rfkill/*" "./lib/modules/$KVER/kernel/crypto/*" \
    "./lib/modules/$KVER/kernel/lib/*" "./lib/modules/$KVER/kernel/arch/x86/crypto/*"
  depmod -b "$KDIR" "$KVER"
  touch "$KDIR/.unpacked"
fi

# The initramfs: busybox and the modules that mount the host's root; then the guest script runs.
"$HERE/mkinitramfs.sh" "$KDIR/lib/modules/$KVER" "$WORK/initramfs.cpio.gz"

boot() {  # $1 = attempt number; the guest's own lines start with "radio:"
  local log=$WORK/boot-$1.log
  set +e
  timeout --kill-after=10 "$BOOT_TIMEOUT" qemu-system-x86_64 -accel tcg -m 1024 -smp 2 \
    -nographic -no-reboot -nodefaults -serial stdio -monitor none \
    -kernel "$KDIR/boot/vmlinuz-$KVER" -initrd "$WORK/initramfs.cpio.gz" \
    -append "console=ttyS0 quiet loglevel=3 panic=-1 radio_init=$HERE/guest.sh radio_build=$BUILD radio_kdir=$KDIR ${RADIO_BTMON:+radio_btmon=1}" \
    -virtfs local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap \
    </dev/null 2>&1 | sed -u 's/\r$//' | tee "$log" | sed -un 's/^radio: //p'
  local rc=${PIPESTATUS[0]}
  set -e
  [ "$rc" -eq 124 ] && echo "guest: killed after ${BOOT_TIMEOUT} s (log: $log)"
  return 0
}

attempt=1
boot $attempt
if grep -q '^radio: bring-up failed' "$WORK/boot-$attempt.log"; then
  attempt=2
  echo "guest: the emulated controllers did not come up; booting once more"
  boot $attempt
fi
log=$WORK/boot-$attempt.log
# The command scenario's btsnoop capture, sent by the guest over the console.
grep -a '^capture: ' "$log" | cut -c10- | base64 -d >"$WORK/commands.btsnoop" 2>/dev/null \
  && [ -s "$WORK/commands.btsnoop" ] && echo "radio: capture of the command scenario: $WORK/commands.btsnoop"
echo "radio: $(( $(date +%s) - started )) s in all (logs in $WORK)"
summary=$(grep -a '^radio: summary' "$log" | tail -1 || true)
[ -n "$summary" ] || { echo "radio: the guest ended without a summary"; exit 1; }
grep -q ' 0 failed' <<<"$summary"
