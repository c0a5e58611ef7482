"""One state request through Python (asyncio, tqble) against the simulated post with every
latency zero, beside the same request in C++ (tqble_bench's client figure): the binding's
cost per request. usage: state_request.py [path to tqble_bench]"""

import asyncio
import datetime
import json
import statistics
import subprocess
import sys
import time

import tqble

REQUESTS = 2000


async def python_figure() -> float:
    timing = tqble.sim.timing()
    for name in ("connect", "discovery", "read", "answer", "notification_gap",
                 "write_confirmation", "first_advertisement"):
        setattr(timing, name, datetime.timedelta(0))
    async with tqble.connect() as post:
        await post.state()  # past the manager's own first query
        times = []
        for _ in range(REQUESTS):
            start = time.perf_counter()
            await post.state()
            times.append(time.perf_counter() - start)
    return statistics.median(times) * 1e6


def cpp_figure(bench: str) -> float:
    out = subprocess.run([bench, "--benchmark_filter=ClientStateRequest", "--benchmark_format=json"],
                         check=True, capture_output=True, text=True, env={"TQBLE_LOG": "off"}).stdout
    [run] = json.loads(out)["benchmarks"]
    return run["real_time"]  # microseconds


python_us = asyncio.run(python_figure())
line = f"state request on the simulator: Python {python_us:.1f} us (median of {REQUESTS})"
if len(sys.argv) > 1:
    cpp_us = cpp_figure(sys.argv[1])
    line += f", C++ {cpp_us:.1f} us, Python overhead {python_us - cpp_us:.1f} us"
print(line)
