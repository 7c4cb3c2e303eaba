#!/usr/bin/env python3
"""Fails if a page or drawing names a class, a function or a file that the tree does not have.

    check_names.py ROOT PAGE...

What stands in code font on a page, or in a drawing's `class` and `step` texts, and looks like a name
of C++ or a path into the tree, must occur in the sources.
"""

import pathlib
import re
import sys

SOURCE_ROOMS = ["yx", "krym", "compressors", "kelm", "host", "tools", "integrations", "examples",
                "tests", "docs", "cmake"]
CODE_FONT = re.compile(r"`([^`\n]+)`")
DRAWN = re.compile(r'class="(?:class|step)"[^>]*>([^<]*)<')
NAME = re.compile(r"^~?(?:\w+::)*[A-Za-z_]\w*(?:\(\))?$")
PATH = re.compile(r"^(?:%s)/[\w./-]*$" % "|".join(SOURCE_ROOMS))


def read_words(root):
    words = set()
    for room in SOURCE_ROOMS:
        for path in (root / room).rglob("*"):
            if path.suffix in (".h", ".cpp", ".txt", ".py", ".cmake"):
                words.update(re.findall(r"\w+", path.read_text(encoding="utf-8", errors="replace")))
    return words


def looks_like_code(name):
    """Class names, names with a scope, and names in camel case; not words of English or of data."""
    return "::" in name or name.endswith("()") or re.search(r"[a-z][A-Z]", name)


def find_tokens(page):
    text = page.read_text(encoding="utf-8")
    if page.suffix == ".svg":
        return [token.strip() for match in DRAWN.finditer(text) for token in match.group(1).split(",")]
    text = re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)
    return [match.group(1) for match in CODE_FONT.finditer(text)]


def check(root, page, words):
    findings = []
    for token in find_tokens(page):
        if PATH.match(token):
            if not (root / token).exists():
                findings.append(f"{page}: no such file: {token}")
        elif NAME.match(token) and looks_like_code(token):
            missing = [part for part in re.findall(r"\w+", token) if part not in words]
            if missing:
                findings.append(f"{page}: nothing is named {missing[0]}: {token}")
    return findings


def main():
    root = pathlib.Path(sys.argv[1])
    words = read_words(root)
    if "CVMDKDisk" not in words:
        sys.exit(f"no sources in {root}")
    findings = []
    for page in sys.argv[2:]:
        tokens = find_tokens(root / page)
        if not tokens:
            sys.exit(f"{page} names nothing")
        findings += check(root, root / page, words)
    print("\n".join(findings))
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
