"""Open disks."""

from __future__ import annotations

import io
import operator
import os
import threading
import warnings
from typing import TYPE_CHECKING, Any, Iterable, Iterator, Optional

from . import _kelm
from ._arguments import Password, Path, encode, encode_all, new_disk_options, wipes_passwords
from ._errors import NoSpace
from ._results import Extent, Info, Place, Space

if TYPE_CHECKING:
    from _typeshed import ReadableBuffer, WriteableBuffer

_MODES = {"r": False, "rb": False, "r+": True, "rb+": True, "r+b": True}


class Disk(io.RawIOBase):
    """An open disk: a raw binary file of fixed size, and more. Made by `open` and `create`.

    It goes wherever a raw file does, as into `io.BufferedReader`, and is a context manager. Its
    parents stay open as long as it is, so that nobody changes them. Any thread may use it; they
    wait for each other. Each position of the file is a byte of the disk; the disk may end a little
    behind the image that it was made of, see `Info.image_size`.

    >>> with kelm.open("monday.vmdk") as disk:
    ...     disk.seek(3)
    ...     disk.read(5)
    3
    b'boot '

    A call on a closed disk is ValueError.
    """

    name: str
    mode: str

    def __init__(self, handle: _kelm.OpenDisk, name: str) -> None:
        self._handle = handle
        self._position = 0
        self._lock = threading.RLock()
        self._parent: Optional[Disk] = None
        self.name = name
        self.mode = "rb+" if handle.is_writable else "rb"

    def __repr__(self) -> str:
        state = " closed" if self.closed else ""
        return f"<kelm.Disk {self.name!r} {self.mode!r}{state}>"

    def __del__(self) -> None:
        if not self.closed:
            warnings.warn(f"unclosed disk {self!r}", ResourceWarning, stacklevel=2, source=self)
        super().__del__()

    # The raw file.

    def readable(self) -> bool:
        """True."""
        self._verify_is_open()
        return True

    def writable(self) -> bool:
        """Whether the disk was opened for writing."""
        self._verify_is_open()
        return self._handle.is_writable

    def seekable(self) -> bool:
        """True."""
        self._verify_is_open()
        return True

    def readinto(self, buffer: WriteableBuffer, /) -> int:
        """Fills the buffer from the position on, and returns how many bytes that were: fewer than
        the buffer has only at the end."""
        self._verify_is_open()
        with memoryview(buffer) as view, view.cast("B") as target, self._lock:
            count = max(0, min(len(target), self.size - self._position))
            if count > 0:
                with target[:count] as part:
                    self._handle.read(self._position, part)
            self._position += count
            return count

    def read(self, size: Optional[int] = -1, /) -> bytes:
        """Up to `size` bytes from the position on: fewer only at the end. Without a size, or with
        one below 0, all up to the end."""
        self._verify_is_open()
        if size is None or operator.index(size) < 0:
            return self.readall()
        with self._lock:
            data = self.pread(size, self._position)
            self._position += len(data)
            return data

    def readall(self) -> bytes:
        """All from the position to the end, in memory."""
        return self.read(self.size)

    def write(self, data: ReadableBuffer, /) -> int:
        """Writes at the position, and returns how many bytes: fewer than there are only at the end,
        where writing is `NoSpace`. On a child disk, its parents stay as they are."""
        self._verify_is_writable()
        with memoryview(data) as view, view.cast("B") as source, self._lock:
            count = max(0, min(len(source), self.size - self._position))
            if len(source) > 0 and count == 0:
                raise _end_of_disk(self.name)
            if count > 0:
                with source[:count] as part:
                    self._handle.write(self._position, part)
            self._position += count
            return count

    def seek(self, offset: int, whence: int = os.SEEK_SET, /) -> int:
        """Moves the position, which may lie behind the end, and returns it."""
        self._verify_is_open()
        with self._lock:
            starts = {os.SEEK_SET: 0, os.SEEK_CUR: self._position, os.SEEK_END: self.size}
            if whence not in starts:
                raise ValueError(f"invalid whence: {whence}")
            position = starts[whence] + operator.index(offset)
            if position < 0:
                raise ValueError(f"negative position: {position}")
            self._position = position
            return position

    def tell(self) -> int:
        """The position."""
        self._verify_is_open()
        return self._position

    def flush(self) -> None:
        """Brings all changes to the device."""
        self._verify_is_open()
        # The base class flushes once more while it closes.
        if not self._handle.is_closed:
            self._handle.flush()

    def close(self) -> None:
        """Brings all changes to the device and closes the disk, and its `parent`. If that fails, it
        is closed all the same."""
        if self.closed:
            return
        try:
            if self._parent is not None:
                self._parent.close()
        finally:
            try:
                self._handle.close()
            finally:
                super().close()

    # By places, leaving the position alone.

    def pread(self, size: int, offset: int) -> bytes:
        """Up to `size` bytes from `offset` on: fewer only at the end."""
        self._verify_is_open()
        size, offset = _not_negative("size", size), _not_negative("offset", offset)
        data = bytearray(max(0, min(size, self.size - offset)))
        if data:
            self._handle.read(offset, data)
        return bytes(data)

    def pwrite(self, data: ReadableBuffer, offset: int) -> int:
        """Writes all of the bytes at `offset`, and returns how many these are. What does not fit is
        `NoSpace`, before anything is written."""
        self._verify_is_writable()
        offset = _not_negative("offset", offset)
        with memoryview(data) as view, view.cast("B") as source:
            if len(source) > max(0, self.size - offset):
                raise _end_of_disk(self.name)
            if len(source) > 0:
                self._handle.write(offset, source)
            return len(source)

    def write_zeros(self, size: int, offset: int) -> None:
        """Makes a range read as zeros, taking no space where it does already. What does not fit is
        `NoSpace`."""
        self._verify_is_writable()
        size, offset = _not_negative("size", size), _not_negative("offset", offset)
        if size > max(0, self.size - offset):
            raise _end_of_disk(self.name)
        self._handle.write_zeros(offset, size)

    # What the disk is.

    @property
    def size(self) -> int:
        """The size of the disk in bytes."""
        return self._handle.size

    @property
    def info(self) -> Info:
        """What the disk says of itself.

        >>> with kelm.open("tuesday.vmdk") as disk:
        ...     disk.info.grain_size, disk.info.compressed
        (65536, True)
        """
        self._verify_is_open()
        fields: dict[str, Any] = self._handle.describe()
        return Info(**fields)

    @property
    def parent(self) -> Optional[Disk]:
        """The parent, open for reading; None without one. It is closed with this disk.

        >>> with kelm.open("tuesday.vmdk") as disk:
        ...     os.path.basename(disk.parent.name)
        'monday.vmdk'
        """
        self._verify_is_open()
        with self._lock:
            if self._parent is None:
                path = self._handle.parent_path()
                if path is not None:
                    self._parent = Disk(self._handle.open_parent(), path)
            return self._parent

    def extents(self) -> Iterator[Extent]:
        """The ranges of the disk and who holds them, in order and without gaps. The tables of the
        disk and its parents are read before the first one comes.

        >>> with kelm.open("tuesday.vmdk") as disk:
        ...     for extent in disk.extents():
        ...         print(extent.start, extent.length, extent.place.value)
        0 65536 parent
        65536 65536 here
        131072 8257536 absent
        """
        self._verify_is_open()
        return (Extent(start, length, Place(place))
                for start, length, place in self._handle.list_extents())

    def space(self) -> Space:
        """How the disk's own files use their space. Changes are flushed first.

        >>> with kelm.open("tuesday.vmdk") as disk:
        ...     disk.space().payload_bytes
        65536
        """
        self._verify_is_open()
        fields: dict[str, Any] = self._handle.measure_space()
        return Space(**fields)

    def _verify_is_open(self) -> None:
        if self.closed:
            raise ValueError("I/O operation on closed disk.")

    def _verify_is_writable(self) -> None:
        self._verify_is_open()
        if not self._handle.is_writable:
            raise io.UnsupportedOperation("the disk is open for reading only")


@wipes_passwords
def open(path: Path, mode: str = "r", *, password: Optional[Password] = None,
         allow_paths: Iterable[Path] = (), unfinished: bool = False) -> Disk:
    """Opens a disk by its main file, for reading ("r") or for both ("r+").

    A child disk is opened with its parents, and `password` is that of all of them. Files of the
    disk outside of its folder are refused but in the folders `allow_paths`. A disk that was not
    filled to its end is `Unfinished` unless `unfinished` is set, for reading; one with damaged
    tables is `Damaged`; one that somebody writes to, or reads while it is to be written to, is
    `InUse`.

    >>> with kelm.open("monday.vmdk") as disk:
    ...     disk.pread(4, 3)
    b'boot'
    """
    if mode not in _MODES:
        raise ValueError(f"invalid mode: {mode!r}; a disk holds bytes, and is opened by 'r' or "
                         "'r+'")
    if unfinished and _MODES[mode]:
        raise ValueError("an unfinished disk is opened for reading only")
    handle = _kelm.OpenDisk(encode(path), _MODES[mode], password, encode_all(allow_paths),
                            unfinished)
    return Disk(handle, os.fsdecode(path))


@wipes_passwords
def create(path: Path, size: Optional[int] = None, *, compressed: bool = False, level: int = -1,
           split: Optional[int] = None, encrypt: bool = False, parent: Optional[Path] = None,
           on_demand: bool = False, label: str = "", rounds: Optional[int] = None,
           password: Optional[Password] = None, allow_paths: Iterable[Path] = ()) -> Disk:
    """Makes an empty disk and opens it for writing.

    `size` is that of the parent by default, in bytes, and is rounded up. `compressed` with a
    `level` from 0 to 9 stores grains compressed, `split` is the largest size of a file, and
    `on_demand` makes files of a split disk when they are needed. A disk with a `parent` holds only
    what differs from it. `encrypt` encrypts the disk under `password`; a disk with an encrypted
    parent is encrypted anyway, under the same. `rounds` is how often a password is hashed before it
    opens the disk, by default as often as takes half a second.

    A file that exists is `Exists`. If making it fails, nothing is left behind; a disk that was
    made and then cannot be opened stays.

    >>> with kelm.create("new.vmdk", 64 << 20, compressed=True) as disk:
    ...     disk.write(b"kelm")
    4
    """
    options = new_disk_options(size=size, compressed=compressed, level=level, split=split,
                               encrypt=encrypt, rounds=rounds, parent=parent, on_demand=on_demand,
                               label=label)
    folders = encode_all(allow_paths)
    _kelm.create(encode(path), options, password, folders)
    return Disk(_kelm.OpenDisk(encode(path), True, password, folders, False), os.fsdecode(path))


def _not_negative(name: str, value: int) -> int:
    number = operator.index(value)
    if number < 0:
        raise ValueError(f"{name} is negative")
    return number


def _end_of_disk(name: str) -> NoSpace:
    return NoSpace("The disk ends there.", filename=name)
