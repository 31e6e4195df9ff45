"""Photoshop documents: layers and composites as psd-tools sees them, and
edits saved whole."""
import numpy as np
import pytest
from psd_tools import PSDImage

import kelpimage


@pytest.mark.parametrize("name", ["2layers.psd", "16bit5x5.psd", "mask.psd", "group.psd"])
def test_layers_as_psd_tools_sees_them(data, name):
    ours = kelpimage.Psd(data(name))
    theirs = PSDImage.open(data(name))
    assert (ours.width, ours.height) == theirs.size
    flat = [l for l in theirs.descendants() if not l.is_group()]
    assert [l.name for l in ours.layers] == [l.name for l in flat]
    for mine, layer in zip(ours.layers, flat):
        assert mine.opacity == layer.opacity
        assert mine.visible == layer.visible
        assert mine.bbox == layer.bbox
        if mine.bbox[2] <= mine.bbox[0]:
            continue
        pixels = mine.pixels
        want = np.asarray(layer.topil())
        assert pixels.shape[:2] == want.shape[:2]
        if pixels.dtype == np.uint16:
            pixels = (pixels.astype(np.uint32) * 255 + 32767) // 65535
        assert np.abs(pixels.astype(int) - want.astype(int)).max() <= 1, mine.name


def test_composite_and_sets(data):
    doc = kelpimage.Psd(data("group.psd"))
    theirs = PSDImage.open(data("group.psd"))
    flat = doc.composite()
    assert flat.shape[:2] == (theirs.height, theirs.width)
    assert np.array_equal(flat[..., :3], np.asarray(theirs.topil().convert("RGB")))
    assert doc.sets == ["Group 1"]
    assert doc.set_composite("Group 1").shape[:2] == flat.shape[:2]
    with pytest.raises(kelpimage.Error, match='has no layer set "nothing"'):
        doc.set_composite("nothing")


def test_new_documents_and_edits(tmp_path):
    doc = kelpimage.Psd(64, 48)
    red = np.zeros((48, 64, 4), np.uint8)
    red[..., 0] = 255
    red[..., 3] = 128
    doc.add_layer("red", red)
    doc.set_opacity("red", 200)
    doc.set_blend_mode("red", "mul")
    doc.save(tmp_path / "new.psd")
    theirs = PSDImage.open(tmp_path / "new.psd")
    assert [l.name for l in theirs] == ["Background", "red"]
    assert theirs[1].opacity == 200 and theirs[1].blend_mode.name == "MULTIPLY"
    back = kelpimage.Psd(tmp_path / "new.psd")
    back.delete_layer("red")
    back.save(tmp_path / "fewer.psd")
    assert [l.name for l in PSDImage.open(tmp_path / "fewer.psd")] == ["Background"]
    with pytest.raises(KeyError):
        back.set_opacity("nothing", 10)
    with pytest.raises(kelpimage.Error, match="missing.psd"):
        kelpimage.Psd(tmp_path / "missing.psd")
