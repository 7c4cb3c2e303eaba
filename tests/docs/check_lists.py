#!/usr/bin/env python3
"""Fails if a numbered list of a page is written with numbers that Markdown does not show.

Only the first number of a list counts; the items after it are shown with the numbers that follow.

    check_lists.py ROOT
"""

import pathlib
import re
import sys

from check_links import find_pages

ITEM = re.compile(r"^(\d+)\. ")


def check(page):
    findings = []
    expected = None
    after_blank = False
    in_block = False
    for number, line in enumerate(page.read_text(encoding="utf-8").split("\n"), 1):
        if line.startswith("```"):
            in_block = not in_block
        item = None if in_block else ITEM.match(line)
        if item:
            if expected is not None and int(item.group(1)) != expected:
                findings.append(f"{page}:{number}: {item.group(1)} is shown as {expected}")
            expected = (expected or int(item.group(1))) + 1
        elif line.startswith("#") or (after_blank and line and not line.startswith(" ")):
            expected = None
        after_blank = not line.strip()
    return findings


def main():
    findings = [finding for page in find_pages(pathlib.Path(sys.argv[1])) for finding in check(page)]
    print("\n".join(findings))
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
