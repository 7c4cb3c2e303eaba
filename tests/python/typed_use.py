"""What a user with a type checker writes. It is checked, and never run."""

import io
import shutil
from pathlib import Path
from typing import Optional

import kelm


def show(done: int, total: Optional[int]) -> None:
    print(done, total)


def back_up(image: Path, disk: Path, password: bytearray) -> int:
    made: kelm.Made = kelm.import_image(image, disk, compressed=True, encrypt=True,
                                        password=password, progress=show)
    return made.image_size


def go_on(image: Path, disk: Path) -> int:
    made = kelm.import_image(image, disk, resume=True, exclude_free=True)
    return (made.free_bytes or 0) + kelm.import_image(image, disk, overwrite=True).size


def read(path: Path) -> list[int]:
    with kelm.open(path, allow_paths=[path.parent]) as disk:
        reader: io.BufferedReader = io.BufferedReader(disk)
        first: bytes = reader.read(1)
        shutil.copyfileobj(disk, io.BytesIO(first + disk.read()))
        parent: Optional[kelm.Disk] = disk.parent
        sizes = [extent.length for extent in disk.extents() if extent.place is kelm.Place.HERE]
        return sizes + [disk.space().dead_bytes, 0 if parent is None else parent.size]


def explain(error: kelm.Error) -> str:
    return f"{error.code} {error.message} {error.properties.get('uri', '')}"


def why(verdicts: kelm.Pruned) -> dict[str, tuple[str, ...]]:
    return {verdict.path: verdict.reasons for verdict in verdicts.verdicts}
