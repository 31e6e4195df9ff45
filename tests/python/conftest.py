"""The package under test is the build's: PYTHONPATH names build/<preset>/python."""
import os

import numpy as np
import pytest

DATA = os.path.join(os.path.dirname(__file__), "..", "photoshop", "data")


@pytest.fixture
def picture():
    """An RGBA picture of 8 bits with detail and partial transparency."""
    y, x = np.mgrid[0:37, 0:53]
    rgba = np.stack([x * 4, y * 6, (x * 7 + y * 13) % 256, (x * 5 + y * 3) % 256], -1).astype(np.uint8)
    rgba[..., 3][rgba[..., 3] < 8] = 255
    return rgba


@pytest.fixture
def data():
    return lambda name: os.path.join(DATA, name)
