"""What the functions of kelm return. All of it is frozen. Sizes are in bytes."""

from __future__ import annotations

import enum
from dataclasses import dataclass
from typing import Optional


class Place(enum.Enum):
    """Who holds a part of a disk."""

    HERE = "here"
    """The disk itself."""
    PARENT = "parent"
    """A parent of the disk."""
    ABSENT = "absent"
    """Nobody; it reads as zeros."""


@dataclass(frozen=True)
class Extent:
    """Neighbouring bytes of a disk that are held in the same place."""

    start: int
    length: int
    place: Place

    @property
    def end(self) -> int:
        """The first byte behind."""
        return self.start + self.length


@dataclass(frozen=True)
class Info:
    """What a disk says of itself. What it does not say is None."""

    path: str
    kind: str
    """The descriptor's word for how the disk lies in its files."""
    size: int
    """Of the disk, which is a whole number of 64 KiB."""
    image_size: Optional[int]
    """Of the image that it was made of."""
    grain_size: int
    compressed: bool
    encrypted: bool
    on_demand: bool
    unfinished: bool
    content_id: int
    """A number that changes with the content."""
    parent: Optional[str]
    files: tuple[str, ...]
    """The main file, then those of the extents, present or not."""
    time: Optional[str]
    """When the image was taken: "2031-05-04T02:00:00Z"."""
    source: Optional[str]
    host: Optional[str]
    label: Optional[str]


@dataclass(frozen=True)
class Space:
    """How the files of a disk use their space; those of parents are not counted."""

    payload_bytes: int
    """What the grains hold that the disk has itself."""
    payload_bytes_in_file: int
    """What these take in the files, compressed where they are."""
    header_bytes: int
    """Headers and tables."""
    dead_bytes: int
    """What nothing refers to."""


@dataclass(frozen=True)
class Made:
    """A disk that has been made and filled."""

    path: str
    size: int
    image_size: int
    """How much of the disk is the image."""
    has_digests: bool
    """Whether a file of digests lies beside it, by which `check` finds every change."""

    free_bytes: Optional[int] = None
    """How many bytes of the image `exclude_free` left out; None without it."""


@dataclass(frozen=True)
class Exported:
    """An image that has been made of a disk."""

    path: str
    size: int
    punched: int
    """Bytes of zeros that take no space in a file or on a device."""

    left: int
    """Bytes of zeros that were left as the target had them."""

    written: int
    """Bytes of zeros that were written."""


@dataclass(frozen=True)
class Finding:
    """What is wrong with a file."""

    path: str
    text: str


@dataclass(frozen=True)
class Check:
    """What a check has come to."""

    findings: tuple[Finding, ...]
    held_grains: int
    """How many grains the disks hold, and how many of them were read."""
    read_grains: int
    seed: Optional[int]
    """What the grains were drawn with; None if all were read."""
    out_of_date: tuple[str, ...]
    """The disks whose digests are those of another content; nothing was compared with them."""

    @property
    def is_sound(self) -> bool:
        """Whether there is no finding."""
        return not self.findings


@dataclass(frozen=True)
class Comparison:
    """What a comparison of two contents has found."""

    first_difference: Optional[int]
    """Where the first byte differs; None if none does."""
    differing_bytes: int
    left_bytes: int
    """How many bytes were read of each side."""
    right_bytes: int

    @property
    def is_equal(self) -> bool:
        """Whether nothing differs."""
        return self.differing_bytes == 0


@dataclass(frozen=True)
class Digest:
    """The SHA-256 of the image that a disk stands for."""

    path: str
    sha256: str
    """64 hexadecimal digits, as common tools print them."""


@dataclass(frozen=True)
class Backup:
    """A disk among others, as its headers and descriptor describe it."""

    path: str
    state: str
    """"complete", "unfinished", "parent missing", "parent changed", "parent failing" or
    "damaged"."""
    problem: Optional[str]
    """What is wrong, for people; None for a complete disk."""
    time: Optional[str]
    source: Optional[str]
    host: Optional[str]
    label: Optional[str]
    size: int
    image_size: Optional[int]
    own_bytes: int
    """What its own files take on their file system."""
    compressed: bool
    encrypted: bool
    on_demand: bool
    file_count: int
    parent: Optional[str]
    parent_count: int
    """How many parents there are below this disk, and how many disks need it."""
    dependent_count: int


@dataclass(frozen=True)
class Verdict:
    """A disk, and why it is kept."""

    path: str
    time: Optional[str]
    reasons: tuple[str, ...]
    """Empty for a disk that goes."""

    @property
    def keep(self) -> bool:
        """Whether the disk stays."""
        return bool(self.reasons)


@dataclass(frozen=True)
class Pruned:
    """What has become of the disks in folders, or would have with ``dry_run``."""

    verdicts: tuple[Verdict, ...]
    dry_run: bool

    @property
    def dropped(self) -> tuple[str, ...]:
        """The disks that have gone, or would have."""
        return tuple(verdict.path for verdict in self.verdicts if not verdict.keep)


@dataclass(frozen=True)
class Dropped:
    """A disk that has been taken out of its chain."""

    files: tuple[str, ...]
    """The files that went."""
    children: tuple[str, ...]
    """The disks that hang on the disk's parent now, or on none."""


@dataclass(frozen=True)
class Renamed:
    """A disk that has another name."""

    files: tuple[str, ...]
    """Its files, under their new names."""
    children: tuple[str, ...]
    """The children that know the new name now."""


@dataclass(frozen=True)
class FileRepair:
    """What was mended in a file, and what was left, in sentences."""

    path: str
    mended: tuple[str, ...]
    left: tuple[str, ...]


@dataclass(frozen=True)
class Repair:
    """What a repair has done, or would do with ``dry_run``."""

    files: tuple[FileRepair, ...]
    dry_run: bool

    @property
    def has_mended(self) -> bool:
        """Whether anything was mended, or would be."""
        return any(file.mended for file in self.files)

    @property
    def has_left(self) -> bool:
        """Whether anything was found that cannot be mended."""
        return any(file.left for file in self.files)


@dataclass(frozen=True)
class Holder:
    """A client of a store that holds a disk. What the store does not tell is None."""

    client: str
    """The number by which the store knows it."""
    host: Optional[str]
    """The name of its machine."""
    user: Optional[str]
    """Of the store."""
    process: Optional[str]
    """Its number on that machine."""
    lives_here: bool
    """Whether it is a process of this machine that lives; such a one is not shut out."""


@dataclass(frozen=True)
class Unlocked:
    """What came of a disk that was to be unlocked."""

    is_free: bool
    """Whether nobody holds it."""
    are_holders_known: bool
    """Whether the store tells who holds it; folders of the machine do not."""
    holders: tuple[Holder, ...]
    """Who holds it still."""
    shut_out: tuple[Holder, ...]
    """Whom the store has shut out."""
