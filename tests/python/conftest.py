"""What the tests of the package share. Each works in a folder of its own."""

import faulthandler
import os
import pathlib
import random
import sys

import pytest

import kelm

DISK_BYTES = 8 << 20
GRAIN_BYTES = 65536

# Fewer than anybody should take, so that the tests are fast.
ROUNDS = 1000


@pytest.fixture(autouse=True)
def folder(tmp_path, monkeypatch):
    """The working directory, empty."""
    monkeypatch.chdir(tmp_path)
    # A call that keeps the interpreter's lock would hang for good.
    faulthandler.dump_traceback_later(600, exit=True)
    yield tmp_path
    faulthandler.cancel_dump_traceback_later()


@pytest.fixture
def image():
    """The bytes of the file "image": 8 MiB that compress a little, and have zeros in the middle."""
    half = bytes(random.Random(1).choices(range(16), k=3 << 20))
    data = half + bytes(2 << 20) + half[::-1]
    assert len(data) == DISK_BYTES
    pathlib.Path("image").write_bytes(data)
    return data


@pytest.fixture
def chain(image):
    """"full.vmdk" with the image, and its child "child.vmdk" with another second grain. Returns the
    content of the child."""
    kelm.import_image("image", "full.vmdk", compressed=True)
    with kelm.create("child.vmdk", parent="full.vmdk") as disk:
        disk.pwrite(b"B" * GRAIN_BYTES, GRAIN_BYTES)
    return image[:GRAIN_BYTES] + b"B" * GRAIN_BYTES + image[2 * GRAIN_BYTES:]


def patch(path, offset, data):
    """Overwrites a part of a file."""
    with open(path, "r+b") as file:
        file.seek(offset)
        file.write(data)


def content(path, **options):
    """All that a disk reads as."""
    with kelm.open(path, **options) as disk:
        return disk.read()


def files():
    """The names of the files in the working directory."""
    return sorted(os.listdir())


class NoForcedSwitches:
    """Nobody gets the interpreter's lock unless who has it releases it."""

    def __enter__(self):
        self._interval = sys.getswitchinterval()
        sys.setswitchinterval(3600)

    def __exit__(self, *_):
        sys.setswitchinterval(self._interval)
