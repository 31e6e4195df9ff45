#!/usr/bin/python3
"""Checks what psd_dump wrote of documents against psd-tools' own reading:
header, every layer record (name, set structure, rectangle, blend key,
opacity, clipping, hidden flag), the samples of every channel, of the
flattened image and of the alpha channels, and the set composites
(psdtools_sets). Usage: psdtools_compare.py DOC FOLDER [DOC FOLDER]..."""
import os
import sys

from psd_tools.constants import Tag
from psd_tools.psd import PSD


def records(psd):
    info = psd.layer_and_mask_information
    li = info.layer_info
    if (li is None or not li.layer_records) and info.tagged_blocks:
        block = info.tagged_blocks.get(Tag.LAYER_16)
        li = block.data if block is not None else li
    if li is None or not li.layer_records:
        return [], []
    return li.layer_records, li.channel_image_data


def name_of(rec):
    luni = rec.tagged_blocks.get_data(Tag.UNICODE_LAYER_NAME) if rec.tagged_blocks else None
    name = luni.rstrip("\0") if luni is not None else rec.name
    # psd-tools leaves characters past the first plane as surrogate pairs.
    return name.encode("utf-16-le", "surrogatepass").decode("utf-16-le")


def section_of(rec):
    if not rec.tagged_blocks:
        return 0
    divider = rec.tagged_blocks.get_data(Tag.SECTION_DIVIDER_SETTING)
    return int(divider.kind) if divider is not None else 0


def main(path, folder):
    psd = PSD.read(open(path, "rb"))
    h = psd.header
    problems = []
    layers, chans, comps, alphas = [], {}, {}, {}
    with open(os.path.join(folder, "manifest.txt")) as m:
        for line in m:
            f = line.split()
            if f[0] == "doc":
                want = [h.width, h.height, h.depth, h.channels, int(h.color_mode)]
                if [int(x) for x in f[1:]] != want:
                    problems.append("header %s, psd-tools %s" % (f[1:], want))
            elif f[0] == "layer":
                layers.append(f)
            elif f[0] == "lchan":
                chans[(int(f[1]), int(f[2]))] = f[3]
            elif f[0] == "composite":
                comps[int(f[1])] = f[2]
            elif f[0] == "alpha":
                alphas[int(f[1])] = f[2]
    recs, data = records(psd)
    if len(recs) != len(layers):
        problems.append("%d layers, psd-tools %d" % (len(layers), len(recs)))
    for i, (rec, f) in enumerate(zip(recs, layers)):
        name = bytes.fromhex(f[11]).decode("utf-8", "replace") if f[11] != "-" else ""
        mine = [int(f[2]), int(f[3]), int(f[4]), int(f[5]), int(f[6]), f[7], int(f[8]), int(f[9]), int(f[10]) & 2, name]
        theirs = [section_of(rec), rec.top, rec.left, rec.bottom, rec.right, rec.blend_mode.value.hex(),
                  rec.opacity, int(rec.clipping), 0 if rec.flags.visible else 2, name_of(rec)]
        if mine != theirs:
            problems.append("layer %d: %s, psd-tools %s" % (i, mine, theirs))
        for j, info in enumerate(rec.channel_info):
            cid = int(info.id)
            if cid == -2 and rec.mask_data is not None:
                w, hh = rec.mask_data.right - rec.mask_data.left, rec.mask_data.bottom - rec.mask_data.top
            elif cid == -3 and rec.mask_data is not None and rec.mask_data.real_flags is not None:
                w, hh = (rec.mask_data.real_right - rec.mask_data.real_left,
                         rec.mask_data.real_bottom - rec.mask_data.real_top)
            elif cid < -3 or cid > 2:
                continue
            else:
                w, hh = rec.right - rec.left, rec.bottom - rec.top
            if w <= 0 or hh <= 0:
                continue
            want = data[i][j].get_data(w, hh, h.depth)
            got_name = chans.get((i, cid))
            if got_name is None:
                problems.append("layer %d channel %d not read" % (i, cid))
                continue
            got = open(os.path.join(folder, got_name), "rb").read()
            if got != want:
                problems.append("layer %d channel %d: samples differ (%d bytes, psd-tools %d)" % (i, cid, len(got), len(want)))
    planes = psd.image_data.get_data(h)
    for cid, fname in comps.items():
        if open(os.path.join(folder, fname), "rb").read() != planes[cid]:
            problems.append("flattened channel %d differs" % cid)
    for a, fname in alphas.items():
        if open(os.path.join(folder, fname), "rb").read() != planes[a + 3]:
            problems.append("alpha %d differs" % a)
    if len(comps) != min(h.channels, 3):
        problems.append("%d flattened channels, %d expected" % (len(comps), min(h.channels, 3)))
    for p in problems:
        print("%s: %s" % (os.path.basename(path), p))
    return 1 if problems else 0


if __name__ == "__main__":
    # Pairs of document and folder, all in one process: psd-tools is slow to load.
    import psdtools_sets
    args = sys.argv[1:]
    failed = 0
    for doc, folder in zip(args[0::2], args[1::2]):
        failed |= main(doc, folder)
        if psdtools_sets.main(doc, folder):
            print("%s: set composites differ" % os.path.basename(doc))
            failed = 1
    sys.exit(failed)
