"""The manual pages tell all that there is."""

import re
import shutil
import subprocess

import pytest

from conftest import PROGRAM, SOURCES, load_program

program = load_program()


def page(name):
    return (SOURCES / name).read_text(encoding="utf-8").replace("\\-", "-")


def test_every_command_is_in_the_manual_and_in_the_help():
    help_text = subprocess.run([PROGRAM, "--help"], check=True, capture_output=True,
                               text=True).stdout
    for command in ("run", "before", "import", "after", "tend", "plan", "newest", "drop-in"):
        assert re.search(rf"^  {command} ", help_text, re.MULTILINE), command
        assert re.search(rf'^\.BI? "?{command} ', page("kelm-backup.8"), re.MULTILINE), command


def test_every_setting_is_in_the_manual():
    text = page("kelm-backup.conf.5")
    for name in program.SETTINGS:
        assert re.search(rf'^\.BR? "?{name}\b', text, re.MULTILINE), name


def test_the_fields_of_the_journal_are_in_the_manual():
    code = PROGRAM.read_text(encoding="utf-8")
    fields = set(re.findall(r"\bKELM_[A-Z_]+(?=\"?[:=] ?)", code)) - {"KELM_BACKUP_JOURNAL"}
    assert len(fields) > 10
    for field in fields:
        assert field in page("kelm-backup.8"), field
    for identifier in program.MESSAGE_IDS.values():
        assert identifier in page("kelm-backup.8")


@pytest.mark.parametrize("name", ["kelm-backup.8", "kelm-backup.conf.5"])
def test_the_pages_are_right(name):
    if not shutil.which("groff"):
        pytest.skip("groff is not installed")
    result = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z", str(SOURCES / name)],
                            check=False, capture_output=True, text=True)
    assert (result.returncode, result.stderr) == (0, "")
