#!/usr/bin/env python3
"""Runs the commands of a page, one after the other, as its reader would.

Commands are the lines that begin with "$ " in blocks of the kind "console"; one that ends with a
backslash goes on in the next line. What the page does not show stands in comments:

    <!-- run: line of the shell -->       is run too
    <!-- status: 7 -->                    the next command ends with this exit status, not with 0
    <!-- where: line of the shell -->     from here to the end of the section, commands are left
                                          out where this one fails
    <!-- file: name -->                   the next block is what this file has
    <!-- finally: line of the shell -->   is run at the end, whatever has happened

All of it happens in an empty folder, in which folders of the page's own ("/backup", "/dev") are
found: a name that begins with one of these means the one below the folder. There,
tests/systemd/manager.py stands for systemd. What is installed below "/usr/local" is found first.

A condition may be "needs NAME...", which says which of these programs and devices are missing.
"""

import os
import re
import subprocess
import sys
import tempfile

STANDINS = ("/backup", "/offsite", "/dev/sd", "/dev/vg0", "/etc/kelm", "/etc/systemd",
            "/etc/credstore.encrypted", "/mnt", "/srv", "/tmp", "/usr/local")
ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", ".."))


NEEDS = """#!/bin/sh
status=0
for name; do
    case $name in
    /*) [ -w "$name" ] ;;
    *) command -v "$name" >/dev/null ;;
    esac || { echo "missing: $name"; status=1; }
done
exit $status
"""


class Command:
    """A line of the shell, with the line of the page where it ends."""

    def __init__(self, line_number, text, status=0, kind="run"):
        self.line_number = line_number
        self.text = text
        self.status = status
        self.kind = kind


class File(Command):
    """A file that a page shows."""

    def __init__(self, line_number, name):
        super().__init__(line_number, name, kind="file")
        self.content = ""
        self.is_open = False


def list_commands(page):
    """Yields the commands, and None where a section begins."""
    in_block = False
    status = 0
    pending = ""
    file = None
    for number, line in enumerate(page.splitlines(), 1):
        if line.startswith("```"):
            if file and file.is_open:
                yield file
                file = None
            elif file:
                file.is_open = True
            else:
                in_block = not in_block and line.strip() == "```console"
            continue
        hidden = re.fullmatch(r"<!-- (run|status|where|file|finally): (.*) -->", line)
        if file and file.is_open:
            file.content += line + "\n"
        elif hidden and hidden.group(1) == "status":
            status = int(hidden.group(2))
        elif hidden and hidden.group(1) == "file":
            file = File(number, hidden.group(2))
        elif hidden:
            yield Command(number, hidden.group(2), kind=hidden.group(1))
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
        self._make_program("nbdkit", "#!/bin/bash\nwords=(\"$@\")\nfor i in \"${!words[@]}\"; do\n"
                           f"[[ ${{words[i]}} != kelm ]] || words[i]='{plugin}'\ndone\n"
                           f"export PATH='{os.environ['PATH']}'\nexec nbdkit \"${{words[@]}}\"\n")
        manager = os.path.join(ROOT, "tests/systemd/manager.py")
        for name in ("systemctl", "journalctl", "systemd-creds"):
            self._make_program(name, "#!/bin/sh\n"
                               f"exec python3 -B '{manager}' '{self.folder}' {name} \"$@\"\n")
        self._make_program("needs", NEEDS)
        os.symlink(os.path.join(ROOT, "integrations/systemd/kelm-backup"),
                   os.path.join(programs, "kelm-backup"))
        # What the page installs is installed from here.
        os.mkdir(os.path.join(self.folder, "build"))
        os.symlink(os.path.dirname(os.path.dirname(tool)),
                   os.path.join(self.folder, "build", "release"))
        path = [os.path.join(self.folder, "usr/local", name) for name in ("sbin", "bin")]
        self.environment = dict(
            os.environ, PATH=":".join([*path, programs, os.environ["PATH"]]),
            CONFIGURATION_DIRECTORY=self.folder + "/etc/kelm/backups",
            RUNTIME_DIRECTORY=self.folder + "/run/kelm-backup")

    def _make_program(self, name, script):
        file_name = os.path.join(self.folder, "bin", name)
        with open(file_name, "w", encoding="utf-8") as file:
            file.write(script)
        os.chmod(file_name, 0o755)

    def place(self, text):
        """A text with the folders of the page below its folder."""
        names = "|".join(map(re.escape, STANDINS))
        return re.sub(rf"(?<![\w/.])({names})", self.folder + r"\1", text)

    def write(self, file):
        name = self.place(file.text)
        os.makedirs(os.path.dirname(name), exist_ok=True)
        with open(name, "w", encoding="utf-8") as target:
            target.write(self.place(file.content))
        # Whatever the mask is: settings that others may write are refused.
        os.chmod(name, 0o644)

    def run(self, command):
        """The exit status, and what was printed."""
        text = self.place(command.text)
        # Not a pipe, since what goes on in the background keeps that open.
        with tempfile.TemporaryFile("w+", encoding="utf-8") as output:
            status = subprocess.run(
                ["bash", "-c", text], cwd=self.folder, env=self.environment,
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, check=False).returncode
            output.seek(0)
            return status, output.read()


def run_all(page_name, page, commands):
    """How many there were."""
    done = 0
    left_out = False
    for command in commands:
        if not command:
            left_out = False
            continue
        if left_out or command.kind == "finally":
            continue
        done += 1
        if command.kind == "file":
            page.write(command)
            continue
        status, output = page.run(command)
        if command.kind == "where":
            left_out = status != 0
            if left_out:
                print(f"{page_name}:{command.line_number}: a section is left out\n{output}")
        elif status != command.status:
            sys.exit(f"{page_name}:{command.line_number}: {command.text}\n"
                     f"ended with {status}, not {command.status}\n{output}")
    return done


def main():
    page_name, tool, plugin = sys.argv[1:]
    with open(page_name, encoding="utf-8") as file:
        commands = list(list_commands(file.read()))
    if not any(commands):
        sys.exit(page_name + ": there are no commands")
    with tempfile.TemporaryDirectory() as folder:
        page = Page(folder, tool, plugin)
        try:
            done = run_all(page_name, page, commands)
        finally:
            for command in reversed(commands):
                if command and command.kind == "finally":
                    page.run(command)
    print(f"{done} commands")


if __name__ == "__main__":
    main()
