"""Each class of errors, brought about as a user would meet it."""

import copy
import errno
import logging
import os
import pathlib
import pickle
import resource
import signal
import tempfile

import pytest

import kelm
from conftest import DISK_BYTES, content, files, patch


def test_classes_have_the_standard_ones_beside():
    expected = {kelm.NotFound: FileNotFoundError, kelm.Exists: FileExistsError,
                kelm.Denied: PermissionError, kelm.InUse: BlockingIOError, kelm.NoSpace: OSError,
                kelm.Damaged: OSError, kelm.IOFailure: OSError, kelm.InvalidArgument: ValueError,
                kelm.WrongPassword: Exception, kelm.Unfinished: Exception}
    for ours, standard in expected.items():
        assert issubclass(ours, kelm.Error) and issubclass(ours, standard)
    assert not issubclass(kelm.WrongPassword, OSError)


def test_a_missing_disk():
    with pytest.raises(kelm.NotFound) as raised:
        kelm.open("missing.vmdk")
    error = raised.value
    path = os.path.abspath("missing.vmdk")
    assert (error.code, error.errno, error.filename) == (2, errno.ENOENT, path)
    assert error.message == "The disk does not exist."
    assert str(error) == f"The disk does not exist. (uri: {path})"
    assert dict(error.properties) == {"uri": "file://" + path}
    with pytest.raises(TypeError):
        error.properties["uri"] = "other"


def test_a_missing_parent(chain):
    os.remove("full.vmdk")
    with pytest.raises(FileNotFoundError) as raised:
        kelm.open("child.vmdk")
    assert raised.value.filename == os.path.abspath("full.vmdk")


def test_a_disk_in_use():
    with kelm.create("disk.vmdk", DISK_BYTES):
        for call in (lambda: kelm.open("disk.vmdk"), lambda: kelm.open("disk.vmdk", "r+"),
                     lambda: kelm.check("disk.vmdk"), lambda: kelm.drop("disk.vmdk"),
                     lambda: kelm.export_image("disk.vmdk", "image")):
            with pytest.raises(kelm.InUse) as raised:
                call()
            assert isinstance(raised.value, BlockingIOError)
            assert raised.value.errno == errno.EAGAIN
            assert raised.value.code == -1
    with kelm.open("disk.vmdk"), kelm.open("disk.vmdk"):
        with pytest.raises(BlockingIOError):
            kelm.open("disk.vmdk", "r+")
    kelm.open("disk.vmdk", "r+").close()


def test_a_file_in_the_way():
    pathlib.Path("disk.vmdk").write_text("mine")
    with pytest.raises(kelm.Exists) as raised:
        kelm.create("disk.vmdk", DISK_BYTES)
    assert (raised.value.code, raised.value.errno) == (8, errno.EEXIST)
    assert pathlib.Path("disk.vmdk").read_text() == "mine"


@pytest.fixture
def foreign_folder():
    """A folder in which the user may not make files; it is root's, unless nobody is root."""
    with tempfile.TemporaryDirectory() as path:
        os.chmod(path, 0o555)
        user = os.geteuid()
        if user == 0:
            os.seteuid(65534)
        yield path
        os.seteuid(user)


def test_a_folder_that_may_not_be_written_to(foreign_folder):
    with pytest.raises(kelm.Denied) as raised:
        kelm.create(foreign_folder + "/disk.vmdk", DISK_BYTES)
    assert isinstance(raised.value, PermissionError)
    assert (raised.value.code, raised.value.errno) == (9, errno.EACCES)
    assert os.listdir(foreign_folder) == []


def test_a_file_outside_of_the_folder(folder):
    os.mkdir("disk")
    os.mkdir("other")
    with kelm.create("disk/disk.vmdk", DISK_BYTES, split=4 << 20) as disk:
        disk.write(b"kelm")
        names = [pathlib.Path(name) for name in disk.info.files[1:]]
    for name in names:
        name.rename(folder / "other" / name.name)
        name.symlink_to(folder / "other" / name.name)
    with pytest.raises(kelm.IOFailure) as raised:
        kelm.open("disk/disk.vmdk")
    assert raised.value.code == 3
    assert raised.value.properties["folder"] == (folder / "disk").as_uri() + "/"
    assert content("disk/disk.vmdk", allow_paths=["other"])[:4] == b"kelm"
    assert kelm.check("disk/disk.vmdk", allow_paths=["other"]).is_sound


@pytest.fixture
def file_limit():
    """No file may pass 1 MiB."""
    former = resource.getrlimit(resource.RLIMIT_FSIZE)
    handler = signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, former[1]))
    yield
    resource.setrlimit(resource.RLIMIT_FSIZE, former)
    signal.signal(signal.SIGXFSZ, handler)


def test_a_full_device(image, file_limit):
    with pytest.raises(kelm.NoSpace) as raised:
        kelm.import_image("image", "disk.vmdk")
    assert (raised.value.code, raised.value.errno) == (12, errno.ENOSPC)
    assert files() == ["image"]


def test_a_damaged_disk_is_refused():
    pathlib.Path("disk.vmdk").write_bytes(b"KDMV" + bytes(2000))
    with pytest.raises(kelm.Error):
        kelm.open("disk.vmdk")
    kelm.create("short.vmdk", DISK_BYTES).close()
    os.truncate("short.vmdk", 2000)
    with pytest.raises(kelm.Damaged) as raised:
        kelm.open("short.vmdk")
    assert raised.value.code in (4, 5) and raised.value.errno == errno.EIO


def test_an_unfinished_disk(image):
    kelm.import_image("image", "disk.vmdk")
    data = pathlib.Path("disk.vmdk").read_bytes()
    patch("disk.vmdk", data.index(b'"complete  "'), b'"unfinished"')
    for call in (lambda: kelm.open("disk.vmdk"), lambda: kelm.export_image("disk.vmdk", "copy"),
                 lambda: kelm.convert("disk.vmdk", "copy"),
                 lambda: kelm.compare("disk.vmdk", "image")):
        with pytest.raises(kelm.Unfinished) as raised:
            call()
        assert raised.value.code == -1 and "uri" in raised.value.properties
    assert not os.path.exists("copy")
    with kelm.open("disk.vmdk", unfinished=True) as disk:
        assert disk.info.unfinished
        assert disk.read() == image
    assert kelm.compare("disk.vmdk", "image", unfinished=True).is_equal
    kelm.export_image("disk.vmdk", "copy", unfinished=True)
    with pytest.raises(ValueError):
        kelm.open("disk.vmdk", "r+", unfinished=True)


def test_causes_follow_their_errors(chain):
    patch("full.vmdk", 0, bytes(64))
    with pytest.raises(kelm.Error) as raised:
        kelm.open("child.vmdk")
    error = raised.value
    while error is not None:
        assert isinstance(error, kelm.Error)
        error = error.__cause__


def test_errors_can_be_pickled_and_copied():
    with pytest.raises(kelm.NotFound) as raised:
        kelm.open("missing.vmdk")
    error = raised.value
    for copied in (pickle.loads(pickle.dumps(error)), copy.copy(error)):
        assert type(copied) is kelm.NotFound
        assert (copied.code, copied.message, str(copied)) == (
            error.code, error.message, str(error))
        assert copied.properties == error.properties
        assert (copied.errno, copied.filename) == (error.errno, error.filename)


def test_warnings_go_to_the_logger(image, caplog):
    kelm.import_image("image", "disk.vmdk")
    data = pathlib.Path("disk.vmdk").read_bytes()
    place = data.index(b'ddb.geometry.heads = "')
    patch("disk.vmdk", place + len(b'ddb.geometry.heads = "'), b"9")
    with caplog.at_level(logging.WARNING, logger="kelm"):
        content("disk.vmdk")
    assert [record.name for record in caplog.records] == ["kelm"]
    assert "checksum" in caplog.records[0].getMessage()


def test_wrong_arguments_are_errors_of_python(image):
    with pytest.raises(TypeError):
        kelm.import_image("image", "disk.vmdk", compressed="yes", threads="many")
    with pytest.raises(TypeError):
        kelm.import_image("image")
    with pytest.raises(TypeError):
        kelm.import_image("image", "disk.vmdk", size=1.5)
    with pytest.raises(ValueError):
        kelm.import_image("image", "disk.vmdk", size=-1)
    assert files() == ["image"]
