"""Disks as raw files."""

import gc
import io
import os
import shutil
import signal
import subprocess
import sys
import threading

import pytest

import kelm
from conftest import DISK_BYTES, GRAIN_BYTES, NoForcedSwitches, content, files


def test_reads_what_was_written_and_zeros_elsewhere():
    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        assert disk.write(b"start") == 5
        assert disk.pwrite(b"middle", 4 << 20) == 6
        assert disk.tell() == 5
        assert disk.seek(-3, os.SEEK_END) == DISK_BYTES - 3
        assert disk.write(b"end") == 3
    expected = bytearray(DISK_BYTES)
    expected[:5] = b"start"
    expected[4 << 20:(4 << 20) + 6] = b"middle"
    expected[-3:] = b"end"
    assert content("disk.vmdk") == expected


def test_is_a_raw_binary_file():
    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        assert isinstance(disk, io.RawIOBase)
        assert (disk.readable(), disk.writable(), disk.seekable()) == (True, True, True)
        assert (disk.mode, disk.name, disk.closed) == ("rb+", "disk.vmdk", False)
        assert repr(disk) == "<kelm.Disk 'disk.vmdk' 'rb+'>"
    assert repr(disk) == "<kelm.Disk 'disk.vmdk' 'rb+' closed>"
    with kelm.open("disk.vmdk") as disk:
        assert (disk.writable(), disk.mode) == (False, "rb")
        with pytest.raises(io.UnsupportedOperation):
            disk.write(b"x")
        with pytest.raises(io.UnsupportedOperation):
            disk.pwrite(b"x", 0)
        with pytest.raises(io.UnsupportedOperation):
            disk.write_zeros(1, 0)
        with pytest.raises(io.UnsupportedOperation):
            disk.truncate(0)
        with pytest.raises(io.UnsupportedOperation):
            disk.fileno()


def test_reads_short_only_at_the_end():
    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        disk.pwrite(b"abc", DISK_BYTES - 3)
        disk.seek(-3, os.SEEK_END)
        buffer = bytearray(b"------")
        assert disk.readinto(buffer) == 3
        assert buffer == b"abc---"
        assert disk.readinto(buffer) == 0
        assert disk.read() == b""
        assert disk.seek(DISK_BYTES + 10) == DISK_BYTES + 10
        assert disk.read(1) == b""
        assert disk.readinto(bytearray()) == 0
        disk.seek(-3, os.SEEK_END)
        assert disk.read(2) == b"ab"
        assert disk.read(None) == b"c"
        disk.seek(-2, os.SEEK_END)
        assert disk.readall() == b"bc"
        assert disk.pread(6, DISK_BYTES - 3) == b"abc"
        assert disk.pread(6, DISK_BYTES + 3) == b""
        assert disk.pread(0, 0) == b""


def test_does_not_grow():
    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        disk.seek(DISK_BYTES - 2)
        assert disk.write(b"abcd") == 2
        for write in (lambda: disk.write(b"x"), lambda: disk.pwrite(b"abcd", DISK_BYTES - 2),
                      lambda: disk.pwrite(b"a", DISK_BYTES + 1),
                      lambda: disk.write_zeros(2, DISK_BYTES - 1)):
            with pytest.raises(kelm.NoSpace) as raised:
                write()
            assert isinstance(raised.value, OSError) and raised.value.filename == "disk.vmdk"
        assert disk.write(b"") == 0
        assert disk.pread(2, DISK_BYTES - 2) == b"ab"


def test_takes_any_contiguous_buffer_and_no_other():
    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        wide = memoryview(bytes(range(8))).cast("H")
        assert disk.write(wide) == 8
        target = memoryview(bytearray(8)).cast("I")
        disk.seek(0)
        assert disk.readinto(target) == 8
        assert target.tobytes() == bytes(range(8))
        with pytest.raises(TypeError):
            disk.write("text")
        with pytest.raises(TypeError):
            disk.pwrite("text", 0)
        with pytest.raises(TypeError):
            disk.readinto(memoryview(bytearray(8))[::2])
        with pytest.raises((BufferError, TypeError)):
            disk.readinto(b"12345678")
        with pytest.raises(TypeError):
            disk.readinto(None)
        assert disk.pread(8, 0) == bytes(range(8))


def test_refuses_places_that_make_no_sense():
    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        disk.seek(7)
        for call in (lambda: disk.seek(-1), lambda: disk.seek(0, 9), lambda: disk.pread(-1, 0),
                     lambda: disk.pread(1, -1), lambda: disk.pwrite(b"a", -1),
                     lambda: disk.write_zeros(-1, 0)):
            with pytest.raises(ValueError):
                call()
        with pytest.raises(TypeError):
            disk.pread(1.5, 0)
        assert disk.tell() == 7


def test_the_extension_itself_refuses_ranges_outside():
    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        for position in (-1, DISK_BYTES, DISK_BYTES - 1, 1 << 62):
            with pytest.raises(ValueError):
                disk._handle.read(position, bytearray(2))
            with pytest.raises(ValueError):
                disk._handle.write(position, b"ab")
            with pytest.raises(ValueError):
                disk._handle.write_zeros(position, 2)
        with pytest.raises(BufferError):
            disk._handle.read(0, b"ab")
        with pytest.raises(TypeError):
            disk._handle.write(0, "ab")


def test_a_closed_disk_refuses_everything():
    disk = kelm.create("disk.vmdk", DISK_BYTES)
    extents = disk.extents()
    disk.close()
    disk.close()
    for call in (disk.read, disk.readall, disk.tell, disk.flush, disk.extents, disk.space,
                 disk.readable, disk.writable, disk.seekable, lambda: disk.readinto(bytearray(1)),
                 lambda: disk.write(b"a"), lambda: disk.seek(0), lambda: disk.pread(1, 0),
                 lambda: disk.pwrite(b"a", 0), lambda: disk.write_zeros(1, 0), lambda: disk.info,
                 lambda: disk.parent, disk.__enter__):
        with pytest.raises(ValueError):
            call()
    for call in (disk._handle.describe, disk._handle.list_extents, disk._handle.flush,
                 disk._handle.measure_space, disk._handle.parent_path, disk._handle.open_parent,
                 lambda: disk._handle.read(0, bytearray(1)), lambda: disk._handle.write(0, b"a")):
        with pytest.raises(ValueError):
            call()
    assert [extent.place for extent in extents] == [kelm.Place.ABSENT]


def test_who_forgets_to_close_is_warned_and_loses_nothing():
    disk = kelm.create("disk.vmdk", DISK_BYTES)
    disk.write(b"kept")
    with pytest.warns(ResourceWarning, match="unclosed disk"):
        del disk
        gc.collect()
    assert content("disk.vmdk")[:4] == b"kept"


def test_is_flushed_to_other_readers_of_its_files():
    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        disk.write(b"kelm")
        disk.flush()
        shutil.copy("disk.vmdk", "copy.vmdk")
    assert content("copy.vmdk")[:4] == b"kelm"


@pytest.mark.parametrize("options", [
    {}, {"compressed": True}, {"compressed": True, "level": 9}, {"split": 2 << 20},
    {"split": 2 << 20, "on_demand": True}, {"compressed": True, "split": 4 << 20}])
def test_every_kind_of_disk_holds_its_bytes(options, image):
    with kelm.create("disk.vmdk", DISK_BYTES, **options) as disk, open("image", "rb") as source:
        shutil.copyfileobj(source, disk)
        assert disk.info.compressed == options.get("compressed", False)
        assert disk.info.on_demand == options.get("on_demand", False)
    assert content("disk.vmdk") == image
    assert (len(files()) > 2) == ("split" in options)


def test_files_on_demand_are_made_when_they_are_needed():
    with kelm.create("disk.vmdk", DISK_BYTES, split=2 << 20, on_demand=True) as disk:
        expected = [os.path.basename(path) for path in disk.info.files]
        assert len(expected) > 3
        before = files()
        assert len(before) < len(expected)
        disk.pwrite(b"x", DISK_BYTES - 1)
        disk.flush()
        assert [name for name in files() if name.endswith(".vmdk") and name not in before] == [
            expected[-1]]
    assert content("disk.vmdk")[-1:] == b"x"


def test_buffered_readers_and_writers_work_on_it(image):
    kelm.import_image("image", "disk.vmdk")
    with io.BufferedReader(kelm.open("disk.vmdk"), 100_000) as reader:
        assert reader.read(10) == image[:10]
        assert reader.peek(1)[:1] == image[10:11]
        reader.seek(3 << 20)
        assert reader.read(100) == image[3 << 20:(3 << 20) + 100]
        assert reader.read() == image[(3 << 20) + 100:]
    with io.BufferedRandom(kelm.open("disk.vmdk", "r+")) as both:
        both.write(b"kelm\nand more\n")
        both.seek(0)
        assert both.readline() == b"kelm\n"
    with io.TextIOWrapper(io.BufferedReader(kelm.open("disk.vmdk")), "latin-1") as text:
        assert text.readline() == "kelm\n"
    with kelm.open("disk.vmdk") as disk, open("copy", "wb") as target:
        shutil.copyfileobj(disk, target)
    with open("copy", "rb") as copied:
        assert copied.read() == b"kelm\nand more\n" + image[14:]


@pytest.mark.parametrize("mode", ["rt", "w", "r+t", "a", "x", "", "U"])
def test_other_modes_are_refused(mode):
    kelm.create("disk.vmdk", DISK_BYTES).close()
    with pytest.raises(ValueError, match="invalid mode"):
        kelm.open("disk.vmdk", mode)


@pytest.mark.parametrize("mode", ["r", "rb", "r+", "rb+", "r+b"])
def test_binary_modes_are_taken(mode):
    kelm.create("disk.vmdk", DISK_BYTES).close()
    with kelm.open("disk.vmdk", mode) as disk:
        assert disk.writable() == ("+" in mode)


def test_extents_say_who_holds_what(chain):
    with kelm.open("child.vmdk") as disk:
        extents = list(disk.extents())
    assert extents == [
        kelm.Extent(0, GRAIN_BYTES, kelm.Place.PARENT),
        kelm.Extent(GRAIN_BYTES, GRAIN_BYTES, kelm.Place.HERE),
        kelm.Extent(2 * GRAIN_BYTES, (3 << 20) - 2 * GRAIN_BYTES, kelm.Place.PARENT),
        kelm.Extent(3 << 20, 2 << 20, kelm.Place.ABSENT),
        kelm.Extent(5 << 20, 3 << 20, kelm.Place.PARENT)]
    assert extents[1].end == 2 * GRAIN_BYTES


def test_extents_and_space_know_of_writes_that_were_not_flushed():
    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        disk.write(b"x" * GRAIN_BYTES)
        assert next(disk.extents()) == kelm.Extent(0, GRAIN_BYTES, kelm.Place.HERE)
        assert disk.space().payload_bytes == GRAIN_BYTES
        disk.write_zeros(GRAIN_BYTES, 0)
        assert disk.pread(GRAIN_BYTES, 0) == bytes(GRAIN_BYTES)


def test_space_tells_compressed_bytes(chain):
    with kelm.open("full.vmdk") as disk:
        space = disk.space()
    assert space.payload_bytes == 6 << 20
    assert 0 < space.payload_bytes_in_file < space.payload_bytes
    assert space.header_bytes > 0


def test_info_is_frozen_and_tells_what_the_disk_says(image):
    made = kelm.import_image("image", "disk.vmdk", compressed=True, label="Monday")
    with kelm.open("disk.vmdk") as disk:
        info = disk.info
    assert (info.path, info.size, info.image_size) == (made.path, DISK_BYTES, DISK_BYTES)
    assert (info.compressed, info.encrypted, info.unfinished) == (True, False, False)
    assert (info.grain_size, info.label, info.parent) == (GRAIN_BYTES, "Monday", None)
    assert info.source == os.path.abspath("image")
    assert info.files == (os.path.abspath("disk.vmdk"),)
    assert info.time is not None and info.time.endswith("Z")
    with pytest.raises(AttributeError):
        info.size = 1


def test_a_change_changes_the_content_id():
    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        before = disk.info.content_id
    with kelm.open("disk.vmdk", "r+") as disk:
        disk.write(b"x")
        disk.flush()
        assert disk.info.content_id != before


def test_parent_is_open_as_long_as_the_child(chain, image):
    with kelm.open("child.vmdk") as disk:
        assert disk.info.parent == os.path.abspath("full.vmdk")
        parent = disk.parent
        assert disk.parent is parent
        assert parent.parent is None
        assert parent.read() == image
        assert not parent.writable()
        with pytest.raises(kelm.InUse):
            kelm.open("full.vmdk", "r+")
    assert parent.closed
    kelm.open("full.vmdk", "r+").close()


def test_a_child_leaves_its_parent_alone(chain, image):
    with kelm.open("child.vmdk", "r+") as disk:
        assert disk.size == DISK_BYTES
        disk.write(b"new")
    assert content("child.vmdk") == b"new" + chain[3:]
    assert content("full.vmdk") == image


def test_a_child_takes_the_exact_size_of_its_parent():
    with open("image", "wb") as file:
        file.write(b"x" * 1000)
    kelm.import_image("image", "full.vmdk")
    with kelm.create("child.vmdk", parent="full.vmdk") as disk:
        assert (disk.info.image_size, disk.size) == (1000, DISK_BYTES)


def test_threads_share_a_disk():
    parts = 8
    part_bytes = DISK_BYTES // parts
    errors = []

    def work(number):
        try:
            data = bytes([number + 1]) * 4096
            for offset in range(number * part_bytes, (number + 1) * part_bytes, 4096):
                disk.pwrite(data, offset)
                assert disk.pread(4096, offset) == data
        except BaseException as error:
            errors.append(error)

    with kelm.create("disk.vmdk", DISK_BYTES) as disk:
        threads = [threading.Thread(target=work, args=[number]) for number in range(parts)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    assert errors == []
    assert content("disk.vmdk") == b"".join(
        bytes([number + 1]) * part_bytes for number in range(parts))


def test_readers_that_share_a_position_get_each_byte_once(image):
    kelm.import_image("image", "disk.vmdk", compressed=True)
    pieces = []

    def work():
        while piece := disk.read(50_000):
            pieces.append(piece)

    with kelm.open("disk.vmdk") as disk:
        threads = [threading.Thread(target=work) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    expected = [image[start:start + 50_000] for start in range(0, len(image), 50_000)]
    assert sorted(pieces) == sorted(expected)


def test_closing_while_others_read_ends_them_with_an_error(image):
    kelm.import_image("image", "disk.vmdk", compressed=True)
    disk = kelm.open("disk.vmdk")
    has_begun = threading.Event()
    results = []

    def work():
        try:
            while True:
                assert disk.pread(100, 5000) == image[5000:5100]
                has_begun.set()
        except ValueError as error:
            results.append(str(error))

    threads = [threading.Thread(target=work) for _ in range(3)]
    for thread in threads:
        thread.start()
    assert has_begun.wait()
    disk.close()
    for thread in threads:
        thread.join()
    assert results == ["I/O operation on closed disk."] * 3


def run_while_reading(disk, action):
    """Starts a thread that waits for its turn, and reads until `action` has run there."""
    go = threading.Event()
    done = []

    def wait_and_act():
        go.wait()
        action()
        done.append(True)

    thread = threading.Thread(target=wait_and_act)
    thread.start()
    with NoForcedSwitches():
        go.set()
        for _ in range(10_000):
            if done:
                break
            disk.pread(DISK_BYTES, 0)
    assert done
    thread.join()


def test_reading_releases_the_interpreter(image):
    kelm.import_image("image", "disk.vmdk", compressed=True)
    with kelm.open("disk.vmdk") as disk:
        run_while_reading(disk, lambda: None)


def test_a_signal_handler_cannot_enter_a_call_that_is_under_way(image):
    kelm.import_image("image", "disk.vmdk", compressed=True)
    errors = []

    def handle(*_):
        try:
            disk.pread(1, 0)
        except RuntimeError as error:
            errors.append(str(error))

    former = signal.signal(signal.SIGUSR1, handle)
    try:
        with kelm.open("disk.vmdk") as disk:
            run_while_reading(disk, lambda: os.kill(os.getpid(), signal.SIGUSR1))
            assert disk.pread(10, 0) == image[:10]
    finally:
        signal.signal(signal.SIGUSR1, former)
    assert errors == ["the disk is in use by this very thread"]


def test_failure_of_creation_leaves_nothing():
    for options in ({"encrypt": True}, {"password": "secret"}, {"level": 10}, {"split": 0},
                    {"rounds": 5, "encrypt": True, "password": "x"}, {"size": -5},
                    {"label": "x" * 5000}, {"parent": "missing.vmdk"}, {"size": None},
                    {"split": 4096}):
        with pytest.raises((ValueError, kelm.NotFound)):
            kelm.create("disk.vmdk", **{"size": DISK_BYTES, **options})
        assert files() == [], options
    with pytest.raises(TypeError):
        kelm.create("disk.vmdk", "8M")
    with pytest.raises(kelm.NotFound):
        kelm.create("missing/disk.vmdk", DISK_BYTES)
    assert files() == []


def test_names_may_be_paths_and_bytes_and_no_utf8(folder):
    kelm.create(folder / "path.vmdk", DISK_BYTES).close()
    with kelm.open(b"path.vmdk") as disk:
        assert disk.name == "path.vmdk"
    for name in ("", "a\0b"):
        with pytest.raises(ValueError):
            kelm.open(name)
    with pytest.raises(TypeError):
        kelm.open(5)
    with pytest.raises(kelm.Error):
        kelm.open(b"\xff.vmdk")
    with pytest.raises(TypeError):
        kelm.open("path.vmdk", allow_paths="/tmp")


def test_objects_made_past_their_constructors_are_refused():
    from kelm import _kelm
    disk = _kelm.OpenDisk.__new__(_kelm.OpenDisk)
    for name in ("close", "flush", "describe", "measure_space", "list_extents", "parent_path",
                 "open_parent"):
        with pytest.raises((TypeError, RuntimeError)):
            getattr(disk, name)()
    for call in (lambda: disk.size, lambda: disk.is_closed, lambda: disk.is_writable,
                 lambda: disk.read(0, bytearray(1)), lambda: disk.write(0, b"a"),
                 lambda: disk.write_zeros(0, 1)):
        with pytest.raises((TypeError, RuntimeError)):
            call()
    with pytest.raises((TypeError, RuntimeError)):
        _kelm.create(b"disk.vmdk", _kelm.NewDiskOptions.__new__(_kelm.NewDiskOptions), None, [])
    with pytest.raises((TypeError, RuntimeError)):
        _kelm.create(b"disk.vmdk", None, None, [])
    with pytest.raises(TypeError):
        _kelm.OpenDisk.close(None)
    with pytest.raises(TypeError):
        _kelm.OpenDisk()
    assert files() == []


def test_a_disk_that_is_open_at_the_end_of_the_program_keeps_its_bytes():
    code = ("import kelm\n"
            f"disk = kelm.create('disk.vmdk', {DISK_BYTES})\n"
            "other = disk\n"
            "disk.write(b'kept')\n")
    result = subprocess.run([sys.executable, "-W", "ignore", "-c", code], capture_output=True,
                            text=True)
    assert (result.returncode, result.stderr) == (0, "")
    assert content("disk.vmdk")[:4] == b"kept"
