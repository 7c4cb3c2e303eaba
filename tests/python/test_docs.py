"""The examples of the docstrings and of the page, run in a folder with an image and two disks."""

import doctest
import hashlib
import os
import pathlib

import pytest

import kelm
from conftest import GRAIN_BYTES

PAGE = pathlib.Path(__file__).parents[2] / "docs" / "python.md"
FINDER = doctest.DocTestFinder()
EXAMPLES = [test for test in FINDER.find(kelm, "kelm", module=False) if test.examples]


@pytest.fixture(autouse=True)
def disks(folder):
    """The image "disk.img", the disk "monday.vmdk" made of it, and its child "tuesday.vmdk"."""
    data = bytes(3) + b"boot sector" + bytes((8 << 20) - 14)
    pathlib.Path("disk.img").write_bytes(data)
    kelm.import_image("disk.img", "monday.vmdk", compressed=True)
    tuesday = data[:GRAIN_BYTES] + b"mail" * (GRAIN_BYTES // 4) + data[2 * GRAIN_BYTES:]
    pathlib.Path("disk.img").write_bytes(tuesday)
    kelm.import_image("disk.img", "tuesday.vmdk", compressed=True, parent="monday.vmdk")
    pathlib.Path("disk.img").write_bytes(data)


@pytest.mark.parametrize("test", EXAMPLES, ids=[test.name for test in EXAMPLES])
def test_docstring(test):
    test.globs = {"kelm": kelm, "os": os, "hashlib": hashlib, "pathlib": pathlib}
    result = doctest.DocTestRunner().run(test)
    assert result.attempted > 0 and result.failed == 0


def test_every_function_has_an_example():
    with_examples = {test.name for test in EXAMPLES}
    functions = {f"kelm.{name}" for name in kelm.__all__ if name.islower() and name[0] != "_"}
    assert functions - with_examples == {"kelm.undo_repair"}


def test_page():
    result = doctest.testfile(str(PAGE), module_relative=False)
    assert result.attempted > 10 and result.failed == 0
