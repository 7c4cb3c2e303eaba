#!/usr/bin/env python3
"""A small stand-in for systemd, for machines and containers where there is none.

It finds units and their drop-ins below a folder that stands for "/", and runs what their lines say,
in the order and with the environment that systemd gives them: run-time folders, credentials, the
steps of a service, what comes after it whatever has happened, and the units that a failure starts.
Nothing is sandboxed. What is told goes into a journal of its own.

    manager.py ROOT systemctl enable [--now] UNIT... | start UNIT | daemon-reload | list-timers
    manager.py ROOT journalctl [-u UNIT] [-o json] [FIELD=VALUE]...
    manager.py ROOT systemd-creds encrypt --name=NAME INPUT OUTPUT
"""

import base64
import json
import os
import pathlib
import re
import shlex
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading

UNIT_FOLDERS = ["etc/systemd/system", "usr/local/lib/systemd/system", "usr/lib/systemd/system"]
# Settings whose lines add up; of all others the last line counts.
LISTS = {"ExecStartPre", "ExecStart", "ExecStopPost", "Environment", "LoadCredentialEncrypted",
         "ReadWritePaths", "OnFailure", "RequiresMountsFor", "WantedBy", "RuntimeDirectory",
         "StateDirectory", "ConfigurationDirectory"}


class Journal:
    """Entries as a file of JSON, an object in a line."""

    def __init__(self, root):
        self.file = root / "run/journal.json"
        self.file.parent.mkdir(parents=True, exist_ok=True)

    def add(self, entry):
        with open(self.file, "a", encoding="utf-8") as file:
            file.write(json.dumps(entry) + "\n")

    def entries(self):
        if not self.file.exists():
            return []
        return [json.loads(line) for line in self.file.read_text(encoding="utf-8").splitlines()]


def decode(datagram):
    """An entry as programs send it to the journal."""
    entry = {}
    while datagram:
        line, _, datagram = datagram.partition(b"\n")
        name, equals, value = line.partition(b"=")
        if not equals:
            (length,) = struct.unpack("<Q", datagram[:8])
            value, datagram = datagram[8:8 + length], datagram[8 + length + 1:]
        entry[name.decode()] = value.decode()
    return entry


class JournalSocket:
    """Takes entries while a unit runs."""

    def __init__(self, journal, unit):
        self._folder = tempfile.TemporaryDirectory()
        self.path = os.path.join(self._folder.name, "journal")
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(self.path)
        self._journal = journal
        self._unit = unit
        self._thread = threading.Thread(target=self._receive)

    def _receive(self):
        while True:
            datagram = self._socket.recv(1 << 18)
            if datagram == b"END":
                return
            self._journal.add(dict(decode(datagram), _SYSTEMD_UNIT=self._unit))

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as end:
            end.sendto(b"END", self.path)
        self._thread.join()
        self._socket.close()
        self._folder.cleanup()


class Manager:
    """The units below a folder."""

    def __init__(self, root):
        self.root = pathlib.Path(root).resolve()
        self.journal = Journal(self.root)
        # Of the main steps of each unit that has run.
        self.status = {}

    def find(self, unit):
        for folder in UNIT_FOLDERS:
            for name in (unit, re.sub(r"@[^.]*\.", "@.", unit)):
                if (self.root / folder / name).is_file():
                    return self.root / folder / name
        raise FileNotFoundError(f"Unit {unit} not found.")

    def files_of(self, unit):
        yield self.find(unit)
        for name in dict.fromkeys([re.sub(r"@[^.]*\.", "@.", unit), unit]):
            for folder in UNIT_FOLDERS:
                yield from sorted((self.root / folder / (name + ".d")).glob("*.conf"))

    def load(self, unit):
        """The settings, with the specifiers in them replaced."""
        instance = re.search(r"@([^.]*)\.", unit)
        specifiers = {"i": instance.group(1) if instance else "", "n": unit, "%": "%"}
        settings = {name: [] for name in LISTS}
        for file in self.files_of(unit):
            for line in file.read_text(encoding="utf-8").splitlines():
                line = line.strip()
                if not line or line[0] in "#;[":
                    continue
                name, _, value = line.partition("=")
                value = re.sub("%(.)", lambda match: specifiers[match.group(1)], value.strip())
                if name not in LISTS:
                    settings[name] = value
                elif value:
                    settings[name].append(value)
                else:
                    settings[name] = []
        return settings

    def load_credentials(self, settings, folder):
        for line in settings["LoadCredentialEncrypted"]:
            name, _, source = line.partition(":")
            for store in ("run/credstore.encrypted", "etc/credstore.encrypted"):
                place = self.root / store / source
                if place.exists():
                    sealed = json.loads(base64.b64decode(place.read_bytes()))
                    if sealed["name"] != name:
                        raise ValueError(f"the credential is named {sealed['name']}, not {name}")
                    pathlib.Path(folder, name).write_text(sealed["secret"], encoding="utf-8")
                    os.chmod(pathlib.Path(folder, name), 0o400)

    def environment(self, settings, invocation, credentials, journal):
        environment = {"PATH": os.environ["PATH"], "LANG": "C.UTF-8", "INVOCATION_ID": invocation,
                       "KELM_BACKUP_JOURNAL": journal}
        for word in shlex.split(" ".join(settings["Environment"])):
            name, _, value = word.partition("=")
            environment[name] = value
        for setting, variable, folder in (("RuntimeDirectory", "RUNTIME_DIRECTORY", "run"),
                                          ("StateDirectory", "STATE_DIRECTORY", "var/lib"),
                                          ("ConfigurationDirectory", "CONFIGURATION_DIRECTORY",
                                           "etc")):
            # In the order of their names, as systemd has them.
            paths = sorted(str(self.root / folder / name)
                           for name in " ".join(settings[setting]).split())
            for path in paths:
                os.makedirs(path, exist_ok=True)
            if paths:
                environment[variable] = ":".join(paths)
        if settings["LoadCredentialEncrypted"]:
            environment["CREDENTIALS_DIRECTORY"] = credentials
        return environment

    def run_line(self, unit, line, environment):
        """The exit status, negative for a signal."""
        prefix = re.match(r"[-+@!:]*", line).group()
        words = shlex.split(line[len(prefix):])
        result = subprocess.run(words, env=environment, cwd="/", stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        for text in result.stdout.decode(errors="replace").splitlines():
            self.journal.add({"MESSAGE": text, "_SYSTEMD_UNIT": unit})
        return 0 if "-" in prefix else result.returncode

    def start(self, unit):
        """Runs a service to its end, and what its failure starts; whether all went well."""
        settings = self.load(unit)
        if settings.get("Type") != "oneshot":
            raise ValueError(f"{unit} is of another type than oneshot")
        invocation = os.urandom(16).hex()
        with tempfile.TemporaryDirectory() as credentials, \
                JournalSocket(self.journal, unit) as journal:
            self.load_credentials(settings, credentials)
            environment = self.environment(settings, invocation, credentials, journal.path)
            status = 0
            for line in settings["ExecStartPre"] + settings["ExecStart"]:
                status = self.run_line(unit, line, environment)
                if status != 0:
                    break
            result = "success" if status == 0 else "exit-code" if status > 0 else "signal"
            environment.update(
                SERVICE_RESULT=result, EXIT_CODE="killed" if status < 0 else "exited",
                EXIT_STATUS=signal.Signals(-status).name[3:] if status < 0 else str(status))
            for line in settings["ExecStopPost"]:
                stop_status = self.run_line(unit, line, environment)
                status = status or stop_status
        return self.end(unit, settings, status)

    def end(self, unit, settings, status):
        self.status[unit] = status
        if status == 0:
            return True
        self.journal.add({"MESSAGE": f"{unit}: Failed: {status}", "_SYSTEMD_UNIT": unit})
        for other in settings["OnFailure"]:
            self.start(other)
        return False

    def enable(self, unit):
        for target in self.load(unit)["WantedBy"]:
            wants = self.root / "etc/systemd/system" / (target + ".wants")
            wants.mkdir(parents=True, exist_ok=True)
            (wants / unit).symlink_to(self.find(unit))

    def timers(self):
        """The enabled timers, with when they are due."""
        wants = self.root / "etc/systemd/system/timers.target.wants"
        return {file.name: self.load(file.name)["OnCalendar"] for file in sorted(wants.glob("*"))}


def with_suffix(unit):
    return unit if re.search(r"\.(service|timer)$", unit) else unit + ".service"


def systemctl(manager, words):
    command, *units = [word for word in words if word != "--now"]
    units = [with_suffix(unit) for unit in units]
    if command == "enable":
        for unit in units:
            manager.enable(unit)
    elif command == "start":
        if not all([manager.start(unit) for unit in units]):
            sys.exit("Job failed.")
    elif command == "list-timers":
        for unit, calendar in manager.timers().items():
            print(unit, calendar)
    elif command != "daemon-reload":
        sys.exit(f"systemctl {command}: not known to the stand-in")


def journalctl(manager, words):
    matches = {}
    as_json = False
    words = iter(words)
    for word in words:
        if word == "-u":
            matches["_SYSTEMD_UNIT"] = with_suffix(next(words))
        elif word == "-o":
            as_json = next(words) == "json"
        elif "=" in word:
            name, _, value = word.partition("=")
            matches[name] = value
        else:
            sys.exit(f"journalctl {word}: not known to the stand-in")
    found = [entry for entry in manager.journal.entries()
             if all(entry.get(name) == value for name, value in matches.items())]
    for entry in found:
        print(json.dumps(entry) if as_json else entry["MESSAGE"])
    sys.exit(0 if found else 1)


def systemd_creds(words):
    command, name, source, target = words
    if command != "encrypt" or not name.startswith("--name="):
        sys.exit("systemd-creds: not known to the stand-in")
    secret = sys.stdin.read() if source == "-" else pathlib.Path(source).read_text(encoding="utf-8")
    sealed = json.dumps({"name": name[len("--name="):], "secret": secret})
    pathlib.Path(target).write_bytes(base64.b64encode(sealed.encode()))


def main():
    root, program, *words = sys.argv[1:]
    if program == "systemd-creds":
        systemd_creds(words)
    else:
        {"systemctl": systemctl, "journalctl": journalctl}[program](Manager(root), words)


if __name__ == "__main__":
    main()
