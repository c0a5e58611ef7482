#!/usr/bin/env bash
# Wall time of `tqble run - state` on the simulated post (its default latencies): from the
# command's start to its exit, RUNS times; prints each run and the median.
# usage: bench/cli_state_wall.sh [TQBLE] [RUNS]
set -eu
tqble=${1:-build/cli/tqble}
runs=${2:-10}
times=()
for _ in $(seq "$runs"); do
  start=$(date +%s%N)
  "$tqble" run - state >/dev/null
  times+=($((($(date +%s%N) - start) / 1000000)))
done
median=$(printf '%s\n' "${times[@]}" | sort -n | awk '{v[NR] = $1} END {print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2)}')
echo "tqble run - state on the simulator: median ${median} ms of $runs (runs: ${times[*]} ms)"
