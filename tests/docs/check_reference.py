#!/usr/bin/env python3
"""Fails if Doxygen misses a contract, or leaves out a header that is installed.

    check_reference.py DOXYGEN ROOT
"""

import os
import pathlib
import re
import subprocess
import sys


def check_exclusions(root):
    """What the reference leaves out is what is not installed."""
    install = (root / "cmake/KelmInstall.cmake").read_text(encoding="utf-8")
    internal = re.search(r"set\(internal_headers(.*?)\)", install, re.DOTALL).group(1).split()
    doxyfile = (root / "Doxyfile").read_text(encoding="utf-8").replace("\\\n", " ")
    excluded = re.search(r"^EXCLUDE\s*=(.*)$", doxyfile, re.MULTILINE).group(1).split()
    if sorted(internal) != sorted(excluded):
        sys.exit(f"Doxyfile and KelmInstall.cmake differ: {sorted(set(internal) ^ set(excluded))}")


def main():
    doxygen, root = sys.argv[1], pathlib.Path(sys.argv[2])
    check_exclusions(root)
    output = pathlib.Path("html")
    output.mkdir(exist_ok=True)
    settings = (root / "Doxyfile").read_text(encoding="utf-8")
    settings += f"\nOUTPUT_DIRECTORY = {os.getcwd()}\n"
    run = subprocess.run([doxygen, "-"], input=settings, cwd=root, text=True, check=False)
    page = output / "classkelm_1_1CVMDKDisk.html"
    if run.returncode == 0 and not page.exists():
        sys.exit("Doxygen has written no page about CVMDKDisk")
    sys.exit(run.returncode)


if __name__ == "__main__":
    main()
