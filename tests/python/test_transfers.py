"""Images, copies, comparisons, checks and digests."""

import dataclasses
import hashlib
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import threading

import pytest

import kelm
from conftest import DISK_BYTES, GRAIN_BYTES, content, files, patch


class Progress:
    """Keeps what it is called with."""

    def __init__(self):
        self.calls = []

    def __call__(self, done, total):
        assert threading.current_thread() is threading.main_thread()
        self.calls.append((done, total))

    def verify_rises_to(self, size):
        assert self.calls[-1] == (size, size)
        assert self.calls == sorted(self.calls)
        assert {total for _, total in self.calls} == {size}


def feed(path, data):
    """Writes to a named pipe as soon as somebody reads it."""
    def work():
        with open(path, "wb") as pipe:
            pipe.write(data)

    thread = threading.Thread(target=work)
    thread.start()
    return thread


def test_an_image_comes_back(image):
    progress = Progress()
    made = kelm.import_image("image", "disk.vmdk", compressed=True, progress=progress)
    assert made == kelm.Made(os.path.abspath("disk.vmdk"), DISK_BYTES, DISK_BYTES, True, None)
    progress.verify_rises_to(DISK_BYTES)
    assert files() == ["disk.vmdk", "disk.vmdk.digests", "image"]

    progress = Progress()
    exported = kelm.export_image("disk.vmdk", "restored", progress=progress)
    assert (exported.path, exported.size) == ("restored", DISK_BYTES)
    assert (exported.left, exported.written) == (0, 0)
    progress.verify_rises_to(DISK_BYTES)
    assert pathlib.Path("restored").read_bytes() == image


def test_zeros_are_holes_or_written_or_left():
    pathlib.Path("image").write_bytes(b"k" * 65536 + bytes(DISK_BYTES - 65536))
    kelm.import_image("image", "disk.vmdk", digests=False)
    zeros = DISK_BYTES - 65536
    for policy, expected in (("punch", (zeros, 0, 0)), ("skip", (0, zeros, 0)),
                             ("write", (0, 0, zeros))):
        pathlib.Path("restored").write_bytes(b"x" * DISK_BYTES)
        exported = kelm.export_image("disk.vmdk", "restored", overwrite=True, zeros=policy)
        assert (exported.punched, exported.left, exported.written) == expected
        rest = b"x" * zeros if policy == "skip" else bytes(zeros)
        assert pathlib.Path("restored").read_bytes() == b"k" * 65536 + rest
    with pytest.raises(ValueError, match="zeros is neither"):
        kelm.export_image("disk.vmdk", "restored", overwrite=True, zeros="Punch")


def test_an_image_of_odd_size_keeps_it():
    pathlib.Path("image").write_bytes(b"kelm" * 300 + b"!")
    made = kelm.import_image("image", "disk.vmdk", digests=False)
    assert (made.size, made.image_size, made.has_digests) == (DISK_BYTES, 1201, False)
    assert files() == ["disk.vmdk", "image"]
    assert kelm.export_image("disk.vmdk", "restored").size == 1201
    assert pathlib.Path("restored").read_bytes() == b"kelm" * 300 + b"!"


@pytest.mark.parametrize("options", [
    {}, {"compressed": True, "level": 6, "threads": 1}, {"split": 2 << 20},
    {"split": 4 << 20, "on_demand": True, "compressed": True}])
def test_conversion_keeps_the_content(options, image):
    kelm.import_image("image", "disk.vmdk", compressed=True, label="Monday")
    progress = Progress()
    made = kelm.convert("disk.vmdk", "other.vmdk", progress=progress, **options)
    assert (made.size, made.image_size, made.has_digests) == (DISK_BYTES, DISK_BYTES, True)
    progress.verify_rises_to(DISK_BYTES)
    assert content("other.vmdk") == image
    with kelm.open("other.vmdk") as disk:
        assert disk.info.compressed == options.get("compressed", False)
        assert (disk.info.label, disk.info.source) == ("Monday", os.path.abspath("image"))
    assert kelm.check("other.vmdk", needs_digests=True).is_sound


def test_conversion_can_enlarge_and_not_shrink(image):
    kelm.import_image("image", "disk.vmdk")
    made = kelm.convert("disk.vmdk", "large.vmdk", size=DISK_BYTES + (1 << 20))
    assert made.image_size == DISK_BYTES + (1 << 20)
    assert content("large.vmdk") == image + bytes(1 << 20)
    before = files()
    with pytest.raises(kelm.InvalidArgument, match="larger, not smaller"):
        kelm.convert("disk.vmdk", "small.vmdk", size=1 << 20)
    with pytest.raises(kelm.Exists):
        kelm.convert("disk.vmdk", "large.vmdk")
    with pytest.raises(kelm.InvalidArgument):
        kelm.convert("disk.vmdk", "disk.vmdk")
    assert files() == before


def test_conversion_over_a_parent_stores_differences(chain):
    kelm.convert("child.vmdk", "whole.vmdk", compressed=True)
    kelm.convert("whole.vmdk", "again.vmdk", parent="full.vmdk")
    assert content("again.vmdk") == chain
    with kelm.open("again.vmdk") as disk:
        assert [extent.start for extent in disk.extents()
                if extent.place is kelm.Place.HERE] == [GRAIN_BYTES]


def test_a_child_of_an_image_stores_differences(chain):
    pathlib.Path("new").write_bytes(chain)
    kelm.import_image("new", "new.vmdk", parent="full.vmdk")
    assert content("new.vmdk") == chain
    with kelm.open("new.vmdk") as disk:
        assert disk.space().payload_bytes == GRAIN_BYTES


def test_a_pipe_is_imported_and_other_threads_of_python_run(image):
    # The writer is such a thread: were the interpreter kept, neither would come to an end.
    os.mkfifo("pipe")
    writer = feed("pipe", image)
    made = kelm.import_image("pipe", "disk.vmdk", size=DISK_BYTES)
    writer.join()
    assert made.image_size == DISK_BYTES
    assert content("disk.vmdk") == image


def test_a_pipe_that_ends_too_early_leaves_nothing_unless_that_is_expected(image):
    os.mkfifo("pipe")
    writer = feed("pipe", image[:100_000])
    with pytest.raises(kelm.IOFailure) as raised:
        kelm.import_image("pipe", "disk.vmdk", size=DISK_BYTES)
    writer.join()
    assert raised.value.code == 3
    assert files() == ["image", "pipe"]
    writer = feed("pipe", image[:100_000])
    kelm.import_image("pipe", "disk.vmdk", size=DISK_BYTES, pad=True)
    writer.join()
    assert content("disk.vmdk") == image[:100_000] + bytes(DISK_BYTES - 100_000)


def test_a_pipe_needs_a_size(image):
    os.mkfifo("pipe")
    writer = feed("pipe", b"")
    with pytest.raises(kelm.InvalidArgument, match="size of the disk is not known"):
        kelm.import_image("pipe", "disk.vmdk")
    writer.join()
    assert files() == ["image", "pipe"]


def test_what_exists_is_not_replaced(image):
    kelm.import_image("image", "disk.vmdk")
    disk = pathlib.Path("disk.vmdk").read_bytes()
    with pytest.raises(kelm.Exists):
        kelm.import_image("image", "disk.vmdk")
    with pytest.raises(kelm.Exists):
        kelm.export_image("disk.vmdk", "image")
    with pytest.raises(kelm.Error):
        kelm.export_image("disk.vmdk", "disk.vmdk", overwrite=True)
    with pytest.raises(kelm.InvalidArgument):
        kelm.export_image("disk.vmdk", "disk.vmdk.digests", overwrite=True)
    with pytest.raises(kelm.InvalidArgument):
        kelm.import_image("image", "image")
    assert pathlib.Path("disk.vmdk").read_bytes() == disk
    assert pathlib.Path("image").read_bytes() == image
    pathlib.Path("image").write_bytes(b"other")
    kelm.export_image("disk.vmdk", "image", overwrite=True)
    assert pathlib.Path("image").read_bytes() == image


def test_comparison_finds_the_first_difference(chain, image):
    progress = Progress()
    equal = kelm.compare("image", "full.vmdk", progress=progress)
    assert equal == kelm.Comparison(None, 0, DISK_BYTES, DISK_BYTES)
    assert equal.is_equal
    progress.verify_rises_to(DISK_BYTES)
    different = kelm.compare("full.vmdk", "child.vmdk")
    assert different.first_difference == GRAIN_BYTES
    assert different.differing_bytes == sum(
        before != after for before, after in zip(image, chain))
    assert not different.is_equal
    with pytest.raises(dataclasses.FrozenInstanceError):
        different.left_bytes = 1


def test_a_sound_disk_has_no_findings(chain):
    check = kelm.check("child.vmdk")
    assert check == kelm.Check((), 97, 97, None, ())
    assert check.is_sound
    progress = Progress()
    assert kelm.check("full.vmdk", progress=progress).is_sound
    progress.verify_rises_to(DISK_BYTES)
    own = kelm.check("child.vmdk", own=True)
    assert (own.held_grains, own.read_grains) == (1, 1)
    needing = kelm.check("child.vmdk", needs_digests=True)
    assert [os.path.basename(finding.path) for finding in needing.findings] == ["child.vmdk"]


def test_a_sample_is_repeated_by_its_seed(chain):
    first = kelm.check("full.vmdk", sample=20)
    assert 0 <= first.read_grains < first.held_grains == 96
    assert first.seed is not None
    again = kelm.check("full.vmdk", sample=20, seed=first.seed)
    assert again == first
    for options in ({"sample": 0}, {"sample": 101}, {"seed": 3}, {"sample": 5, "seed": 0}):
        with pytest.raises(ValueError):
            kelm.check("full.vmdk", **options)


def test_damage_is_found_and_never_read(image):
    kelm.import_image("image", "disk.vmdk", compressed=True)
    patch("disk.vmdk", os.path.getsize("disk.vmdk") // 2, b"damage" * 100)
    check = kelm.check("disk.vmdk")
    assert not check.is_sound
    assert check.findings[0].path == os.path.abspath("disk.vmdk")
    assert "bytes" in check.findings[0].text
    before = files()
    for call in (lambda: kelm.export_image("disk.vmdk", "restored"),
                 lambda: kelm.convert("disk.vmdk", "other.vmdk"),
                 lambda: content("disk.vmdk")):
        with pytest.raises(kelm.Damaged) as raised:
            call()
        assert isinstance(raised.value, OSError)
        assert "bytes" in raised.value.properties and "grain" in raised.value.properties
    assert files() == before


def test_digests_tell_the_hash_of_the_image(image):
    expected = hashlib.sha256(image).hexdigest()
    kelm.import_image("image", "kept.vmdk")
    kelm.import_image("image", "none.vmdk", digests=False)
    assert kelm.digest("kept.vmdk") == kelm.Digest("kept.vmdk", expected)
    progress = Progress()
    assert kelm.digest("none.vmdk", progress=progress).sha256 == expected
    progress.verify_rises_to(DISK_BYTES)
    assert "none.vmdk.digests" not in files()

    assert kelm.digest("none.vmdk", keep=True).sha256 == expected
    assert "none.vmdk.digests" in files()
    assert kelm.check("none.vmdk", needs_digests=True).is_sound
    with pytest.raises(kelm.Exists):
        kelm.digest("none.vmdk", keep=True)
    assert kelm.digest("none.vmdk", keep=True, overwrite=True).sha256 == expected


def test_digests_of_a_disk_that_was_changed_are_out_of_date(image):
    kelm.import_image("image", "disk.vmdk")
    with kelm.open("disk.vmdk", "r+") as disk:
        disk.write(b"changed")
    changed = b"changed" + image[7:]
    assert kelm.check("disk.vmdk").out_of_date == (os.path.abspath("disk.vmdk"),)
    assert kelm.digest("disk.vmdk").sha256 == hashlib.sha256(changed).hexdigest()


def test_repair_mends_and_takes_back(image):
    kelm.import_image("image", "disk.vmdk")
    sound = pathlib.Path("disk.vmdk").read_bytes()
    patch("disk.vmdk", 0, bytes(512))
    damaged = pathlib.Path("disk.vmdk").read_bytes()

    planned = kelm.repair("disk.vmdk", dry_run=True)
    assert planned == kelm.Repair(
        (kelm.FileRepair(os.path.abspath("disk.vmdk"), ("the header",), ()),), True)
    assert planned.has_mended and not planned.has_left
    assert pathlib.Path("disk.vmdk").read_bytes() == damaged

    assert kelm.repair("disk.vmdk") == dataclasses.replace(planned, dry_run=False)
    assert pathlib.Path("disk.vmdk").read_bytes() == sound
    assert kelm.repair("disk.vmdk") == kelm.Repair((), False)
    assert kelm.undo_repair("disk.vmdk") == 1
    assert pathlib.Path("disk.vmdk").read_bytes() == damaged
    with pytest.raises(kelm.NotFound, match="No repair of the disk can be undone"):
        kelm.undo_repair("disk.vmdk")


def test_a_disk_is_replaced_once_the_new_one_is_complete(image):
    kelm.import_image("image", "disk.vmdk", split=2 << 20, label="old")
    former = {name: pathlib.Path(name).read_bytes() for name in files()}
    assert len(former) > 4
    pathlib.Path("new").write_bytes(image[::-1])

    def stop(done, total):
        raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        kelm.import_image("new", "disk.vmdk", overwrite=True, progress=stop)
    pathlib.Path("new").unlink()
    assert {name: pathlib.Path(name).read_bytes() for name in files()} == former
    pathlib.Path("new").write_bytes(image[::-1])
    with kelm.open("disk.vmdk"), pytest.raises(kelm.InUse):
        kelm.import_image("new", "disk.vmdk", overwrite=True)
    kelm.import_image("new", "disk.vmdk", overwrite=True, compressed=True)
    assert files() == ["disk.vmdk", "disk.vmdk.digests", "image", "new"]
    assert content("disk.vmdk") == image[::-1]
    assert kelm.check("disk.vmdk", needs_digests=True).is_sound
    kelm.import_image("image", "other.vmdk", overwrite=True)
    assert content("other.vmdk") == image


def import_and_be_killed(**options):
    """Kills the process of an import as soon as that reports progress."""
    code = ("import kelm, os, signal\n"
            f"kelm.import_image('image', 'disk.vmdk', **{options!r},\n"
            "    progress=lambda done, total: os.kill(os.getpid(), signal.SIGKILL))\n")
    assert subprocess.run([sys.executable, "-c", code]).returncode == -signal.SIGKILL


@pytest.mark.parametrize("options", [{}, {"compressed": True, "split": 4 << 20}])
def test_an_import_that_was_killed_is_resumed(options, image):
    import_and_be_killed(**options)
    with pytest.raises(kelm.Unfinished):
        kelm.open("disk.vmdk")
    made = kelm.import_image("image", "disk.vmdk", resume=True)
    assert made == kelm.Made(os.path.abspath("disk.vmdk"), DISK_BYTES, DISK_BYTES, True, None)
    assert content("disk.vmdk") == image
    assert kelm.check("disk.vmdk", needs_digests=True).is_sound
    digest = kelm.digest("disk.vmdk")
    assert digest.sha256 == hashlib.sha256(image).hexdigest()
    with pytest.raises(kelm.InvalidArgument, match="complete; there is nothing to resume"):
        kelm.import_image("image", "disk.vmdk", resume=True)


def test_an_import_is_resumed_as_it_is_and_of_the_same_image(image):
    import_and_be_killed()
    pathlib.Path("other").write_bytes(image)
    kelm.create("parent.vmdk", DISK_BYTES).close()
    for options in ({"compressed": True}, {"encrypt": True, "password": "secret"},
                    {"split": 2 << 20}, {"on_demand": True}, {"overwrite": True}):
        with pytest.raises(kelm.InvalidArgument, match="resumed as it is"):
            kelm.import_image("image", "disk.vmdk", resume=True, **options)
    with pytest.raises(kelm.InvalidArgument, match="made of another image: .*/image"):
        kelm.import_image("other", "disk.vmdk", resume=True)
    with pytest.raises(kelm.InvalidArgument, match="for 8388608 bytes, not for 4194304"):
        kelm.import_image("image", "disk.vmdk", resume=True, size=4 << 20)
    with pytest.raises(kelm.InvalidArgument, match="without this parent"):
        kelm.import_image("image", "disk.vmdk", resume=True, parent="parent.vmdk")
    with pytest.raises(kelm.NotFound):
        kelm.import_image("image", "missing.vmdk", resume=True)
    kelm.import_image("image", "disk.vmdk", resume=True)
    assert content("disk.vmdk") == image


def test_free_blocks_are_left_out():
    search = os.environ["PATH"] + ":/usr/sbin:/sbin"
    mke2fs = shutil.which("mke2fs", path=search)
    if mke2fs is None:
        pytest.skip("mke2fs is missing")
    pathlib.Path("image").write_bytes(b"x" * DISK_BYTES)
    subprocess.run([mke2fs, "-q", "-F", "-t", "ext2", "-E", "nodiscard", "image"], check=True)
    try:
        made = kelm.import_image("image", "disk.vmdk", exclude_free=True)
    except kelm.Error as error:
        if "without libext2fs" in str(error):
            pytest.skip(str(error))
        raise
    assert made.free_bytes is not None and 4 << 20 < made.free_bytes < DISK_BYTES
    assert b"x" * 1024 in pathlib.Path("image").read_bytes()
    assert b"x" * 1024 not in content("disk.vmdk")
    with pytest.raises(kelm.InvalidArgument, match="can be read at any place"):
        kelm.import_image("-", "other.vmdk", size=DISK_BYTES, exclude_free=True)
