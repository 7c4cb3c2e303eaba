"""The commands of the program as functions.

What they have in common:

- `password` opens encrypted disks, and is that of the whole chain. A bytearray is overwritten when
  the function has ended, whatever came of it.
- `allow_paths` are folders in which files of the disk may lie, beside the disk's own.
- `threads` is how many threads compress and decompress; 0 takes one for each core.
- `progress` is called with the bytes that are done and those that there are in all (None if that is
  not known), in the thread that called, about ten times a second at most and at the end. Numbers
  rise; where work has several steps, such as one for each disk of a chain, they begin anew with each. What it
  raises ends the work and is raised by the function.
- Ctrl-C, and any other signal whose handler raises, ends the work in the main thread. So does
  whatever else is raised; and then, as after any error, nothing is left of what was being made.
- Other threads of Python run meanwhile.
"""

from __future__ import annotations

from typing import Any, Iterable, Literal, Optional

from . import _kelm
from ._arguments import (Password, Path, Progress, decode, encode, encode_all, new_disk_options,
                         wipes_passwords)
from ._results import (Backup, Check, Comparison, Digest, Dropped, Exported, FileRepair, Finding,
                       Holder, Made, Pruned, Renamed, Repair, Unlocked, Verdict)

Zeros = Literal["punch", "write", "skip"]


@wipes_passwords
def import_image(image: Path, disk: Path, *, size: Optional[int] = None, compressed: bool = False,
                 level: int = -1, split: Optional[int] = None, encrypt: bool = False,
                 parent: Optional[Path] = None, on_demand: bool = False, label: str = "",
                 digests: bool = True, pad: bool = False, overwrite: bool = False,
                 resume: bool = False, exclude_free: bool = False, rounds: Optional[int] = None,
                 password: Optional[Password] = None, allow_paths: Iterable[Path] = (),
                 threads: int = 0, progress: Optional[Progress] = None) -> Made:
    """Makes a disk of a raw image: a file, a block device, a pipe, or standard input for "-".

    The options of the new disk are those of `create`. `size` is that of the image by default; it
    must be given for a pipe, which may end before it with `pad` only. `digests` makes the file
    beside the disk by which `check` finds every change of the content.

    A disk that exists is `Exists`. With `overwrite` it stays until the new one is complete, and is
    then replaced. With `resume` the disk is one whose import was killed: what it holds already
    stays, its options too, and what goes wrong leaves it unfinished. `exclude_free` leaves out what
    ext2, ext3 and ext4 on the image say is free; it reads as zeros.

    >>> made = kelm.import_image("disk.img", "full.vmdk", compressed=True)
    >>> made.size, made.has_digests
    (8388608, True)
    """
    options = new_disk_options(size=size, compressed=compressed, level=level, split=split,
                               encrypt=encrypt, rounds=rounds, parent=parent, on_demand=on_demand,
                               label=label, digests=digests)
    fields: dict[str, Any] = _kelm.import_image(encode(image), encode(disk), options, password,
                                                encode_all(allow_paths), pad, overwrite, resume,
                                                exclude_free, threads, progress)
    return Made(**fields)


@wipes_passwords
def export_image(disk: Path, image: Path, *, overwrite: bool = False, zeros: Zeros = "punch",
                 unfinished: bool = False, password: Optional[Password] = None,
                 allow_paths: Iterable[Path] = (), threads: int = 0,
                 progress: Optional[Progress] = None) -> Exported:
    """Makes a raw image of a disk: a new file with holes, a block device, a pipe, or standard
    output for "-". A file or a block device that exists is `Exists` unless `overwrite` is set.

    `zeros` says what becomes of zeros in a file or on a device: "punch" leaves holes, and lets a
    device that can give their space back; "write" writes them; "skip" leaves what is there, which
    is right only for a target that is known to read as zeros.

    >>> exported = kelm.export_image("monday.vmdk", "restored.img")
    >>> exported.size, exported.written
    (8388608, 0)
    """
    if zeros not in ("punch", "write", "skip"):
        raise ValueError('zeros is neither "punch" nor "write" nor "skip"')
    fields: dict[str, Any] = _kelm.export_image(
        encode(disk), encode(image), overwrite, getattr(_kelm.ZeroPolicy, zeros), password,
        encode_all(allow_paths), unfinished, threads, progress)
    return Exported(decode(image), **fields)


@wipes_passwords
def convert(source: Path, target: Path, *, size: Optional[int] = None, compressed: bool = False,
            level: int = -1, split: Optional[int] = None, encrypt: bool = False,
            parent: Optional[Path] = None, on_demand: bool = False, label: str = "",
            digests: bool = True, rounds: Optional[int] = None, unfinished: bool = False,
            password: Optional[Password] = None, source_password: Optional[Password] = None,
            allow_paths: Iterable[Path] = (), threads: int = 0,
            progress: Optional[Progress] = None) -> Made:
    """Copies a disk, with what it has from its parents, to a new one of another kind.

    The options of the new disk are those of `create`; with `parent` it holds only what differs from
    that. `password` is that of both disks, unless `source_password` is given.

    >>> kelm.convert("tuesday.vmdk", "plain.vmdk").image_size
    8388608
    """
    options = new_disk_options(size=size, compressed=compressed, level=level, split=split,
                               encrypt=encrypt, rounds=rounds, parent=parent, on_demand=on_demand,
                               label=label, digests=digests)
    fields: dict[str, Any] = _kelm.convert(
        encode(source), encode(target), options,
        password if source_password is None else source_password, password,
        encode_all(allow_paths), unfinished, threads, progress)
    return Made(**fields)


@wipes_passwords
def check(disk: Path, *, own: bool = False, needs_digests: bool = False,
          sample: Optional[float] = None, seed: Optional[int] = None,
          password: Optional[Password] = None, allow_paths: Iterable[Path] = (), threads: int = 0,
          progress: Optional[Progress] = None) -> Check:
    """Reads everything of a disk and of its parents, and lists what is wrong.

    With `own`, parents are left alone. With `needs_digests`, it is a finding that a disk has no
    digests that are up to date. `sample` reads a random part of the grains, in percent; the same
    `seed` chooses the same ones.

    >>> kelm.check("tuesday.vmdk").is_sound
    True
    """
    if sample is not None and not 0 < sample <= 100:
        raise ValueError("sample is not above 0 and at most 100")
    if seed is not None and (sample is None or not 0 < seed < 1 << 64):
        raise ValueError("seed goes with sample, and is a number above 0")
    fields: dict[str, Any] = _kelm.check(encode(disk), own, needs_digests,
                                         0 if sample is None else sample, seed or 0, password,
                                         encode_all(allow_paths), threads, progress)
    findings = tuple(Finding(*finding) for finding in fields.pop("findings"))
    return Check(findings=findings, seed=fields.pop("seed") or None, **fields)


@wipes_passwords
def compare(left: Path, right: Path, *, unfinished: bool = False,
            password: Optional[Password] = None, right_password: Optional[Password] = None,
            allow_paths: Iterable[Path] = (), threads: int = 0,
            progress: Optional[Progress] = None) -> Comparison:
    """Compares two disks or raw images by their content. `password` is that of both disks, unless
    `right_password` is given.

    >>> kelm.compare("disk.img", "monday.vmdk").is_equal
    True
    >>> kelm.compare("monday.vmdk", "tuesday.vmdk").first_difference
    65536
    """
    fields: dict[str, Any] = _kelm.compare(
        encode(left), encode(right), password,
        password if right_password is None else right_password, encode_all(allow_paths),
        unfinished, threads, progress)
    return Comparison(**fields)


@wipes_passwords
def digest(disk: Path, *, keep: bool = False, overwrite: bool = False,
           password: Optional[Password] = None, allow_paths: Iterable[Path] = (),
           threads: int = 0, progress: Optional[Progress] = None) -> Digest:
    """The SHA-256 of the image that a disk stands for: taken from the digests beside the disk if
    they have it and are up to date, otherwise made by reading the disk.

    With `keep`, makes the digests of the disk, by which `check` finds every change. Digests that
    are up to date are `Exists` unless `overwrite` is set: they were made of sound content.

    >>> image = pathlib.Path("disk.img").read_bytes()
    >>> kelm.digest("monday.vmdk").sha256 == hashlib.sha256(image).hexdigest()
    True
    """
    digested = _kelm.digest(encode(disk), keep, overwrite, password, encode_all(allow_paths),
                            threads, progress)
    return Digest(decode(disk), digested.hex())


def list_backups(*folders: Path) -> tuple[Backup, ...]:
    """The disks below folders, and the parents that lie elsewhere: each child behind its parent,
    otherwise in the order of their times. Disks that are being written are listed too.

    >>> for backup in kelm.list_backups("."):
    ...     print(os.path.basename(backup.path), backup.state, backup.parent_count)
    monday.vmdk complete 0
    tuesday.vmdk complete 1
    """
    return tuple(Backup(**fields) for fields in _kelm.list_backups(encode_all(folders)))


@wipes_passwords
def prune(*folders: Path, keep_last: int = 0, keep_hourly: int = 0, keep_daily: int = 0,
          keep_weekly: int = 0, keep_monthly: int = 0, keep_yearly: int = 0, label: str = "",
          dry_run: bool = False, password: Optional[Password] = None,
          allow_paths: Iterable[Path] = (), threads: int = 0,
          progress: Optional[Progress] = None) -> Pruned:
    """Thins out the backups in folders: those that no rule keeps are taken out of their chains, and
    their children keep their content.

    `keep_last` keeps the newest of each source, `keep_daily` the newest of each of so many days
    that have any, and so on. With `label`, other disks stay. Who was interrupted goes on by the
    same call.

    >>> pruned = kelm.prune(".", keep_last=1, dry_run=True)
    >>> [os.path.basename(path) for path in pruned.dropped]
    ['monday.vmdk']
    """
    keep = [keep_last, keep_hourly, keep_daily, keep_weekly, keep_monthly, keep_yearly]
    if any(number < 0 for number in keep) or not any(keep):
        raise ValueError("say what is to be kept, such as keep_daily=7")
    verdicts = _kelm.prune(encode_all(folders), keep, label, dry_run, password,
                           encode_all(allow_paths), threads, progress)
    return Pruned(tuple(Verdict(path, time, tuple(reasons)) for path, time, reasons in verdicts),
                  dry_run)


@wipes_passwords
def drop(disk: Path, *, look_in: Iterable[Path] = (), verify: bool = False,
         password: Optional[Password] = None, allow_paths: Iterable[Path] = (), threads: int = 0,
         progress: Optional[Progress] = None) -> Dropped:
    """Takes a disk out of its chain: its children keep their content, and its files go. A disk
    without children is deleted. Children are looked for in the disk's folder, or in `look_in`, and
    below. With `verify`, each is compared with what it was. Who was interrupted goes on by the same
    call.

    >>> [os.path.basename(path) for path in kelm.drop("monday.vmdk").children]
    ['tuesday.vmdk']
    """
    return Dropped(*_kelm.drop(encode(disk), encode_all(look_in), verify, password,
                               encode_all(allow_paths), threads, progress))


@wipes_passwords
def merge(first: Path, last: Path, target: Path, *, compressed: bool = False, level: int = -1,
          split: Optional[int] = None, encrypt: bool = False, on_demand: bool = False,
          label: str = "", digests: bool = True, rounds: Optional[int] = None,
          password: Optional[Password] = None, allow_paths: Iterable[Path] = (), threads: int = 0,
          progress: Optional[Progress] = None) -> Made:
    """Makes one disk that holds what several links of a chain hold, from `first` to its descendant
    `last`, over the parent of the first. It reads as `last`; the links stay.

    >>> made = kelm.merge("monday.vmdk", "tuesday.vmdk", "both.vmdk", compressed=True)
    >>> kelm.compare("tuesday.vmdk", made.path).is_equal
    True
    """
    options = new_disk_options(compressed=compressed, level=level, split=split, encrypt=encrypt,
                               rounds=rounds, on_demand=on_demand, label=label, digests=digests)
    fields: dict[str, Any] = _kelm.merge(encode(first), encode(last), encode(target), options,
                                         password, encode_all(allow_paths), threads, progress)
    return Made(**fields)


def rename(old: Path, new: Path, *, look_in: Iterable[Path] = (),
           allow_paths: Iterable[Path] = (), progress: Optional[Progress] = None) -> Renamed:
    """Gives a disk another name, perhaps in another folder or on another file system: all of its
    files, and its name in its children, which are looked for as by `drop`. Who was interrupted goes
    on by the same call.

    >>> kelm.rename("monday.vmdk", "full.vmdk")  # doctest: +ELLIPSIS
    Renamed(files=('...full.vmdk', ...), children=('...tuesday.vmdk',))
    """
    return Renamed(*_kelm.rename(encode(old), encode(new), encode_all(look_in),
                                 encode_all(allow_paths), progress))


@wipes_passwords
def repair(disk: Path, *, dry_run: bool = False, password: Optional[Password] = None,
           allow_paths: Iterable[Path] = ()) -> Repair:
    """Puts headers and tables of a disk right, as far as can be known. `undo_repair` takes it back.

    >>> kelm.repair("tuesday.vmdk", dry_run=True)
    Repair(files=(), dry_run=True)
    """
    files = _kelm.repair(encode(disk), dry_run, password, encode_all(allow_paths))
    return Repair(tuple(FileRepair(path, tuple(mended), tuple(left))
                        for path, mended, left in files), dry_run)


def undo_repair(disk: Path, *, allow_paths: Iterable[Path] = ()) -> int:
    """Takes the last repair of a disk back, and returns how many sectors that brought back. Without
    one it is `NotFound`."""
    return _kelm.undo_repair(encode(disk), encode_all(allow_paths))


def unlock(disk: Path, *, force: bool = False, allow_paths: Iterable[Path] = ()) -> Unlocked:
    """Says who holds a disk, and frees it of processes of this machine that have ended. With `force`,
    its store shuts out the clients of other machines, at your word that they are dead.

    >>> kelm.unlock("tuesday.vmdk").is_free
    True
    """
    fields: dict[str, Any] = _kelm.unlock(encode(disk), force, encode_all(allow_paths))
    for name in "holders", "shut_out":
        fields[name] = tuple(Holder(**holder) for holder in fields[name])
    return Unlocked(**fields)
