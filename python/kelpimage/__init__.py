"""kelp-image for Python: pictures of every format the library knows as
NumPy arrays, and frame sequences spread over a Dask cluster (kelpimage.dask).

Arrays are (height, width, channels), the top row first, channels red,
green, blue then alpha (grey: 1 or 2), at the file's own sample type:
uint8, uint16, float16 or float32. Colour is straight (unassociated) as PIL
gives it, whatever the file holds; premultiplied=True asks for it associated.

    import kelpimage
    picture = kelpimage.imread("shot.0001.exr")
    kelpimage.imwrite("shot.0001.png", picture, Compression=3)

Every failure raises kelpimage.Error, an OSError naming the file and the
reason.
"""
import io
import os

import numpy as np

from ._kelpimage import Error, Psd, PsdLayer, Reader, Writer, frame_files
from . import _kelpimage

__all__ = ["Error", "Psd", "PsdLayer", "Reader", "Writer", "imread", "read_depth", "imwrite", "info", "formats",
           "open", "create", "resize", "convert", "frame_files"]


def _source(source):
    """A path, or bytes: a binary file object is read whole."""
    if isinstance(source, (str, os.PathLike, bytes, bytearray, memoryview)):
        return source
    if hasattr(source, "read"):
        data = source.read()
        if not isinstance(data, (bytes, bytearray)):
            raise TypeError("a file object to read from is opened in binary mode")
        return data
    raise TypeError("a picture comes from a path, bytes or a binary file object, not %s" % type(source).__name__)


def open(source, format=None, lenient=False, layer=None, set=None, alpha=None):  # noqa: A001 - the package's own
    """A Reader of a picture: a path, bytes or a binary file object.

    format: the format's key when the bytes should not tell it; lenient: step
    over damage a decoder can step over, saying so in .warnings; layer, set,
    alpha: of a Photoshop document, that layer (a name, or "#N"), set or
    alpha channel instead of its flattened image.
    """
    return Reader(_source(source), format or "", lenient, layer or "", set or "", -1 if alpha is None else alpha)


def imread(source, frame=0, premultiplied=False, **options):
    """The picture as an array (see the package's description)."""
    with open(source, **options) as reader:
        if frame:
            reader.seek(frame)
        return reader.read(premultiplied=premultiplied)


def read_depth(source, frame=0, **options):
    """The depth channel as float32 (height, width): -1/z, 0 where there is none."""
    with open(source, **options) as reader:
        if frame:
            reader.seek(frame)
        return reader.read_depth()


def _picture(array):
    array = np.asarray(array)
    if array.dtype == np.float64:
        array = array.astype(np.float32)
    elif array.dtype == np.bool_:
        array = array.astype(np.uint8) * 255
    if array.ndim == 2:
        array = array[:, :, np.newaxis]
    return array


def create(target, width, height, channels=3, dtype=np.uint8, format=None, premultiplied=False, depth=False,
           dpi=0.0, **options):
    """A Writer: to a path (whole or not at all), or with target None into
    bytes that close() gives. Options by the names formats() lists."""
    return Writer(target, width, height, channels, np.dtype(dtype), format or "", premultiplied, depth, dpi, options)


def imwrite(target, array, format=None, premultiplied=False, depth=None, **options):
    """Writes the array: to a path (the format from its extension, or
    format=), or to a binary file object (format= needed). The array's
    sample type is kept where the format holds it. Gives the writer's
    warnings (what the format could not hold), empty when none."""
    array = _picture(array)
    height, width, channels = array.shape
    to_file = not isinstance(target, (str, os.PathLike))
    if to_file and not hasattr(target, "write"):
        raise TypeError("a picture goes to a path or a binary file object, not %s" % type(target).__name__)
    if to_file and not format:
        raise ValueError("a picture written to a file object needs format=")
    writer = create(None if to_file else target, width, height, channels, array.dtype, format, premultiplied,
                    depth is not None, **options)
    try:
        writer.write(array, depth)
    except BaseException:
        writer.abandon()
        raise
    warnings = writer.warnings
    data = writer.close()
    if to_file:
        target.write(data)
    return warnings


def info(source, **options):
    """What the picture is: format, width, height, channels, dtype, frames,
    resolution, fields..., as a dict."""
    with open(source, **options) as reader:
        return reader.describe()


def formats():
    """Every format the library knows: its key, extensions, what it reads and
    writes, and its writer's options with their ranges."""
    return _kelpimage.formats()


def resize(array, width, height, filter=None, blur=(0.0, 0.0), premultiplied=False):
    """The array at width x height through the library's zoom filters (kimg
    filters lists them; None: the default for the change of size). Colour is
    weighed by alpha. The zoom works at 8 or 16 bits: float arrays go through
    16 bits, clamped to 0 to 1."""
    array = _picture(array)
    return _kelpimage.resize(array, width, height, filter or "", float(blur[0]), float(blur[1]), premultiplied)


def convert(source, target, format=None, frame=None, size=None, filter=None, lenient=False, threads=0, **options):
    """A file into another format, in one pass, band by band: samples, alpha
    and depth kept where the target holds them. threads=1 reads and writes in
    turn; otherwise the next band is read while the last is written (the
    same bytes either way). Gives the warnings."""
    width, height = size if size else (0, 0)
    return _kelpimage.convert(os.fspath(source), os.fspath(target), format or "", -1 if frame is None else frame,
                              width, height, filter or "", 0.0, 0.0, lenient, threads, options)
