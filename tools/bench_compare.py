#!/usr/bin/env python3
"""Compares two builds' benchmark programs case by case.

    tools/bench_compare.py OLD_BUILD NEW_BUILD [--rounds N] [--min-time S] [--limit PERCENT]

OLD_BUILD and NEW_BUILD are build folders of the gcc-release preset (their bench/ folder holds
the DorvikCoreBench* programs). Each program of both builds runs in turn, ROUNDS times, old and
new alternating so that the machine's load falls on both alike; each case's CPU time is the
median over the rounds. The cases both builds have are listed with new / old; a case more than
LIMIT percent slower is marked, and the exit status is 1 when any is.
"""
import argparse
import json
import os
import statistics
import subprocess
import sys


def programs(build):
    folder = os.path.join(build, "bench")
    return sorted(name for name in os.listdir(folder)
                  if name.startswith("DorvikCoreBench") and os.access(os.path.join(folder, name), os.X_OK))


def run(build, program, min_time):
    out = subprocess.run([os.path.join(build, "bench", program), "--benchmark_format=json",
                          f"--benchmark_min_time={min_time}"],
                         capture_output=True, text=True, check=False)
    if out.returncode != 0:
        print(f"{program} in {build} failed: {out.stderr.strip()[-300:]}", file=sys.stderr)
        return {}
    try:
        data = json.loads(out.stdout)
    except json.JSONDecodeError:
        return {}
    return {b["name"]: b["cpu_time"] * {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")]
            for b in data.get("benchmarks", []) if b.get("run_type", "iteration") == "iteration" and "error_occurred" not in b}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("old")
    parser.add_argument("new")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--min-time", default="0.05")
    parser.add_argument("--limit", type=float, default=5.0)
    args = parser.parse_args()

    old_programs = set(programs(args.old))
    common = [p for p in programs(args.new) if p in old_programs]
    slower = 0
    for program in common:
        times = {"old": {}, "new": {}}
        for _ in range(args.rounds):
            for side in ("old", "new"):
                for name, t in run(getattr(args, side), program, args.min_time).items():
                    times[side].setdefault(name, []).append(t)
        names = [n for n in times["new"] if n in times["old"]]
        print(f"\n{program}: {len(names)} cases in both builds")
        for name in names:
            old, new = statistics.median(times["old"][name]), statistics.median(times["new"][name])
            ratio = new / old if old > 0 else float("inf")
            mark = ""
            if ratio > 1 + args.limit / 100:
                mark = "  <-- slower"
                slower += 1
            print(f"  {name:60s} {old:14.1f} ns {new:14.1f} ns  {ratio:6.3f}{mark}")
    print(f"\n{slower} case(s) more than {args.limit}% slower")
    return 1 if slower else 0


if __name__ == "__main__":
    sys.exit(main())
