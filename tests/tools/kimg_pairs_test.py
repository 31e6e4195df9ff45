#!/usr/bin/python3
"""Every pair of the lossless formats kimg writes: a picture made by PIL goes
through kimg into the first format and from there into the second, and an
independent reader (PIL, ImageMagick or OpenImageIO) reads the result.

An opaque picture comes back with the same pixels (EXR's halves within half
a level). A partly transparent one looks the same: the same alpha, and the
colour as it shows (premultiplied by alpha) within a level or two, whatever
association each format holds its colour in.

Usage: kimg_pairs_test.py KIMG
"""
import itertools
import os
import subprocess
import sys
import tempfile

import numpy as np
from PIL import Image

KIMG = sys.argv[1]
W, H = 48, 32
# Formats and whether they hold alpha. GIF, JPEG and Radiance lose pixels.
FORMATS = {"iff": True, "sgi": True, "psd": True, "png": True, "tif": True, "exr": True,
           "webp": True, "tga": True, "bmp": True, "pam": True, "ppm": False}


def run(*args):
    done = subprocess.run(args, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit("FAIL: %s: %s" % (" ".join(args), done.stderr.strip()))
    return done.stdout


def source(alpha):
    y, x = np.mgrid[0:H, 0:W]
    rgb = np.stack([x * 255 // (W - 1), y * 255 // (H - 1), (x * 7 + y * 13) % 256], -1)
    a = np.full((H, W), 255) if not alpha else (x * 255 // (W - 1) + y * 31) % 256
    a[0, 0] = 0 if alpha else 255
    return np.dstack([rgb, a]).astype(np.uint8)


def dump(path):
    """Premultiplied red, green, blue and alpha, 0 to 1, as OpenImageIO reads
    the file: the samples as they lie, EXR and IFF colour premultiplied."""
    out = run("oiiotool", "--no-autopremult", "--dumpdata", path)
    values = []
    for line in out.splitlines():
        if "Pixel (" in line:
            # Integers print their values, then the same as 0 to 1 in brackets.
            text = line.split(":", 1)[1]
            text = text.split("(")[1].rstrip(")") if "(" in text else text
            values.append([float(v) for v in text.split()])
    data = np.array(values, dtype=float).reshape(H, W, -1)
    if data.shape[2] == 3:
        data = np.dstack([data, np.ones((H, W))])
    return data


def read(path, work):
    """The picture as premultiplied RGBA floats, read by a reader of its own:
    OpenImageIO for EXR, IFF and TIFFs of 16 bits or floats, psd-tools for
    documents, ImageMagick for PAM, PIL for the rest."""
    ext = path.rsplit(".", 1)[1]
    if ext in ("exr", "iff"):
        return dump(path)
    if ext == "tif":
        info = run("oiiotool", "--info", "-v", path)
        if "uint8" not in info.splitlines()[0]:
            data = dump(path)
            if "UnassociatedAlpha: 1" in info:
                data[..., :3] *= data[..., 3:4]
            return data
    if ext == "psd":
        from psd_tools import PSDImage
        data = np.asarray(PSDImage.open(path).composite().convert("RGBA")).astype(float) / 255
        data[..., :3] *= data[..., 3:4]
        return data
    if ext == "pam":
        png = os.path.join(work, "pam.png")
        run("/usr/bin/convert", path, png)
        path = png
    im = Image.open(path)
    im.load()
    if im.mode == "RGBa":  # a TIFF of associated alpha: premultiplied as it lies
        data = np.asarray(im).astype(float) / 255
        return data
    data = np.asarray(im.convert("RGBA")).astype(float) / 255
    data[..., :3] *= data[..., 3:4]
    return data


def main():
    failures = 0
    with tempfile.TemporaryDirectory() as work:
        for alpha in (False, True):
            picture = source(alpha)
            src = os.path.join(work, "src-%d.png" % alpha)
            Image.fromarray(picture, "RGBA").save(src)
            want = picture.astype(float) / 255
            want[..., :3] *= want[..., 3:4]
            for first, second in itertools.product(FORMATS, repeat=2):
                if alpha and not (FORMATS[first] and FORMATS[second]):
                    continue
                middle = os.path.join(work, "a.%s" % first)
                last = os.path.join(work, "b.%s" % second)
                run(KIMG, "convert", "-q", src, middle)
                run(KIMG, "convert", "-q", middle, last)
                got = read(last, work)
                if not alpha:
                    got[..., 3] = 1.0
                # Opaque: exact but for EXR's halves. Transparent: colour
                # through a premultiplied 8-bit format and back is a level or
                # two off where alpha is small.
                exr = "exr" in (first, second)
                tolerance = (2.5 if alpha else (0.5 if exr else 0.0)) / 255 + 1e-6
                worst = np.abs(got - want).max()
                if worst > tolerance:
                    where = np.unravel_index(np.argmax(np.abs(got - want)), got.shape)
                    print("FAIL: %s -> %s%s: off by %.1f levels at %s: %s, not %s" % (
                        first, second, " with alpha" if alpha else "", worst * 255, where,
                        got[where[:2]] * 255, want[where[:2]] * 255))
                    failures += 1
    if failures:
        sys.exit("%d pairs failed" % failures)
    print("pairs: all checks passed")


main()
