#!/usr/bin/python3
"""Wall times of converting a numbered sequence of 1920 x 1080 RGBA frames
three ways on the same files: kelpimage.dask.convert on a local cluster of
two worker processes, the same on one worker, and kimg convert --threads 2.

Usage: bench/dask_bench.py [BUILD_DIR] [--frames N] [--to png] [--runs R]
(defaults build/release, 300 frames, IFF to PNG, 1 run; the median of the
runs is printed). Needs python3-dask and python3-distributed.
"""
import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?", default="build/release")
    parser.add_argument("--frames", type=int, default=300)
    parser.add_argument("--to", default="png")
    parser.add_argument("--runs", type=int, default=1)
    args = parser.parse_args()

    build = os.path.abspath(args.build)
    sys.path.insert(0, os.path.join(build, "python"))
    os.environ["PYTHONPATH"] = os.path.join(build, "python")
    import kelpimage
    import kelpimage.dask
    from dask.distributed import Client, LocalCluster

    kimg = os.path.join(build, "tools", "kimg", "kimg")
    with tempfile.TemporaryDirectory() as folder:
        base = os.path.join(folder, "base.iff")
        subprocess.run([kimg, "pattern", base, "--size", "1920x1080", "--alpha"], check=True)
        for f in range(1, args.frames + 1):
            os.link(base, os.path.join(folder, "in.%04d.iff" % f))
        source = os.path.join(folder, "in.####.iff")
        target = os.path.join(folder, "out.####." + args.to)

        def clean():
            for name in os.listdir(folder):
                if name.startswith("out."):
                    os.remove(os.path.join(folder, name))

        def timed(job):
            times = []
            for _ in range(args.runs):
                clean()
                start = time.perf_counter()
                job()
                times.append(time.perf_counter() - start)
            return statistics.median(times)

        def on_cluster(workers):
            cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=None)
            with cluster, Client(cluster) as client:
                client.run(lambda: __import__("kelpimage"))  # workers warm, as on a running cluster
                return timed(lambda: kelpimage.dask.convert(source, target, client=client))

        figures = [
            ("kimg convert --threads 2", timed(lambda: subprocess.run(
                [kimg, "convert", source, target, "--threads", "2", "-q"], check=True))),
            ("kelpimage.dask.convert, 2 workers", on_cluster(2)),
            ("kelpimage.dask.convert, 1 worker", on_cluster(1)),
        ]
    print("%d frames 1920x1080 RGBA, IFF -> %s, median of %d" % (args.frames, args.to.upper(), args.runs))
    for name, seconds in figures:
        print("%-36s %7.2f s  %6.1f frames/s" % (name, seconds, args.frames / seconds))


if __name__ == "__main__":
    main()
