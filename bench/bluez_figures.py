#!/usr/bin/python3
"""The BlueZ figures, run beside the stand-in bluetoothd of bluez_standin.py (make bench
does): every benchmark of tqble_bench, then the bluez backend's instructions per
notification in the burst (callgrind, collecting in bluez_bench.cpp's receive() only), then
bleak on the same stand-in with the same notifications (bleak_figures.py), side by side.
usage: bluez_figures.py TQBLE_BENCH"""
import json
import pathlib
import subprocess
import sys
import tempfile
from importlib.metadata import version

BURST = 20_000  # bluez_bench.cpp's and bleak_figures.py's


def main():
    bench = sys.argv[1]
    with tempfile.TemporaryDirectory() as scratch:
        results = pathlib.Path(scratch, "bench.json")
        subprocess.run([bench, f"--benchmark_out={results}", "--benchmark_out_format=json"], check=True)
        runs = {run["name"].split("/")[0]: run for run in json.loads(results.read_text())["benchmarks"]}
        profile = pathlib.Path(scratch, "callgrind.out")
        subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={profile}",
                        "--toggle-collect=*::receive(*", bench, "--benchmark_filter=BluezNotificationBurst"],
                       check=True, capture_output=True)
        totals = next(line for line in profile.read_text().splitlines() if line.startswith("totals:"))
    sdk = {case: runs[name].get("cpu_us") for case, name in
           (("burst", "BM_BluezNotificationBurst"), ("paced", "BM_BluezNotificationsPaced"))}
    if None in sdk.values():
        sys.exit("bluez_figures: the bluez backend's burst or paced figure is missing (see above)")
    bleak = json.loads(subprocess.run([pathlib.Path(__file__).with_name("bleak_figures.py")], check=True,
                                      capture_output=True, text=True).stdout)
    instructions = int(totals.split()[1]) / BURST
    print(f"\nPer notification, each arriving once and in order  bluez backend            bleak {version('bleak')}")
    print(f"burst of 20,000                                    {instructions / 1000:4.1f}k instr, "
          f"{sdk['burst']:5.1f} us CPU  {bleak['burst']:5.1f} us CPU")
    print(f"1,000 paced 7.5 ms apart                                         {sdk['paced']:5.1f} us CPU  "
          f"{bleak['paced']:5.1f} us CPU")


if __name__ == "__main__":
    main()
