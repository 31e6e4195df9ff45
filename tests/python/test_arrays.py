"""Pictures as arrays: what independent readers see, sample types kept,
memory and file objects, association, depth, resize and every error path."""
import io
import os
import threading

import numpy as np
import pytest
from PIL import Image

import kelpimage


def test_8_bits_as_pil_reads_them(tmp_path, picture):
    Image.fromarray(picture, "RGBA").save(tmp_path / "pil.png")
    ours = kelpimage.imread(tmp_path / "pil.png")
    assert ours.dtype == np.uint8 and ours.shape == (37, 53, 4)
    assert np.array_equal(ours, picture)
    # And what we write, PIL reads as it was given.
    kelpimage.imwrite(tmp_path / "ours.png", picture)
    assert np.array_equal(np.asarray(Image.open(tmp_path / "ours.png")), picture)
    kelpimage.imwrite(tmp_path / "ours.tga", picture)
    assert np.array_equal(np.asarray(Image.open(tmp_path / "ours.tga").convert("RGBA")), picture)


def test_16_bits_kept(tmp_path):
    grey = (np.arange(40 * 30, dtype=np.uint32).reshape(30, 40) * 53 % 65536).astype(np.uint16)
    Image.fromarray(grey, "I;16").save(tmp_path / "grey16.png")
    ours = kelpimage.imread(tmp_path / "grey16.png")
    assert ours.dtype == np.uint16 and ours.shape == (30, 40, 1)
    assert np.array_equal(ours[..., 0], grey)
    rgb = np.dstack([grey, grey[::-1], 65535 - grey])
    for ext in ("png", "tif", "sgi", "iff", "psd", "pam"):
        kelpimage.imwrite(tmp_path / ("rgb16." + ext), rgb)
        back = kelpimage.imread(tmp_path / ("rgb16." + ext))
        assert back.dtype == np.uint16, ext
        assert np.array_equal(back, rgb), ext


@pytest.mark.parametrize("dtype,ext", [(np.float32, "exr"), (np.float16, "exr"), (np.float32, "tif")])
def test_floats_round_trip(tmp_path, dtype, ext):
    light = (np.linspace(-0.5, 6.0, 24 * 16 * 3).reshape(16, 24, 3)).astype(dtype)
    kelpimage.imwrite(tmp_path / ("f." + ext), light)
    back = kelpimage.imread(tmp_path / ("f." + ext))
    assert back.dtype == dtype
    assert np.array_equal(back, light)


def test_association(tmp_path, picture):
    kelpimage.imwrite(tmp_path / "a.exr", picture)  # premultiplied by the format
    straight = kelpimage.imread(tmp_path / "a.exr").astype(float)
    premultiplied = kelpimage.imread(tmp_path / "a.exr", premultiplied=True).astype(float)
    alpha = straight[..., 3:4]
    assert np.abs(premultiplied[..., :3] - straight[..., :3] * alpha).max() < 1e-3
    assert np.abs(straight * 255 - picture).max() < 0.6  # halves of 8-bit values


def test_memory_and_file_objects(tmp_path, picture):
    stream = io.BytesIO()
    kelpimage.imwrite(stream, picture, format="webp")
    raw = stream.getvalue()
    assert np.array_equal(kelpimage.imread(raw), picture)  # lossless WebP by default
    assert np.array_equal(kelpimage.imread(io.BytesIO(raw)), picture)
    (tmp_path / "a.webp").write_bytes(raw)
    assert np.array_equal(kelpimage.imread(tmp_path / "a.webp"), kelpimage.imread(raw))
    assert kelpimage.info(raw)["format"] == "webp"


def test_options_and_info(tmp_path, picture):
    small = tmp_path / "small.jpg"
    big = tmp_path / "big.jpg"
    kelpimage.imwrite(small, picture[..., :3], Quality=20)
    kelpimage.imwrite(big, picture[..., :3], Quality=98)
    assert small.stat().st_size < big.stat().st_size
    d = kelpimage.info(big)
    assert (d["format"], d["width"], d["height"], d["channels"], d["dtype"]) == ("jpg", 53, 37, 3, np.uint8)
    keys = {f["key"]: f for f in kelpimage.formats()}
    assert "Quality" in keys["jpg"]["options"] and keys["exr"]["premultiplied"]


def test_depth(tmp_path, picture):
    z = -1.0 / (1.0 + np.arange(37 * 53, dtype=np.float32).reshape(37, 53))
    kelpimage.imwrite(tmp_path / "z.iff", picture, depth=z)
    assert np.array_equal(kelpimage.read_depth(tmp_path / "z.iff"), z)
    with pytest.raises(kelpimage.Error, match="plain.png: the picture has no depth"):
        kelpimage.read_depth(_plain(tmp_path, picture))


def _plain(tmp_path, picture):
    kelpimage.imwrite(tmp_path / "plain.png", picture)
    return tmp_path / "plain.png"


def test_readers_and_writers_by_rows(tmp_path, picture):
    with kelpimage.create(tmp_path / "rows.tif", 53, 37, channels=4) as out:
        out.write_rows(0, picture[:20])
        out.write_rows(20, picture[20:])
    with kelpimage.open(tmp_path / "rows.tif") as reader:
        assert reader.shape == (37, 53, 4) and reader.frames == 1
        assert np.array_equal(reader.read_rows(10, 30), picture[10:30])
        assert np.array_equal(reader.read_region(5, 6, 25, 16), picture[6:16, 5:25])


def test_a_failed_write_leaves_the_target(tmp_path, picture):
    target = tmp_path / "keep.png"
    target.write_bytes(b"old")
    with pytest.raises(RuntimeError):
        with kelpimage.create(target, 53, 37, channels=4) as out:
            out.write_rows(0, picture[:10])
            raise RuntimeError("the caller gives up")
    assert target.read_bytes() == b"old"
    assert os.listdir(tmp_path) == ["keep.png"]


def test_errors_name_the_file(tmp_path, picture):
    with pytest.raises(kelpimage.Error, match="missing.png: No such file"):
        kelpimage.imread(tmp_path / "missing.png")
    (tmp_path / "cut.png").write_bytes(_plain(tmp_path, picture).read_bytes()[:200])
    with pytest.raises(kelpimage.Error, match="cut.png: "):
        kelpimage.imread(tmp_path / "cut.png")
    with pytest.raises(kelpimage.Error, match="<bytes>: "):
        kelpimage.imread(b"not a picture at all")
    with pytest.raises(kelpimage.Error, match='x.jpg: the jpg option "Quality" takes 1 to 100'):
        kelpimage.imwrite(tmp_path / "x.jpg", picture[..., :3], Quality=500)
    with pytest.raises(kelpimage.Error, match="x.nope: no format"):
        kelpimage.imwrite(tmp_path / "x.nope", picture)
    with pytest.raises(TypeError):
        kelpimage.imwrite(tmp_path / "x.png", picture.astype(np.int32))
    assert issubclass(kelpimage.Error, OSError)
    assert not (tmp_path / "x.jpg").exists()


def test_threads_read_at_once(tmp_path, picture):
    names = []
    for i in range(8):
        names.append(tmp_path / ("t%d.png" % i))
        kelpimage.imwrite(names[-1], np.roll(picture, i, axis=1))
    alone = [kelpimage.imread(n) for n in names]
    together = [None] * len(names)

    def read(i):
        for _ in range(5):
            together[i] = kelpimage.imread(names[i])

    threads = [threading.Thread(target=read, args=(i,)) for i in range(len(names))]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert all(np.array_equal(a, b) for a, b in zip(alone, together))


def test_resize(picture):
    half = kelpimage.resize(picture, 26, 18, filter="box")
    assert half.shape == (18, 26, 4) and half.dtype == np.uint8
    same = kelpimage.resize(np.full((8, 8, 3), 77, np.uint8), 3, 5)
    assert (same == 77).all()
    with pytest.raises(ValueError, match="zoom filter"):
        kelpimage.resize(picture, 10, 10, filter="nosuchfilter")


def test_convert(tmp_path, picture):
    kelpimage.imwrite(tmp_path / "in.png", picture)
    assert kelpimage.convert(tmp_path / "in.png", tmp_path / "out.tga") == ""
    assert np.array_equal(kelpimage.imread(tmp_path / "out.tga"), picture)
    warnings = kelpimage.convert(tmp_path / "in.png", tmp_path / "out.jpg", Quality=90)
    assert "alpha" in warnings
