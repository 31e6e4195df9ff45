"""Frame sequences on Dask: a sequence read as one lazy array, and a
sequence converted as one task a frame on a dask.distributed cluster.

Frames are named by the patterns kimg takes: "shot.####.exr" (padded to
the marks), "shot.#.exr" (unpadded) or "shot.%04d.exr". Nothing passes
between workers but file names: each worker reads and writes the shared
file system.

    import kelpimage.dask
    from dask.distributed import Client
    with Client("scheduler:8786"):
        kelpimage.dask.convert("in/shot.####.exr", "out/shot.####.png")
"""
import dask
import dask.array as da
import numpy as np

import kelpimage

__all__ = ["imread", "convert", "frames_of"]


def frames_of(pattern, frames=None):
    """(frame, file name) of a pattern's frames: those on disk, or the frames
    given ("FIRST-LAST", "FIRST-LASTxSTEP", or a list of numbers)."""
    if frames is None or isinstance(frames, str):
        found = kelpimage.frame_files(pattern, frames or "")
    else:
        names = dict(kelpimage.frame_files(pattern, "%d-%d" % (min(frames), max(frames)))) if frames else {}
        found = [(int(f), names[int(f)]) for f in frames]
    if not found:
        raise kelpimage.Error("%s: no frames of this pattern exist" % pattern)
    return found


def imread(pattern, frames=None, premultiplied=False):
    """A lazy dask.array of (frames, height, width, channels), one chunk a
    frame, read on the workers. The first frame is opened here for the
    shape and sample type; every frame must have them."""
    found = frames_of(pattern, frames)
    with kelpimage.open(found[0][1]) as first:
        shape, dtype = first.shape, first.dtype

    def load(name):
        picture = kelpimage.imread(name, premultiplied=premultiplied)
        if picture.shape != shape or picture.dtype != dtype:
            raise kelpimage.Error("%s: is %s %s, the sequence's frames %s %s" % (name, picture.shape, picture.dtype,
                                                                               shape, dtype))
        return picture

    chunks = [da.from_delayed(dask.delayed(load)(name), shape=shape, dtype=dtype) for _, name in found]
    return da.stack(chunks)


def _convert_one(source, target, options):
    """One frame, on a worker: its output whole or not at all."""
    kelpimage.convert(source, target, **options)
    return target


def convert(in_pattern, out_pattern, client=None, frames=None, **options):
    """Converts each frame of in_pattern to the same frame of out_pattern as
    one task on the client (the current one when None), with kelpimage.convert's
    options; a task converts on one thread (threads=1), as the cluster runs
    a task on each of its cores. Gives the outputs in frame order. When frames fail, the others
    finish first, then kelpimage.Error names each failed frame and its reason."""
    from dask.distributed import default_client, wait

    client = client or default_client()
    options.setdefault("threads", 1)
    found = frames_of(in_pattern, frames)
    out = kelpimage.frame_files(out_pattern, "%d" % found[0][0]) if found else []
    if not out:
        raise ValueError("not a frame pattern: %s" % out_pattern)
    targets = [kelpimage.frame_files(out_pattern, str(f))[0][1] for f, _ in found]
    futures = [client.submit(_convert_one, source, target, options, key="kelpimage-convert-%s" % target, pure=False)
               for (_, source), target in zip(found, targets)]
    wait(futures)
    failed = []
    for (frame, source), future in zip(found, futures):
        if future.status != "finished":
            failed.append("%s: %s" % (source, future.exception()))
    if failed:
        raise kelpimage.Error("%d of %d frames failed:\n%s" % (len(failed), len(found), "\n".join(failed)))
    return targets
