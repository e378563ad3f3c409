"""Wall-clock figures of the zelpy command, as a user sees them.

    python bench/bench_cli.py [--repeat 3] [--size 201]

Prints the time of `zelpy demo`, of `zelpy strain --jobs 1` and `--jobs 2` on
the demo series, and the start-up cost of the command (`zelpy --version`) as
the baseline measured in the same run, each as the best of --repeat runs.
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time


def timed(args, repeat, before=None):
    best = float("inf")
    for _ in range(repeat):
        if before:
            before()
        start = time.perf_counter()
        subprocess.run([sys.executable, "-m", "zelpy", *args], check=True,
                       stdout=subprocess.DEVNULL)
        best = min(best, time.perf_counter() - start)
    return best


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--size", type=int, default=201)
    parser.add_argument("--steps", type=int, default=8)
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as tmp:
        demo_dir = os.path.join(tmp, "demo")
        startup = timed(["--version"], args.repeat)
        demo = timed(["demo", demo_dir, "-q", "--size", str(args.size),
                      "--steps", str(args.steps)], args.repeat)
        source = os.path.join(demo_dir, "plate_hole.h5")
        work = os.path.join(tmp, "work.h5")

        def fresh():
            shutil.copy(source, work)

        jobs = {j: timed(["strain", work, "-q", "--jobs", str(j)], args.repeat, fresh)
                for j in (1, 2)}
        points = args.size * args.size * args.steps

    print(f"series: {args.steps} datasets of {args.size}x{args.size} points "
          f"({points} points), best of {args.repeat}")
    print(f"start-up (zelpy --version)   {startup:6.2f} s   baseline")
    print(f"zelpy demo                   {demo:6.2f} s   {demo / startup:5.1f}x start-up")
    for j, t in jobs.items():
        print(f"zelpy strain --jobs {j}        {t:6.2f} s   {t / startup:5.1f}x start-up, "
              f"{points / (t - startup) / 1e6:5.2f} M points/s after start-up")
    print(f"jobs 2 / jobs 1              {jobs[2] / jobs[1]:6.2f}")


if __name__ == "__main__":
    main()
