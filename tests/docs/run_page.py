#!/usr/bin/env python3
"""Runs the commands of a page, one after the other, as its reader would.

Commands are the lines that begin with "$ " in blocks of the kind "console"; one that ends with a
backslash goes on in the next line. What the page does not show stands in comments:

    <!-- run: line of the shell -->       is run too
    <!-- status: 7 -->                    the next command ends with this exit status, not with 0
    <!-- where: line of the shell -->     from here to the end of the section, commands are left
                                          out where this one fails

All of it happens in an empty folder, in which folders of the page's own ("/backup", "/dev") are
found: a name that begins with one of these means the one below the folder.
"""

import os
import re
import subprocess
import sys
import tempfile

STANDINS = ("/backup", "/offsite", "/dev/sd", "/etc/kelm", "/mnt", "/tmp")


class Command:
    """A line of the shell, with the line of the page where it ends."""

    def __init__(self, line_number, text, status=0, is_condition=False):
        self.line_number = line_number
        self.text = text
        self.status = status
        self.is_condition = is_condition


def list_commands(page):
    """Yields the commands, and None where a section begins."""
    in_block = False
    status = 0
    pending = ""
    for number, line in enumerate(page.splitlines(), 1):
        if line.startswith("```"):
            in_block = not in_block and line.strip() == "```console"
            continue
        hidden = re.fullmatch(r"<!-- (run|status|where): (.*) -->", line)
        if hidden and hidden.group(1) == "status":
            status = int(hidden.group(2))
        elif hidden:
            yield Command(number, hidden.group(2), is_condition=hidden.group(1) == "where")
        elif in_block and (pending or line.startswith("$ ")):
            pending += line if pending else line[2:]
            if pending.endswith("\\"):
                pending = pending[:-1]
                continue
            yield Command(number, pending, status)
            pending, status = "", 0
        elif line.startswith("#") and not in_block:
            yield None


class Page:
    """The folder in which a page's commands are run."""

    def __init__(self, folder, tool, plugin):
        self.folder = os.path.realpath(folder)
        programs = os.path.join(self.folder, "bin")
        os.mkdir(programs)
        os.symlink(tool, os.path.join(programs, "kelm"))
        # Finds the plugin by its name, as an installed one does.
        wrapper = os.path.join(programs, "nbdkit")
        with open(wrapper, "w", encoding="utf-8") as file:
            file.write("#!/bin/bash\nwords=(\"$@\")\nfor i in \"${!words[@]}\"; do\n"
                       f"[[ ${{words[i]}} != kelm ]] || words[i]='{plugin}'\ndone\n"
                       "export PATH=${PATH#*:}\nexec nbdkit \"${words[@]}\"\n")
        os.chmod(wrapper, 0o755)
        self.environment = dict(os.environ, PATH=programs + ":" + os.environ["PATH"])

    def run(self, command):
        """The exit status, and what was printed."""
        names = "|".join(map(re.escape, STANDINS))
        text = re.sub(rf"(?<![\w/.])({names})", self.folder + r"\1", command.text)
        # Not a pipe, since what goes on in the background keeps that open.
        with tempfile.TemporaryFile("w+", encoding="utf-8") as output:
            status = subprocess.run(
                ["bash", "-c", text], cwd=self.folder, env=self.environment,
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, check=False).returncode
            output.seek(0)
            return status, output.read()


def main():
    page_name, tool, plugin = sys.argv[1:]
    with open(page_name, encoding="utf-8") as file:
        commands = list(list_commands(file.read()))
    if not any(commands):
        sys.exit(page_name + ": there are no commands")
    done = 0
    left_out = False
    with tempfile.TemporaryDirectory() as folder:
        page = Page(folder, tool, plugin)
        for command in commands:
            if not command:
                left_out = False
                continue
            if left_out:
                continue
            status, output = page.run(command)
            if command.is_condition:
                left_out = status != 0
                if left_out:
                    print(f"{page_name}:{command.line_number}: a section is left out\n{output}")
            elif status != command.status:
                sys.exit(f"{page_name}:{command.line_number}: {command.text}\n"
                         f"ended with {status}, not {command.status}\n{output}")
            done += 1
    print(f"{done} commands")


if __name__ == "__main__":
    main()
