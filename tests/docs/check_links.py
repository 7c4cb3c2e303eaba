#!/usr/bin/env python3
"""Fails if a page of the tree links to a file or a heading that is not there.

    check_links.py ROOT
"""

import pathlib
import re
import sys

LINK = re.compile(r"!?\[[^\]]*\]\(([^)\s]+)\)|\bsrc(?:set)?=\"([^\"\s]+)\"")


def anchors(page):
    """The anchors of a page's headings, as the sites that show Markdown make them."""
    result = set()
    for line in strip_blocks(page.read_text(encoding="utf-8")).split("\n"):
        if line.startswith("#"):
            text = line.lstrip("#").strip().lower()
            result.add(re.sub(r"[^\w\- ]", "", text).replace(" ", "-"))
    return result


def strip_blocks(text):
    return re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)


def find_pages(root):
    pages = [path for folder in (".", "docs", "bench", "fuzz", "integrations/*", "tests/*")
             for path in root.glob(f"{folder}/*.md")]
    if not pages:
        sys.exit(f"no pages in {root}")
    return pages


def check(page):
    findings = []
    for match in LINK.finditer(strip_blocks(page.read_text(encoding="utf-8"))):
        target = match.group(1) or match.group(2)
        if re.match(r"^[a-z]+:", target):
            continue
        name, _, anchor = target.partition("#")
        path = page.parent / name if name else page
        if not path.exists():
            findings.append(f"{page}: {target}: no such file")
        elif anchor and anchor not in anchors(path):
            findings.append(f"{page}: {target}: no such heading")
    return findings


def main():
    findings = [finding for page in find_pages(pathlib.Path(sys.argv[1])) for finding in check(page)]
    print("\n".join(findings))
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
