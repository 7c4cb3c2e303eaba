#!/usr/bin/env python3
"""Fails if Doxygen misses a contract.

    check_reference.py DOXYGEN ROOT
"""

import os
import pathlib
import subprocess
import sys


def main():
    doxygen, root = sys.argv[1], pathlib.Path(sys.argv[2])
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
