"""The Python package's read path beside the C read path, in the same run: oltb-sim --counter --max-rate read to
EVENTS events, by a C program calling oltbRead and by Client.read, in pairs; prints the medians and the median of the
ratios (target: Python at least half of C). Usage: python_read_bench.py SIMULATOR READ_RATE_PROGRAM"""

import os
import statistics
import subprocess
import sys
import time

import oltb

ADDRESS, EVENTS, PAIRS = "127.0.2.10", 20_000_000, 5


def python_rate():
    with oltb.connect(ADDRESS) as client:
        client.start()
        total, begin = 0, time.perf_counter()
        while total < EVENTS:
            total += len(client.read(65536))
        return total / (time.perf_counter() - begin)


def main(simulator, read_rate):
    server = subprocess.Popen([simulator, "--address", ADDRESS, "--counter", "--max-rate"], stdout=subprocess.PIPE,
                              text=True)
    try:
        server.stdout.readline()
        c_rates, python_rates = [], []
        for _ in range(PAIRS):
            c_rates.append(float(subprocess.run([read_rate, ADDRESS, str(EVENTS)], check=True, capture_output=True,
                                                text=True, timeout=120).stdout))
            python_rates.append(python_rate())
        ratio = statistics.median(p / c for p, c in zip(python_rates, c_rates))
        print("python read: %.3g events/s, C read: %.3g events/s, ratio %.2f (target >= 0.5)"
              % (statistics.median(python_rates), statistics.median(c_rates), ratio))
    finally:
        server.terminate()
        server.wait(timeout=5)


if __name__ == "__main__":
    main(*sys.argv[1:3])
