"""Wall-clock figures of the zelpy command, as a user sees them.

    python bench/bench_cli.py [--repeat 3] [--size 201] [--steps 200]

Prints the time of `zelpy demo`, and of `zelpy strain` over the demo series
in this process (`--jobs 1`, the baseline) and on a local dask cluster of two
worker processes (`--jobs 2`), as their ratio and as the cluster's overhead
per dataset; plus the start-up cost of the command (`zelpy --version`) and of
a two-worker cluster alone. Each figure is the best of --repeat runs.
"""

import argparse
import os
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


def cluster_start(repeat):
    """Start and close a two-worker local cluster, as the command does."""
    code = ("import time; from zelpy import series\n"
            "if __name__ == '__main__':\n"
            "    t = time.perf_counter(); series.local_client(2)\n"
            "    print(time.perf_counter() - t)\n")
    best = float("inf")
    for _ in range(repeat):
        out = subprocess.run([sys.executable, "-c", code], check=True, capture_output=True,
                             text=True).stdout
        best = min(best, float(out.split()[-1]))
    return best


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--size", type=int, default=201)
    parser.add_argument("--steps", type=int, default=200)
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as tmp:
        demo_dir = os.path.join(tmp, "demo")
        startup = timed(["--version"], args.repeat)
        demo = timed(["demo", demo_dir, "-q", "--size", str(args.size),
                      "--steps", str(args.steps), "--no-plot"], 1)
        source = os.path.join(demo_dir, "plate_hole.h5")
        work = os.path.join(tmp, "work.h5")

        def fresh():
            if os.path.exists(work):
                os.remove(work)

        # Into a new file, so the workers read the source by name while this
        # process writes: the layout the cluster is meant for.
        jobs = {j: timed(["strain", source, "-o", work, "-q", "--jobs", str(j)],
                         args.repeat, fresh) for j in (1, 2)}
        cluster = cluster_start(args.repeat)
        points = args.size * args.size * args.steps

    n = args.steps
    print(f"series: {n} datasets of {args.size}x{args.size} points "
          f"({points} points), {os.cpu_count()} cores, best of {args.repeat}")
    print(f"start-up (zelpy --version)       {startup:7.2f} s")
    print(f"zelpy demo (1 run)               {demo:7.2f} s")
    print(f"zelpy strain --jobs 1            {jobs[1]:7.2f} s   baseline, "
          f"{(jobs[1] - startup) / n * 1e3:6.1f} ms/dataset")
    print(f"zelpy strain --jobs 2 (cluster)  {jobs[2]:7.2f} s   "
          f"{jobs[2] / jobs[1]:5.2f}x the baseline")
    print(f"  two-worker cluster start       {cluster:7.2f} s")
    print(f"  overhead per dataset           {(jobs[2] - jobs[1]) / n * 1e3:7.1f} ms "
          f"({(jobs[2] - jobs[1] - cluster) / n * 1e3:.1f} ms without the cluster start)")


if __name__ == "__main__":
    main()
