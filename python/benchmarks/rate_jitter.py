#!/usr/bin/python3
"""Jitter of kelm.Rate: how far each tick lands from its period, at the rates streaming uses.

    PYTHONPATH=build/python /usr/bin/python3 python/benchmarks/rate_jitter.py [--rates 500,1000] [--seconds 10]

Prints, per rate, the mean period and the distribution of |tick interval - period| [ms], and the ticks skipped.
"""

import argparse
import statistics
import time

import kelm


def measure(hz, seconds):
    rate = kelm.Rate(hz, ticks=int(hz * seconds))
    stamps = [time.monotonic() for _ in rate]
    periods = [b - a for a, b in zip(stamps, stamps[1:])]
    jitter = sorted(abs(p - 1.0 / hz) * 1000.0 for p in periods)
    pick = lambda q: jitter[min(len(jitter) - 1, int(q * len(jitter)))]  # noqa: E731
    print(f"{hz:5d} Hz over {seconds} s: mean period {statistics.mean(periods) * 1000:.4f} ms, jitter p50 "
          f"{pick(0.5):.3f} ms, p99 {pick(0.99):.3f} ms, p99.9 {pick(0.999):.3f} ms, max {jitter[-1]:.3f} ms, "
          f"skipped {rate.missed}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rates", default="500,1000")
    parser.add_argument("--seconds", type=float, default=10.0)
    args = parser.parse_args()
    for hz in (int(r) for r in args.rates.split(",")):
        measure(hz, args.seconds)


if __name__ == "__main__":
    main()
