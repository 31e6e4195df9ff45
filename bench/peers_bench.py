#!/usr/bin/python3
"""kimg beside libvips, OpenImageIO's oiiotool and ImageMagick: the same
4096 x 4096 inputs, the same output settings (TIFF with Deflate, JPEG at
quality 90, each tool's PNG defaults), whole processes, run in rounds of one
run of each tool. Prints the median wall seconds of each, the median of the
rounds' kimg / vips ratios, the output sizes, and draws the table as a bar
chart (PNG) when matplotlib is here.

Usage: bench/peers_bench.py [BUILD_DIR] [--runs N] [--chart FILE]
(BUILD_DIR: a plain Release build, build/release by default). Needs vips
(libvips-tools), oiiotool (openimageio-tools) and ImageMagick: scripts/setup.sh bench.
"""
import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time


def run(args, cwd):
    done = subprocess.run(args, cwd=cwd, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit("%s failed: %s" % (" ".join(args), done.stderr.strip()))


def seconds(args, cwd):
    start = time.monotonic()
    run(args, cwd)
    return time.monotonic() - start


def paired_runs(commands, cwd, runs):
    """Each round runs every tool once, one after the other, so that a slow
    spell of a shared machine falls on all of them alike. The median wall
    seconds of each tool (None where it has no command), and the median of
    the rounds' kimg / vips ratios."""
    times = [[] for _ in commands]
    for _ in range(runs):
        for i, c in enumerate(commands):
            if c:
                times[i].append(seconds(c, cwd))
    medians = [statistics.median(t) if t else None for t in times]
    ratio = statistics.median(k / v for k, v in zip(times[0], times[1])) if times[1] else None
    return medians, ratio


def peak_mib(args, cwd):
    """The peak resident memory of one run, as GNU time measures it."""
    run(["/usr/bin/time", "-f", "%M", "-o", "peak.txt"] + args, cwd)
    with open(os.path.join(cwd, "peak.txt")) as f:
        return int(f.read().split()[-1]) / 1024


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?", default="build/release")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--chart", default="peers.png")
    o = parser.parse_args()
    kimg = os.path.abspath(os.path.join(o.build, "tools/kimg/kimg"))
    chart = os.path.abspath(o.chart)
    work = tempfile.mkdtemp()
    try:
        # Natural detail everywhere, so that no codec has an easy time.
        run(["convert", "-size", "4096x4096", "-seed", "7", "plasma:fractal", "-depth", "8", "src.ppm"], work)
        run(["vips", "copy", "src.ppm", "big.png"], work)
        run(["vips", "copy", "src.ppm", "big.jpg[Q=90]"], work)
        run(["vips", "copy", "src.ppm", "big.tif[compression=deflate]"], work)
        run(["oiiotool", "src.ppm", "-d", "half", "--compression", "zip", "-o", "big.exr"], work)
        run([kimg, "convert", "-q", "src.ppm", "big.iff"], work)
        deflate = ["--compression", "zip"]
        jobs = [
            ("JPEG to PNG", [kimg, "convert", "-q", "big.jpg", "k.png"], ["vips", "copy", "big.jpg", "v.png"],
             ["oiiotool", "big.jpg", "-o", "o.png"], ["convert", "big.jpg", "m.png"]),
            ("TIFF to JPEG", [kimg, "convert", "-q", "big.tif", "k.jpg", "--option", "Quality=90"],
             ["vips", "copy", "big.tif", "v.jpg[Q=90]"], ["oiiotool", "big.tif", "--compression", "jpeg:90", "-o", "o.jpg"],
             ["convert", "big.tif", "-quality", "90", "m.jpg"]),
            ("PNG to TIFF", [kimg, "convert", "-q", "big.png", "k.tif"], ["vips", "copy", "big.png", "v.tif[compression=deflate]"],
             ["oiiotool", "big.png"] + deflate + ["-o", "o.tif"], ["convert", "big.png", "-compress", "zip", "m.tif"]),
            ("half EXR to TIFF", [kimg, "convert", "-q", "big.exr", "k2.tif"],
             ["vips", "copy", "big.exr", "v2.tif[compression=deflate]"], ["oiiotool", "big.exr"] + deflate + ["-o", "o2.tif"],
             ["convert", "big.exr", "-compress", "zip", "m2.tif"]),
            ("resize to 1920x1080", [kimg, "convert", "-q", "big.tif", "k3.tif", "--resize", "1920x1080"],
             ["vips", "thumbnail", "big.tif", "v3.tif[compression=deflate]", "1920", "--height", "1080", "--size", "force"],
             ["oiiotool", "big.tif", "--resize", "1920x1080"] + deflate + ["-o", "o3.tif"],
             ["convert", "big.tif", "-resize", "1920x1080!", "-compress", "zip", "m3.tif"]),
            ("IFF to PNG", [kimg, "convert", "-q", "big.iff", "k4.png"], None, ["oiiotool", "big.iff", "-o", "o4.png"], None),
        ]
        rows = []
        print("%-20s %8s %8s %8s %8s %10s" % ("job", "kimg", "vips", "oiiotool", "convert", "kimg/vips"))
        for name, *commands in jobs:
            times, ratio = paired_runs(commands, work, o.runs)
            cells = ["%8.2f" % t if t is not None else "%8s" % "-" for t in times]
            print("%-20s %s %10s" % (name, " ".join(cells), "%.2f" % ratio if ratio else "-"))
            rows.append((name, times))
        sizes = {tool: os.path.getsize(os.path.join(work, f)) for tool, f in
                 (("kimg", "k.png"), ("vips", "v.png"), ("oiiotool", "o.png"), ("convert", "m.png"))}
        print("PNG sizes at defaults (MB): " + ", ".join("%s %.1f" % (t, s / 1e6) for t, s in sizes.items()))
        # Memory: a picture of 8192 x 8192 streams through both a band at a time.
        run(["vips", "embed", "big.png", "huge.png", "0", "0", "8192", "8192", "--extend", "mirror"], work)
        print("8192 x 8192 PNG to TIFF, peak MiB: kimg %.0f, vips %.0f" % (
            peak_mib([kimg, "convert", "-q", "huge.png", "k5.tif"], work),
            peak_mib(["vips", "copy", "huge.png", "v5.tif[compression=deflate]"], work)))
        draw(rows, chart)
    finally:
        shutil.rmtree(work)


def draw(rows, chart):
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("no matplotlib: no chart")
        return
    tools = ["kimg", "vips", "oiiotool", "convert"]
    fig, ax = plt.subplots(figsize=(10, 5))
    width = 0.2
    for i, tool in enumerate(tools):
        xs = [r + (i - 1.5) * width for r in range(len(rows))]
        ys = [times[i] or 0 for _, times in rows]
        ax.bar(xs, ys, width, label=tool)
    ax.set_xticks(range(len(rows)))
    ax.set_xticklabels([name for name, _ in rows], rotation=15)
    ax.set_ylabel("seconds, median wall time")
    ax.set_title("4096 x 4096 conversions, whole processes")
    ax.legend()
    fig.tight_layout()
    fig.savefig(chart)
    print("chart: %s" % chart)


main()
