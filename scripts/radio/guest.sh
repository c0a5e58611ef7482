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
WORK=$(arg radio_work)   # the host's build/radio/guest, writable: logs and the capture stay there
TQBLE=$BUILD/cli/tqble
POST_NAME=TQ-RADIO-POST

start_bluetoothd() { /usr/libexec/bluetooth/bluetoothd -n -d >>$WORK/bluetoothd.log 2>&1 & }
start_post() { setpriv --reuid=65534 --regid=65534 --clear-groups "$TQBLE" post --adapter hci0 --name $POST_NAME --state plugged >>$WORK/post.log 2>&1 & }
adapters() {  # how many adapters bluetoothd exports
  dbus-send --system --print-reply --dest=org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects \
    2>/dev/null | grep -c '"org.bluez.Adapter1"'
}
wait_for() {  # wait_for TENTHS COMMAND...: polls until COMMAND succeeds
  n=$1; shift
  while [ "$n" -gt 0 ]; do "$@" && return 0; sleep 0.1; n=$((n - 1)); done; return 1
}
posts_advertising() { [ "$(grep -c 'advertising as' $WORK/post.log)" -ge "${1:-1}" ]; }
set_powered() {
  dbus-send --system --print-reply --dest=org.bluez /org/bluez/$1 org.freedesktop.DBus.Properties.Set \
    string:org.bluez.Adapter1 string:Powered variant:boolean:$2 >/dev/null
}

if [ "$1" = ctl ]; then
  case $2 in
    power-off) set_powered hci1 false ;;
    power-on) set_powered hci1 true ;;
    wait-idle)  # until hci1's discovery has stopped, so that the next one starts afresh
      wait_for 100 sh -c "dbus-send --system --print-reply --dest=org.bluez /org/bluez/hci1 org.freedesktop.DBus.Properties.Get string:org.bluez.Adapter1 string:Discovering | grep -q 'boolean false'" ;;
    drop-link)  # the post's side ends the link, as a post walking out of range would
      for d in $(dbus-send --system --print-reply --dest=org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects \
                 | sed -n 's|.*object path "\(/org/bluez/hci0/dev_[0-9A-F_]*\)"|\1|p' | sort -u); do
        dbus-send --system --print-reply --dest=org.bluez "$d" org.bluez.Device1.Disconnect >/dev/null 2>&1
      done ;;
    restart-bluetoothd)
      before=$(grep -c 'advertising as' $WORK/post.log)
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
mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144 radiowork "$WORK" || { say "bring-up failed: $WORK"; poweroff -f; }
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
reset_failed="dmesg | grep -q 'Opcode 0x0c03 failed'"   # a controller's reset timed out
set_up="btmgmt info 2>/dev/null | grep -c '^hci[0-9]*:'"  # controllers set up, as mgmt lists them
controllers=0
for attempt in 1 2 3; do
  btvirt -L -l2 >$WORK/btvirt.log 2>&1 &
  btvirt=$!
  wait_for 200 sh -c "$reset_failed || [ \$($set_up) -ge 2 ]"
  if sh -c "$reset_failed"; then   # start over
    kill $btvirt; wait $btvirt 2>/dev/null; dmesg -C
    wait_for 50 sh -c '[ -z "$(ls /sys/class/bluetooth)" ]'
  else
    controllers=$(sh -c "$set_up"); break
  fi
done
[ "$controllers" -ge 2 ] || { say "bring-up failed: $controllers controllers after $attempt btvirt starts"; finish; }
step "controllers: $controllers (btvirt starts: $attempt)"
btmon -w $WORK/hci.btsnoop >/dev/null 2>&1 &   # read back on the host (run.sh) when a scenario fails
start_bluetoothd
wait_for 200 sh -c '[ "$(dbus-send --system --print-reply --dest=org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects 2>/dev/null | grep -c "\"org.bluez.Adapter1\"")" -ge 2 ]' \
  || { say "bring-up failed: bluetoothd exports $(adapters) adapters"; finish; }
step "bluetoothd exports 2 adapters"
set_powered hci0 true; set_powered hci1 true
step "adapters powered"

# btvirt reports an advertiser to a scanner once, when the scan is switched on, and the kernel
# drops a report that comes before it counts its discovery as started. So each time hci1's
# discovery has started, the post's controller advertises again (LE Set Advertising Enable off,
# then on): the report it then sends is one the kernel takes. radio_kick=0 leaves it out.
kick() {
  [ "$(arg radio_kick)" = 0 ] && return
  hcitool -i hci0 cmd 0x08 0x000a 00 >/dev/null 2>&1
  hcitool -i hci0 cmd 0x08 0x000a 01 >/dev/null 2>&1
}
dbus-monitor --system "type='signal',sender='org.bluez',path='/org/bluez/hci1',member='PropertiesChanged'" 2>/dev/null |
  while read -r line; do
    case $line in *'"Discovering"'*) read -r value; case $value in *true*) kick ;; esac ;; esac
  done &

start_post
wait_for 300 posts_advertising || { say "bring-up failed: the post did not advertise"; sed 's/^/radio:   | /' $WORK/post.log; finish; }
say "stack ready at $(uptime_s) s (btvirt starts: $attempt)"
if [ -n "$(arg radio_exp)" ]; then . "$(arg radio_exp)"; finish; fi

passed=0; failed=0
for s in $("$BUILD/tests/radio/tqble_radio" --list); do
  # The command scenario is recorded on its own as well (run.sh keeps it in the build folder).
  if [ "$s" = commands ]; then
    btmon -w $WORK/commands.btsnoop >/dev/null 2>&1 & recorder=$!
    wait_for 50 test -s $WORK/commands.btsnoop
  fi
  t0=$(uptime_s); from=$(date +%s.%N)
  RADIO_CTL="$0 ctl" TQBLE_BACKEND=bluez TQBLE_BLUEZ_ADAPTER=hci1 \
    timeout 120 "$BUILD/tests/radio/tqble_radio" "$s" >$WORK/scenario-$s.log 2>&1
  rc=$?
  [ "$s" = commands ] && { kill $recorder; wait $recorder 2>/dev/null; }
  took=$(echo "$(uptime_s) $t0" | awk '{printf "%.1f", $1 - $2}')
  if [ $rc -eq 0 ]; then
    passed=$((passed + 1)); say "ok    $s ($took s) $(tail -1 $WORK/scenario-$s.log)"
  else
    failed=$((failed + 1)); say "FAIL  $s ($took s, exit $rc)"
    tail -25 $WORK/scenario-$s.log | sed 's/^/radio:   | /'
    echo "radio:   | -- post:"; tail -8 $WORK/post.log | sed 's/^/radio:   | /'
    echo "$s $from $(date +%s.%N)" >>$WORK/failed   # run.sh shows the radio traffic of that span
  fi
done
scans=$(cat $WORK/scenario-*.log | grep -c '^  scan: heard'); missed=$(cat $WORK/scenario-*.log | grep -c '^  scan: missed')
links=$(cat $WORK/scenario-*.log | grep -c '^  link: ready')
say "summary: $passed passed, $failed failed; scans: $scans heard, $missed missed; links: $links found and ready"
finish
