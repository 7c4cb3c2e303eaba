"""Sparse virtual disks for backups: whole ones and chains, compressed, split, encrypted.

`open` and `create` give a `Disk`, a raw binary file. The other functions are the commands of the
program `kelm`. All errors derive from `Error`. Warnings go to the logger "kelm".
"""

from ._disk import Disk, create, open
from ._errors import (Damaged, Denied, Error, Exists, InUse, InvalidArgument, IOFailure, NoSpace,
                      NotFound, Unfinished, WrongPassword)
from ._functions import (check, compare, convert, digest, drop, export_image, import_image,
                         list_backups, merge, prune, rename, repair, undo_repair, unlock)
from ._kelm import version as __version__
from ._results import (Backup, Check, Comparison, Digest, Dropped, Exported, Extent, FileRepair,
                       Finding, Holder, Info, Made, Place, Pruned, Renamed, Repair, Space,
                       Unlocked, Verdict)

__all__ = [
    "Backup", "Check", "Comparison", "Damaged", "Denied", "Digest", "Disk", "Dropped", "Error",
    "Exists", "Exported", "Extent", "FileRepair", "Finding", "Holder", "IOFailure", "InUse",
    "Info", "InvalidArgument", "Made", "NoSpace", "NotFound", "Place", "Pruned", "Renamed", "Repair",
    "Space", "Unfinished", "Unlocked", "Verdict", "WrongPassword", "__version__", "check", "compare",
    "convert", "create", "digest", "drop", "export_image", "import_image", "list_backups",
    "merge", "open", "prune", "rename", "repair", "undo_repair",
    "unlock",
]

# Users know these by the name of the package.
for _name in __all__:
    if _name != "__version__":
        globals()[_name].__module__ = __name__
del _name
