"""What the tests of kelm-backup share: a folder with settings, a source and a destination."""

import faulthandler
import importlib.machinery
import importlib.util
import json
import os
import pathlib
import random
import signal
import subprocess

import pytest

from manager import Manager

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCES = ROOT / "integrations/systemd"
PROGRAM = SOURCES / "kelm-backup"
TOOL = os.environ["KELM_TOOL"]
FILE_LOG_LIBRARY = os.environ["KELM_FILE_LOG_LIBRARY"]
TEST_STORES = os.environ["KELM_TEST_STORES"]

SOURCE_BYTES = 2 << 20
GRAIN_BYTES = 65536


def load_program():
    """kelm-backup as a module."""
    loader = importlib.machinery.SourceFileLoader("kelm_backup", str(PROGRAM))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("kelm_backup", loader))
    loader.exec_module(module)
    return module


class Site:
    """A machine below a folder: the source is its file "disk", the backups go to "backup"; or to
    "test:/backup", whose store is the folder "store"."""

    def __init__(self, folder, is_in_store=False):
        self.folder = folder
        self.source = folder / "disk"
        # What the settings say, and where its files are.
        self.destination = "test:/backup" if is_in_store else folder / "backup"
        self.place = folder / ("store/backup" if is_in_store else "backup")
        self.is_in_store = is_in_store
        self.state = folder / "var/lib/kelm-backup"
        self.programs = folder / "bin"
        self.place.mkdir(parents=True)
        for name in ("bin", "run/kelm-backup", "etc/kelm/backups"):
            (folder / name).mkdir(parents=True)
        self.use_kelm(f'exec "{TOOL}" "$@"')
        (self.programs / "kelm-backup").symlink_to(PROGRAM)
        self.environment = dict(
            os.environ, PATH=f"{self.programs}:{os.environ['PATH']}",
            KELM_STORES=TEST_STORES, KELM_TEST_STORE=str(folder / "store"),
            RUNTIME_DIRECTORY=str(folder / "run/kelm-backup"), STATE_DIRECTORY=str(self.state),
            CONFIGURATION_DIRECTORY=str(folder / "etc/kelm/backups"))
        for name in ("INVOCATION_ID", "CREDENTIALS_DIRECTORY", "SERVICE_RESULT"):
            self.environment.pop(name, None)
        self.source.write_bytes(random.Random(1).randbytes(SOURCE_BYTES))
        self.configure()

    def use_kelm(self, script):
        """What runs as kelm: the lines of a shell script."""
        wrapper = self.programs / "kelm"
        wrapper.write_text("#!/bin/sh\n" + script + "\n", encoding="utf-8")
        wrapper.chmod(0o755)

    def kill_kelm(self, command, after):
        """From now on, `kelm COMMAND` is killed after so many operations on files."""
        self.use_kelm(f'[ "$1" != {command} ] || export KELM_FILE_LOG_KILL_AFTER={after} '
                      f'KELM_FILE_LOG_NO_SYNC=1 LD_PRELOAD="{FILE_LOG_LIBRARY}"\n'
                      f'exec "{TOOL}" "$@"')

    def mend_kelm(self):
        self.use_kelm(f'exec "{TOOL}" "$@"')

    def configure(self, name="web", **settings):
        """Writes the settings; "_" in their names stands for "-"."""
        settings = {"source": self.source, "destination": self.destination, **settings}
        lines = [f"{key.replace('_', '-')} = {value}\n" for key, value in settings.items()
                 if value is not None]
        file = self.folder / f"etc/kelm/backups/{name}.conf"
        file.write_text("".join(lines), encoding="utf-8")
        file.chmod(0o644)

    def call(self, command, name="web", **environment):
        return subprocess.run(
            [PROGRAM, command, name], env=dict(self.environment, **environment), check=False,
            stdin=subprocess.DEVNULL, capture_output=True, text=True)

    def run(self, command="run", status=0, name="web", **environment):
        """What a run says on standard error."""
        result = self.call(command, name, **environment)
        assert result.returncode == status, result.stdout + result.stderr
        return result.stderr

    def change(self, grain):
        """Gives a grain of the source other bytes."""
        with open(self.source, "r+b") as file:
            file.seek(grain * GRAIN_BYTES)
            file.write(random.Random(grain + 1000).randbytes(GRAIN_BYTES))

    def kelm(self, *arguments, status=0):
        result = subprocess.run([TOOL, *arguments, "--json"], env=self.environment, check=False,
                                stdin=subprocess.DEVNULL, capture_output=True, text=True)
        assert result.returncode == status, result.stdout + result.stderr
        return json.loads(result.stdout)

    def list(self):
        """The disks, the oldest first."""
        return sorted(self.kelm("list", str(self.destination))["disks"],
                      key=lambda disk: disk["file"].replace("Z.vmdk", "Z-1.vmdk"))

    def newest(self):
        return self.call("newest").stdout.strip()

    def expect_newest_is_source(self, *password):
        self.kelm("compare", self.newest(), str(self.source), *password)
        self.kelm("check", self.newest(), *password)

    def disk(self, name):
        """What a file of the destination is called."""
        return f"{self.destination}/{name}"

    def local(self, disk):
        """Where such a file is."""
        return self.place / pathlib.PurePath(disk).name

    def files(self):
        return sorted(os.listdir(self.place))

    def begun(self):
        """The names of what remembers which disk is being made."""
        if not self.is_in_store:
            return sorted(file.name for file in self.place.glob(".*"))
        return sorted(os.listdir(self.state)) if self.state.exists() else []

    def log(self):
        """What hooks have written into the file "log"."""
        file = self.folder / "log"
        return file.read_text(encoding="utf-8").splitlines() if file.exists() else []


@pytest.fixture
def is_in_store():
    """Whether the site's backups go to a store. Tests for both kinds have it as a parameter."""
    return False


@pytest.fixture
def site(tmp_path, is_in_store):
    # A program that waits for ever would hang the tests for good.
    faulthandler.dump_traceback_later(600, exit=True)
    yield Site(tmp_path, is_in_store)
    faulthandler.cancel_dump_traceback_later()


@pytest.fixture
def hooks(site):
    """Settings with hooks that write down that they run."""
    return {"before": f"echo before >> {site.folder}/log",
            "after": f"echo after $KELM_RESULT $KELM_STATUS >> {site.folder}/log"}


@pytest.fixture
def manager(site, monkeypatch):
    """The stand-in for systemd, with the units in place."""
    units = site.folder / "usr/lib/systemd/system"
    units.mkdir(parents=True)
    for name in ("kelm-backup@.service", "kelm-backup@.timer"):
        (units / name).write_bytes((SOURCES / name).read_bytes())
    monkeypatch.setenv("PATH", site.environment["PATH"])
    folder = site.folder / "etc/systemd/system/kelm-backup@.service.d"
    folder.mkdir(parents=True)
    (folder / "stores.conf").write_text(
        f"[Service]\nEnvironment=KELM_STORES={TEST_STORES}\n"
        f"Environment=KELM_TEST_STORE={site.folder}/store\n", encoding="utf-8")
    return Manager(site.folder)


@pytest.fixture
def small_destination(site):
    """The destination has 4 MiB."""
    command = ["mount", "-t", "tmpfs", "-o", "size=4m", "small", str(site.place)]
    if os.geteuid() != 0 or subprocess.run(command, check=False).returncode != 0:
        pytest.skip("a small file system cannot be mounted here")
    yield site.place
    subprocess.run(["umount", str(site.place)], check=True)


def end_by(process, signal_number=signal.SIGTERM):
    process.send_signal(signal_number)
    return process.wait()
