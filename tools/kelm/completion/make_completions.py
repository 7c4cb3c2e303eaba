#!/usr/bin/env python3
"""Writes the completions for fish and zsh beside this file, from the help of the program.

    make_completions.py KELM

The completion for bash asks the program itself whenever it is used. These two do not, since their
shells show what each option means.
"""

import pathlib
import re
import subprocess
import sys

HEAD_WIDTH = 30
OPTION = re.compile(r"^  (?:-h,)?--([a-z][a-z-]*)(?: ([A-Z]+)(?=[:\s]))?")
COMMAND = re.compile(r"^  ([a-z]+) +(.*)$")
FILES = {"FILE", "FOLDER"}
CHOICES = {"progress": "bar json none", "zeros": "punch skip write"}


def run(*arguments):
    return subprocess.run(arguments, check=True, capture_output=True, text=True).stdout


def read_commands(program):
    text = run(program, "--help").split("Subcommands:\n")[1].split("\n\n")[0]
    return [COMMAND.match(line).groups() for line in text.splitlines() if COMMAND.match(line)]


def read_options(program, command):
    """The name, the kind of value and the description of each option."""
    lines = run(program, command, "--help").split("\nExample:")[0].splitlines()
    options = []
    for index, line in enumerate(lines):
        match = OPTION.match(line)
        if not match:
            continue
        following = lines[index + 1] if index + 1 < len(lines) else ""
        is_below = following.startswith(" " * HEAD_WIDTH)
        description = following.strip() if is_below else line[HEAD_WIDTH:].strip()
        options.append((match.group(1), match.group(2) or "", description))
    return options


def quoted_for_fish(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


def write_fish(path, commands):
    lines = ["# fish completion for kelm(1), made by make_completions.py", ""]
    for name, description, _ in commands:
        lines.append(f"complete -c kelm -n __fish_use_subcommand -f -a {name} "
                     f"-d {quoted_for_fish(description)}")
    lines.append("complete -c kelm -n __fish_use_subcommand -l help -d 'Print help'")
    lines.append("complete -c kelm -n __fish_use_subcommand -l version -d 'Print the version'")
    for name, _, options in commands:
        lines.append("")
        for option, kind, description in options:
            value = ""
            if option in CHOICES:
                value = f" -x -a '{CHOICES[option]}'"
            elif kind in FILES:
                value = " -r -F"
            elif kind:
                value = " -x"
            lines.append(f"complete -c kelm -n '__fish_seen_subcommand_from {name}' -l {option}"
                         f"{value} -d {quoted_for_fish(description)}")
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")


def quoted_for_zsh(text):
    text = re.sub(r"([\[\]:\\])", r"\\\1", text)
    return text.replace("'", "'\\''")


def write_zsh(path, commands):
    lines = ["#compdef kelm", "# zsh completion for kelm(1), made by make_completions.py", "",
             "_kelm() {", "    local state", "    local -a commands", "    commands=("]
    lines += [f"        '{name}:{quoted_for_zsh(description)}'" for name, description, _ in commands]
    lines += ["    )",
              "    _arguments -C '--help[Print help]' '--version[Print the version]' \\",
              "        '1:command:->command' '*::argument:->argument'",
              "    case $state in",
              "        command)",
              "            _describe command commands",
              "            ;;",
              "        argument)",
              "            case $words[1] in"]
    for name, _, options in commands:
        lines += [f"                {name})", "                    _arguments \\"]
        for option, kind, description in options:
            value = ""
            if option in CHOICES:
                value = f":{kind}:({CHOICES[option]})"
            elif kind in FILES:
                value = f":{kind}:_files"
            elif kind:
                value = f":{kind}: "
            repeated = "\\*" if kind == "FOLDER" else ""
            head = f"{repeated}'--{option}[{quoted_for_zsh(description)}]{value}'"
            lines.append(f"                        {head} \\")
        lines += ["                        '*:file:_files'", "                    ;;"]
    lines += ["            esac", "            ;;", "    esac", "}", "", '_kelm "$@"']
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")


def main():
    program = sys.argv[1]
    folder = pathlib.Path(__file__).parent
    commands = [(name, description, read_options(program, name))
                for name, description in read_commands(program)]
    write_fish(folder / "kelm.fish", commands)
    write_zsh(folder / "_kelm", commands)


if __name__ == "__main__":
    main()
