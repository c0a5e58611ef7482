#!/bin/sh
# PID 1 of the radio guest (see run.sh): system bus, two emulated LE controllers, bluetoothd,
# `tqble post` on hci0 (as an unprivileged user), then every scenario of tqble_radio against
# it from hci1; powers off.
# `guest.sh ctl ACTION` is what the scenarios call to act on the radio from outside the SDK.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
say() { echo "radio: $*"; }
arg() { sed -n "s/.*$1=\([^ ]*\).*/\1/p" /proc/cmdline; }
[ "$1" = ctl ] || mount -t proc proc /proc   # PID 1: nothing is mounted yet
BUILD=$(arg radio_build)
TQBLE=$BUILD/cli/tqble
POST_NAME=TQ-RADIO-POST

start_bluetoothd() { /usr/libexec/bluetooth/bluetoothd -n -d >>/run/bluetoothd.log 2>&1 & }
start_post() { setpriv --reuid=65534 --regid=65534 --clear-groups "$TQBLE" post --adapter hci0 --name $POST_NAME --state plugged >>/run/post.log 2>&1 & }
adapters() {  # how many adapters bluetoothd exports
  dbus-send --system --print-reply --dest=org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects \
    2>/dev/null | grep -c '"org.bluez.Adapter1"'
}
wait_for() {  # wait_for TENTHS COMMAND...: polls until COMMAND succeeds
  n=$1; shift
  while [ "$n" -gt 0 ]; do "$@" && return 0; sleep 0.1; n=$((n - 1)); done; return 1
}
posts_advertising() { [ "$(grep -c 'advertising as' /run/post.log)" -ge "${1:-1}" ]; }
set_powered() {
  dbus-send --system --print-reply --dest=org.bluez /org/bluez/$1 org.freedesktop.DBus.Properties.Set \
    string:org.bluez.Adapter1 string:Powered variant:boolean:$2 >/dev/null
}

if [ "$1" = ctl ]; then
  case $2 in
    power-off) set_powered hci1 false ;;
    power-on) set_powered hci1 true ;;
    drop-link)  # the post's side ends the link, as a post walking out of range would
      for d in $(dbus-send --system --print-reply --dest=org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects \
                 | sed -n 's|.*object path "\(/org/bluez/hci0/dev_[0-9A-F_]*\)"|\1|p' | sort -u); do
        dbus-send --system --print-reply --dest=org.bluez "$d" org.bluez.Device1.Disconnect >/dev/null 2>&1
      done ;;
    restart-bluetoothd)
      before=$(grep -c 'advertising as' /run/post.log)
      kill "$(pidof bluetoothd)"; wait_for 50 sh -c '! pidof bluetoothd >/dev/null'
      start_bluetoothd
      wait_for 150 sh -c "[ \"\$(dbus-send --system --print-reply --dest=org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects 2>/dev/null | grep -c '\"org.bluez.Adapter1\"')\" -ge 2 ]"
      posts_advertising $((before + 1)) || wait_for 150 posts_advertising $((before + 1)) ;;
    *) echo "guest.sh ctl: unknown action $2" >&2; exit 2 ;;
  esac
  exit $?
fi

mount -t sysfs sys /sys; mount -t devtmpfs dev /dev 2>/dev/null
mkdir -p /dev/pts; mount -t devpts devpts /dev/pts
# /tmp stays the overlay (already writable): a build folder may live under the host's /tmp.
mount -t tmpfs tmpfs /run; mkdir -p /run/dbus /var/lib/bluetooth
KVER=$(uname -r); KDIR=$(arg radio_kdir)
mkdir -p /lib/modules/$KVER; mount --bind "$KDIR/lib/modules/$KVER" /lib/modules/$KVER
uptime_s() { cut -d' ' -f1 /proc/uptime; }
step() { echo "guest: [$(uptime_s)] $*"; }
finish() { sync; poweroff -f; }
step "root ready"

# The controllers need AF_ALG for their crypto; loading it on demand over 9p is slow enough that
# the kernel's 2 s reset of the first controller times out, so load everything first.
modprobe -a af_alg algif_hash algif_skcipher cmac ecb bluetooth hci_vhci || { say "bring-up failed: modules"; finish; }
step "modules loaded"
dbus-daemon --system --fork --nopidfile || { say "bring-up failed: system bus"; finish; }
btvirt -h >/dev/null 2>&1   # warms the page cache, for the same reason
controllers=0
for attempt in 1 2 3; do
  btvirt -L -l2 >/run/btvirt.log 2>&1 &
  btvirt=$!
  wait_for 50 sh -c '[ "$(ls /sys/class/bluetooth 2>/dev/null | wc -w)" -ge 2 ]'
  sleep 2.5
  if dmesg | grep -q 'Opcode 0x0c03 failed'; then   # a controller's reset timed out: start over
    kill $btvirt; wait $btvirt 2>/dev/null; dmesg -C; sleep 1
  else
    controllers=$(ls /sys/class/bluetooth | wc -w); break
  fi
done
[ "$controllers" -ge 2 ] || { say "bring-up failed: $controllers controllers after $attempt btvirt starts"; finish; }
step "controllers: $controllers (btvirt starts: $attempt)"
[ -n "$(arg radio_btmon)" ] && btmon -w /run/hci.btsnoop >/dev/null 2>&1 &
start_bluetoothd
wait_for 200 sh -c '[ "$(dbus-send --system --print-reply --dest=org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects 2>/dev/null | grep -c "\"org.bluez.Adapter1\"")" -ge 2 ]' \
  || { say "bring-up failed: bluetoothd exports $(adapters) adapters"; finish; }
step "bluetoothd exports 2 adapters"
set_powered hci0 true; set_powered hci1 true
step "adapters powered"
start_post
wait_for 300 posts_advertising || { say "bring-up failed: the post did not advertise"; sed 's/^/radio:   | /' /run/post.log; finish; }
say "stack ready at $(uptime_s) s (btvirt starts: $attempt)"

passed=0; failed=0
for s in $("$BUILD/tests/radio/tqble_radio" --list); do
  # The command scenario is recorded on its own and kept in the build folder (run.sh).
  if [ "$s" = commands ]; then
    btmon -w /run/commands.btsnoop >/dev/null 2>&1 & recorder=$!
    wait_for 50 test -s /run/commands.btsnoop
  fi
  t0=$(uptime_s)
  RADIO_CTL="$0 ctl" TQBLE_BACKEND=bluez TQBLE_BLUEZ_ADAPTER=hci1 \
    timeout 90 "$BUILD/tests/radio/tqble_radio" "$s" >/run/scenario.log 2>&1
  rc=$?
  if [ "$s" = commands ]; then
    kill $recorder; wait $recorder 2>/dev/null
    base64 -w 76 /run/commands.btsnoop | sed 's/^/capture: /'
  fi
  took=$(echo "$(uptime_s) $t0" | awk '{printf "%.1f", $1 - $2}')
  if [ $rc -eq 0 ]; then
    passed=$((passed + 1)); say "ok    $s ($took s) $(tail -1 /run/scenario.log)"
  else
    failed=$((failed + 1)); say "FAIL  $s ($took s, exit $rc)"
    tail -25 /run/scenario.log | sed 's/^/radio:   | /'
    echo "radio:   | -- post:"; tail -8 /run/post.log | sed 's/^/radio:   | /'
    tail -150 /run/bluetoothd.log | sed 's/^/guest: bluetoothd: /'   # in the boot log only
    [ -f /run/hci.btsnoop ] && btmon -r /run/hci.btsnoop 2>/dev/null | grep -E '^[<>@] |Address:|Name' | tail -300 | sed 's/^/guest: btmon: /'
  fi
done
say "summary: $passed passed, $failed failed"
if [ $failed -gt 0 ]; then
  echo "radio:   | -- bluetoothd:"; grep -iE 'error|fail' /run/bluetoothd.log | tail -10 | sed 's/^/radio:   | /'
fi
finish
