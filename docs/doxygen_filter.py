#!/usr/bin/python3
"""Shows Doxygen our headers as we read them.

In our headers a comment speaks for all declarations that stand below it without a blank line
between them: a getter and its setter, the overloads of a function. Doxygen would give it to the
first one alone, so this filter puts a member group around them. It also takes out what no reader
of the reference looks for: copying that is defaulted or deleted without a word.

Lines keep their numbers, so that Doxygen's warnings point to the right place.

    doxygen_filter.py HEADER
"""

import re
import sys

OPENS_SCOPE = re.compile(r"^(template\b.*>\s*)?(class|struct|namespace)\b[^;()]*\{$")
ACCESS = re.compile(r"^(public|protected|private):$")
SPECIAL_MEMBER = re.compile(r"^(\w+&? )?(~?\w+|operator=)\([^()]*\)( noexcept)? = (default|delete);$")


def strip_text(line):
    """The line without string and character literals and without comments."""
    line = re.sub(r'"(\\.|[^"\\])*"|\'(\\.|[^\'\\])*\'', "0", line)
    return line.split("//")[0].rstrip()


def read_declaration(lines, start):
    """The index behind the declaration that begins at `start`; a scope's opening counts as one."""
    depth = 0
    text = ""
    for index in range(start, len(lines)):
        stripped = strip_text(lines[index])
        text = (text + " " + stripped.strip()).strip()
        if OPENS_SCOPE.match(text):
            return index + 1
        depth += sum(stripped.count(c) for c in "({") - sum(stripped.count(c) for c in ")}")
        if depth <= 0 and stripped.endswith((";", "}")):
            return index + 1
    return len(lines)


def is_member(lines, start, end):
    """Whether these lines are a declaration that a comment may speak for."""
    text = " ".join(strip_text(line).strip() for line in lines[start:end])
    return not (
        OPENS_SCOPE.match(text)
        or ACCESS.match(text)
        or text.startswith(("}", "#", "friend ", "static_assert"))
    )


def hide_special_members(lines):
    """Blanks defaulted and deleted members that have no comment of their own."""
    for index, line in enumerate(lines):
        has_comment = index > 0 and lines[index - 1].strip().startswith("///")
        if SPECIAL_MEMBER.match(strip_text(line).strip()) and not has_comment:
            lines[index] = ""


def group_shared_comments(lines):
    """Puts a member group around the declarations that share a comment."""
    index = 0
    while index < len(lines):
        if not lines[index].strip().startswith("///"):
            index += 1
            continue
        comment = index
        while index < len(lines) and lines[index].strip().startswith("///"):
            index += 1
        count = 0
        while index < len(lines) and lines[index].strip():
            if lines[index].strip().startswith("//"):
                break
            end = read_declaration(lines, index)
            if not is_member(lines, index, end):
                index = end if count == 0 else index
                break
            count += 1
            index = end
        if count > 1:
            lines[comment - 1] += " /**@{*/"
            lines[index - 1] += " /**@}*/"


def escape_backslashes(lines):
    """Our comments have no commands; a backslash in them is part of a Windows path."""
    for index, line in enumerate(lines):
        if line.strip().startswith("///"):
            lines[index] = line.replace("\\", "\\\\")


def main():
    with open(sys.argv[1], encoding="utf-8") as header:
        lines = header.read().split("\n")
    hide_special_members(lines)
    group_shared_comments(lines)
    escape_backslashes(lines)
    sys.stdout.write("\n".join(lines))


if __name__ == "__main__":
    main()
