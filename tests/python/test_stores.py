"""Disks in a store: the library of `test:` shows a folder of the machine as one."""

import itertools
import os
import pathlib

import pytest

import kelm
from conftest import DISK_BYTES, GRAIN_BYTES, content, files

_numbers = itertools.count()


@pytest.fixture(scope="session")
def whole_store(tmp_path_factory):
    """The folder that the store is. The process loads it once."""
    modules = os.environ.get("KELM_TEST_STORES")
    if not modules:
        pytest.skip("KELM_TEST_STORES does not say where the library of the store is")
    folder = tmp_path_factory.mktemp("store").resolve()
    os.environ["KELM_STORES"] = modules
    os.environ["KELM_TEST_STORE"] = str(folder)
    os.environ["KELM_TEST_HOLDERS"] = str(folder.parent / "holders")
    return folder


@pytest.fixture
def store(whole_store):
    """The URI of an empty folder of the store, without a separator at its end."""
    name = f"test {next(_numbers)}"
    (whole_store / name).mkdir()
    return "test:/" + name.replace(" ", "%20")


def stored(whole_store, store):
    """The names of the files in a folder of the store."""
    return sorted(os.listdir(whole_store / store.removeprefix("test:/").replace("%20", " ")))


@pytest.mark.parametrize("options", [{}, {"compressed": True}, {"split": 4 << 20},
                                     {"split": 4 << 20, "on_demand": True},
                                     {"encrypt": True, "rounds": 1000, "password": "secret"}])
def test_disks_of_every_kind(store, image, options):
    disk = store + "/disk.vmdk"
    access = {"password": options["password"]} if "password" in options else {}
    made = kelm.import_image("image", disk, **options)
    assert made.path == disk
    assert content(disk, **access)[:DISK_BYTES] == image
    assert kelm.check(disk, **access).is_sound
    assert kelm.compare(disk, "image", **access).is_equal
    kelm.export_image(disk, "out", **access)
    assert pathlib.Path("out").read_bytes() == image


def test_an_open_disk_is_written_and_read(store, whole_store):
    disk = store + "/disk.vmdk"
    with kelm.create(disk, size=DISK_BYTES) as new:
        assert new.info.path == disk
        new.pwrite(b"x" * 100, 70000)
        with pytest.raises(kelm.InUse) as error:
            kelm.open(disk)
        assert error.value.properties["uri"] == disk + ".lock"
    with kelm.open(disk, "r+") as again:
        again.pwrite(b"y" * 100, 70100)
    assert content(disk)[70000:70200] == b"x" * 100 + b"y" * 100
    assert [name for name in stored(whole_store, store) if "lock" in name] == []


def test_chains_go_across_stores(store, chain, image):
    kelm.convert("full.vmdk", store + "/full.vmdk")
    with kelm.create("here.vmdk", parent=store + "/full.vmdk") as disk:
        disk.pwrite(b"B" * GRAIN_BYTES, GRAIN_BYTES)
    assert content("here.vmdk") == chain
    with kelm.open("here.vmdk") as disk:
        assert disk.parent.name == disk.info.parent == store + "/full.vmdk"
    with kelm.create(store + "/there.vmdk", parent="full.vmdk") as disk:
        disk.pwrite(b"B" * GRAIN_BYTES, GRAIN_BYTES)
    assert content(store + "/there.vmdk") == chain
    listed = {found.path: found.parent_count for found in kelm.list_backups(store)}
    assert listed == {os.path.abspath("full.vmdk"): 0, store + "/full.vmdk": 0,
                      store + "/there.vmdk": 1}


def test_who_holds_a_disk_is_told_and_shut_out_by_force(store, whole_store, image):
    disk = store + "/disk.vmdk"
    kelm.import_image("image", disk)
    assert kelm.unlock(disk) == kelm.Unlocked(True, True, (), ())
    name = disk.removeprefix("test:/")
    list_of_holders = pathlib.Path(os.environ["KELM_TEST_HOLDERS"])
    list_of_holders.write_text(f"7 backup-2 writer 0 unknown {name} write\n")
    holder = kelm.Holder("7", "backup-2", "writer", "0", False)
    assert kelm.unlock(disk) == kelm.Unlocked(False, True, (holder,), ())
    assert kelm.unlock(disk, force=True) == kelm.Unlocked(True, True, (), (holder,))
    assert list_of_holders.read_text() == ""
    assert content(disk) == image


def test_a_disk_of_the_machine_is_free_or_held_by_a_process_that_lives(image):
    with kelm.create("disk.vmdk", DISK_BYTES):
        assert kelm.unlock("disk.vmdk", force=True) == kelm.Unlocked(False, False, (), ())
    assert kelm.unlock("disk.vmdk") == kelm.Unlocked(True, False, (), ())
    with pytest.raises(kelm.NotFound):
        kelm.unlock("none.vmdk")


def test_a_disk_is_renamed_into_a_store_and_out_of_it(store, whole_store, chain):
    kelm.rename("child.vmdk", store + "/moved.vmdk")
    assert "child.vmdk" not in files()
    assert content(store + "/moved.vmdk") == chain
    kelm.rename(store + "/moved.vmdk", "back.vmdk")
    assert stored(whole_store, store) == []
    assert content("back.vmdk") == chain


def test_what_is_missing_has_the_name_of_the_store(store, tmp_path, monkeypatch):
    with pytest.raises(kelm.NotFound) as error:
        kelm.open(store + "/none.vmdk")
    assert error.value.filename == store + "/none.vmdk"
    with pytest.raises(kelm.NotFound):
        kelm.compare(store + "/none.vmdk", store + "/none.vmdk")
    (tmp_path / "kelm-files-ceph.so").write_text("no library")
    monkeypatch.setenv("KELM_STORES", str(tmp_path))
    with pytest.raises(kelm.IOFailure, match="There is no store for 'ceph:' here."):
        kelm.open("ceph:/disk.vmdk")


def test_images_stay_on_the_machine(store, whole_store, image):
    (whole_store / "raw").write_bytes(image)
    kelm.import_image("image", store + "/disk.vmdk")
    words = "An image must be a file, a device or a pipe of this machine."
    with pytest.raises(kelm.InvalidArgument, match=words):
        kelm.import_image("test:/raw", "new.vmdk")
    with pytest.raises(kelm.InvalidArgument, match=words):
        kelm.export_image(store + "/disk.vmdk", "test:/raw", overwrite=True)
    with pytest.raises(kelm.InvalidArgument, match=words):
        kelm.compare(store + "/disk.vmdk", "test:/raw")
    assert files() == ["image"]
    assert (whole_store / "raw").read_bytes() == image
