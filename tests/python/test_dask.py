"""Sequences on Dask: a lazy array of frames, and a conversion as a task a
frame on a cluster of two worker processes."""
import numpy as np
import pytest

import kelpimage
import kelpimage.dask

distributed = pytest.importorskip("dask.distributed")


def frames(tmp_path, count=6):
    for f in range(1, count + 1):
        picture = np.full((24, 32, 3), f * 20, np.uint8)
        picture[0, 0] = [f, 0, 0]
        kelpimage.imwrite(tmp_path / ("in.%04d.png" % f), picture)
    return str(tmp_path / "in.####.png")


def test_lazy_array(tmp_path):
    pattern = frames(tmp_path)
    stack = kelpimage.dask.imread(pattern)
    assert stack.shape == (6, 24, 32, 3) and stack.chunks[0] == (1,) * 6
    values = stack[:, 0, 0, 0].compute(scheduler="threads")
    assert list(values) == [1, 2, 3, 4, 5, 6]
    assert kelpimage.dask.imread(pattern, frames="2-4").shape[0] == 3


@pytest.fixture(scope="module")
def client():
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None)
    with distributed.Client(cluster) as c:
        yield c
    cluster.close()


def test_convert_on_a_cluster(tmp_path, client):
    pattern = frames(tmp_path)
    out = kelpimage.dask.convert(pattern, str(tmp_path / "out.####.tif"), client=client)
    assert out == [str(tmp_path / ("out.%04d.tif" % f)) for f in range(1, 7)]
    for f, name in enumerate(out, 1):
        assert kelpimage.imread(name)[0, 0, 0] == f


def test_a_damaged_frame_is_named(tmp_path, client):
    pattern = frames(tmp_path)
    (tmp_path / "in.0003.png").write_bytes(b"\x89PNG\r\n\x1a\n damaged")
    with pytest.raises(kelpimage.Error, match=r"1 of 6 frames failed:\n.*in\.0003\.png"):
        kelpimage.dask.convert(pattern, str(tmp_path / "out.####.png"), client=client, Compression=1)
    # The others finished, whole.
    assert kelpimage.imread(tmp_path / "out.0006.png")[0, 0, 0] == 6
    assert not (tmp_path / "out.0003.png").exists()
