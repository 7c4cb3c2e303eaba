#!/usr/bin/env python3
"""Writes the C++ blocks of a page out as programs.

    extract_code.py PAGE FOLDER

A comment in front of each block says which program it belongs to, and where in it:

    <!-- code: NAME -->        in the body of the program, which runs from top to bottom
    <!-- code: NAME outside -->  in front of it, where functions and classes go

Blocks of one program follow each other in the order of the page. What a reader need not see stands
in a comment of its own:

    <!-- hidden code: NAME [outside]
    ...
    -->

A program gives 0 if it comes to its end, and 1 if an error leaves it or `expect` is given false.
"""

import pathlib
import re
import sys

MARKER = re.compile(r"^<!-- code: (\w+)( outside)? -->$")
HIDDEN = re.compile(r"^<!-- hidden code: (\w+)( outside)?$")

OPENING = """\
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace {

[[maybe_unused]] void expectAt(bool fact, int line) {
    if (!fact) {
        std::fprintf(stderr, "not so at line %d\\n", line);
        std::exit(1);
    }
}

} // namespace

#define expect(fact) expectAt(fact, __LINE__)
"""

BODY = """
int main() {
    try {
"""

CLOSING = """
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s\\n", error.what());
        return 1;
    }
}
"""


class Program:
    """The pieces of one program, as lists of (line number, lines)."""

    def __init__(self):
        self.outside = []
        self.body = []

    def text(self, page):
        parts = [OPENING]
        parts += [piece(page, *entry) for entry in self.outside]
        parts.append(BODY)
        parts += [piece(page, *entry) for entry in self.body]
        parts.append(CLOSING)
        return "".join(parts)


def piece(page, number, lines):
    return f'#line {number} "{page}"\n' + "\n".join(lines) + "\n"


def read_until(lines, start, end):
    """The lines from `start` on before the one that is `end`, and the index behind that."""
    for index in range(start, len(lines)):
        if lines[index] == end:
            return lines[start:index], index + 1
    sys.exit(f"line {start}: nothing ends this block")


def read_programs(lines):
    programs = {}

    def add(match, start, code):
        program = programs.setdefault(match.group(1), Program())
        place = program.outside if match.group(2) else program.body
        place.append((start + 1, code))

    index = 0
    while index < len(lines):
        hidden = HIDDEN.match(lines[index])
        if hidden:
            code, end = read_until(lines, index + 1, "-->")
            add(hidden, index + 1, code)
            index = end
        elif lines[index] == "```cpp":
            marker = MARKER.match(lines[index - 1])
            if not marker:
                sys.exit(f"line {index + 1}: no comment says which program this code belongs to")
            code, end = read_until(lines, index + 1, "```")
            add(marker, index + 1, code)
            index = end
        else:
            index += 1
    return programs


def main():
    page = pathlib.Path(sys.argv[1])
    folder = pathlib.Path(sys.argv[2])
    programs = read_programs(page.read_text(encoding="utf-8").split("\n"))
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.glob("*.cpp"):
        if old.stem not in programs:
            old.unlink()
    for name, program in programs.items():
        path = folder / f"{name}.cpp"
        text = program.text(page)
        if not path.exists() or path.read_text(encoding="utf-8") != text:
            path.write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
