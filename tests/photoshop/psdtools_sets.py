"""Compares the set composites psd_dump wrote with psd-tools' composite of
the same group. Sets of "norm" and "pass" layers must agree within 2 levels
in every channel where both are not transparent (and in transparency); for
other blend modes, which psd-tools computes its own way, the differences
are reported. Prints one line per set."""
import os
import sys

import numpy as np
from psd_tools import PSDImage

LIMIT = 2


def main(path, folder):
    psd = PSDImage.open(path)
    w, h = psd.width, psd.height
    sets = {}
    with open(os.path.join(folder, "manifest.txt")) as m:
        for line in m:
            f = line.split()
            if f[0] == "set":
                sets[bytes.fromhex(f[2]).decode("utf-8", "replace")] = f[3]
    groups = {g.name: g for g in psd.descendants() if g.is_group()}
    failed = 0
    for name, fname in sets.items():
        group = groups.get(name)
        if group is None:
            continue
        raw = np.fromfile(os.path.join(folder, fname), dtype=">u2" if psd.depth == 16 else np.uint8)
        ours = raw.reshape(4, h, w).transpose(1, 2, 0).astype(float)
        if psd.depth == 16:
            ours = ours / 257.0
        theirs = group.composite(viewport=(0, 0, w, h))
        if theirs is None:
            continue
        theirs = np.asarray(theirs.convert("RGBA")).astype(float)
        both = (ours[..., 3] > 0) & (theirs[..., 3] > 0)
        alpha = np.abs(ours[..., 3] - theirs[..., 3])
        colour = np.abs(ours[..., :3] - theirs[..., :3])[both]
        worst = max(alpha.max(), colour.max() if colour.size else 0)
        modes = {layer.blend_mode.value for layer in group.descendants()} - {b"norm", b"pass"}
        plain = not modes
        print("%s [%s]: largest difference %.0f, mean %.3f%s" % (
            os.path.basename(path), name, worst, (alpha.mean() + (colour.mean() if colour.size else 0)) / 2,
            "" if plain else " (modes %s)" % b",".join(sorted(modes)).decode()))
        if plain and worst > LIMIT:
            failed = 1
    return failed
