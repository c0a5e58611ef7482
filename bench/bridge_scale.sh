#!/usr/bin/env bash
# Scale of `tqble bridge` on the simulator: GATEWAYS gateways of POSTS posts each on one
# mosquitto at PORT, 5-s state poll; prints CPU, the state interval (a slipping poll shows
# as max above 5 s) and memory (PSS) per worker.
# usage: bench/bridge_scale.sh GATEWAYS POSTS SECONDS PORT [TQBLE]
set -u
G=$1 N=$2 T=$3 PORT=$4

TQ=$(realpath "${5:-build/cli/tqble}")
work=$(mktemp -d); cd "$work"
printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\n' $PORT > mq.conf
mosquitto -c mq.conf >/dev/null 2>&1 & MQ=$!
sleep 0.5
timeout $((T+25)) mosquitto_sub -p $PORT -t 'tqble/+/state' -F '%U %t' > states.log &
SUB=$!
pids=()
for g in $(seq 1 $G); do
  { echo "gateway = \"gw$g\""; printf '[mqtt]\nport = %s\n[homeassistant]\nenabled = true\n[poll]\nstate = 5\n' $PORT
    for p in $(seq 1 $N); do printf '[[post]]\nid = "g%sp%s"\nname = "x"\n' $g $p; done; } > gw$g.toml
  $TQ bridge --backend sim gw$g.toml 2>gw$g.log & pids+=($!)
done
sleep 15   # connect + first answer (about 3.5 s) settle
# CPU of all workers and the gateways over T seconds
ticks() { local t=0; for p in $(pgrep -f "tqble bridge"); do read -r -a f < /proc/$p/stat 2>/dev/null && t=$((t + f[13] + f[14])); done; echo $t; }
t0=$(ticks); s0=$(date +%s.%N)
sleep $T
t1=$(ticks); s1=$(date +%s.%N)
rss=0; n=0; for p in $(pgrep -f -- "--worker"); do r=$(awk "/^Pss:/{print \$2}" /proc/$p/smaps_rollup); rss=$((rss+r)); n=$((n+1)); done
grss=0; for p in "${pids[@]}"; do r=$(awk '/VmRSS/{print $2}' /proc/$p/status); grss=$((grss+r)); done
echo "gateways=$G posts/gw=$N workers=$n"
python3 - "$s0" "$s1" "$t0" "$t1" "$n" <<'PY'
import sys,collections
s0,s1,t0,t1,n=float(sys.argv[1]),float(sys.argv[2]),int(sys.argv[3]),int(sys.argv[4]),int(sys.argv[5])
cpu=(t1-t0)/100/(s1-s0)
print(f"cpu total {cpu*100:.1f}% of one core, per post {cpu*100/max(n,1):.2f}%")
ts=collections.defaultdict(list)
for l in open('states.log'):
    t,topic=l.split()
    t=float(t)
    if s0<=t<=s1: ts[topic].append(t)
gaps=[b-a for v in ts.values() for a,b in zip(v,v[1:])]
print(f"posts seen {len(ts)}, state messages {sum(map(len,ts.values()))}, interval mean {sum(gaps)/len(gaps):.2f}s max {max(gaps):.2f}s")
PY
echo "worker PSS total ${rss} kB, per worker $((rss/(n>0?n:1))) kB; gateways RSS ${grss} kB"
kill ${pids[@]}; wait ${pids[@]} 2>/dev/null
kill $SUB $MQ 2>/dev/null; wait 2>/dev/null
