"""The units, as systemd reads them and as the stand-in for it runs them."""

import os
import re
import shutil
import subprocess

import pytest

from conftest import PROGRAM, SOURCES, load_program

SERVICE = "kelm-backup@web.service"
HAS_SYSTEMD = shutil.which("systemd-analyze")

program = load_program()


def entries(manager, **fields):
    return [entry for entry in manager.journal.entries()
            if all(entry.get(name) == value for name, value in fields.items())]


# ---- What systemd says ---------------------------------------------------------------------------


@pytest.fixture
def units(tmp_path):
    """The units, with a program that can be found."""
    if not HAS_SYSTEMD:
        pytest.skip("systemd-analyze is not installed")
    for name in ("kelm-backup@.service", "kelm-backup@.timer"):
        text = (SOURCES / name).read_text(encoding="utf-8")
        text = re.sub(r"(?<==)(\+?)kelm-backup ", rf"\1{PROGRAM} ", text)
        (tmp_path / name).write_text(text, encoding="utf-8")
    return tmp_path


def analyze(*arguments):
    result = subprocess.run(["systemd-analyze", *arguments], check=False, capture_output=True,
                            text=True, env=dict(os.environ, SYSTEMD_PAGER="", LANG="C.UTF-8"))
    return result.returncode, result.stdout, result.stderr


def add_drop_in(folder, site):
    """Adds what kelm-backup says that the unit has to be told."""
    drop_ins = folder / "kelm-backup@.service.d"
    drop_ins.mkdir(exist_ok=True)
    (drop_ins / "site.conf").write_text(site.call("drop-in").stdout, encoding="utf-8")


@pytest.mark.parametrize("name", ["kelm-backup@.service", "kelm-backup@.timer"])
def test_systemd_finds_nothing_wrong(units, name):
    # What it does not know it names and ignores.
    status, _, errors = analyze("verify", "--man=no", str(units / name))
    assert (status, errors) == (0, "")


@pytest.mark.parametrize("destination", ['/backup of/the "web" 100%', "ceph://writer@disks/web"])
def test_the_drop_in_is_right(units, site, destination):
    site.configure(destination=destination, before="true")
    add_drop_in(units, site)
    status, _, errors = analyze("verify", "--man=no", str(units / "kelm-backup@.service"))
    assert (status, errors) == (0, "")


# In tenths; systemd calls up to 4 OK.
@pytest.mark.parametrize("destination, most", [("/backup", 15), ("ceph://writer@disks/web", 23)])
def test_the_sandbox_is_tight(units, site, destination, most):
    site.configure(destination=destination)
    # What is looked at offline is one file, without its drop-ins; settings add up in it alike.
    unit = units / "kelm-backup@.service"
    unit.write_text(unit.read_text(encoding="utf-8") + site.call("drop-in").stdout,
                    encoding="utf-8")
    status, output, errors = analyze("security", "--offline=true", f"--threshold={most}", str(unit))
    assert status == 0, output + errors


def test_the_timer_is_due_once_a_day(units):
    text = (units / "kelm-backup@.timer").read_text(encoding="utf-8")
    calendar = re.search(r"^OnCalendar=(.*)$", text, re.MULTILINE).group(1)
    status, output, _ = analyze("calendar", "--base-time=2031-01-01 00:00:00 UTC",
                                "--iterations=3", calendar)
    assert status == 0
    assert len(set(re.findall(r"2031-01-0[123]", output))) == 3


# ---- Runs ----------------------------------------------------------------------------------------


@pytest.mark.parametrize("is_in_store", [False, True], ids=["folder", "store"])
def test_a_service_runs_the_steps_and_tells_the_journal(manager, site, hooks):
    site.configure(keep_last=5, check="yes", **hooks)
    add_drop_in(site.folder / "etc/systemd/system", site)
    assert manager.start(SERVICE)
    site.change(4)
    assert manager.start(SERVICE)
    assert site.log() == ["before", "after success 0"] * 2
    full, child = [disk["file"] for disk in site.list()]
    made = entries(manager, MESSAGE_ID=program.MESSAGE_IDS["made"])
    assert [(entry["KELM_DISK"], entry.get("KELM_PARENT")) for entry in made] == \
        [(full, None), (child, full)]
    assert {"KELM_BACKUP": "web", "KELM_COMMAND": "import", "KELM_SOURCE": str(site.source),
            "KELM_READ_BYTES": "2097152", "KELM_STORED_BYTES": "65536",
            "KELM_SKIPPED_BYTES": "2031616", "KELM_EXIT_STATUS": "0", "PRIORITY": "6",
            "SYSLOG_IDENTIFIER": "kelm-backup", "_SYSTEMD_UNIT": SERVICE}.items() \
        <= made[1].items()
    assert float(made[1]["KELM_SECONDS"]) >= 0
    assert len(entries(manager, KELM_COMMAND="check")) == 2
    assert len(entries(manager, KELM_COMMAND="prune")) == 2
    assert not entries(manager, PRIORITY="3")


@pytest.mark.parametrize("is_in_store", [True])
def test_what_a_killed_service_has_begun_in_a_store_is_remembered_on_the_machine(manager, site):
    site.configure()
    add_drop_in(site.folder / "etc/systemd/system", site)
    site.kill_kelm("import", 4)
    assert not manager.start(SERVICE)
    assert not entries(manager, PRIORITY="4")
    assert [disk["state"] for disk in site.list()] == ["damaged"]
    assert len(site.begun()) == 1
    assert sorted(file.name for file in (site.folder / "run").glob("kelm*")) == [
        "kelm", "kelm-backup"]
    assert (site.folder / "run/kelm-backup/web.lock").exists()
    site.mend_kelm()
    assert manager.start(SERVICE)
    assert [disk["state"] for disk in site.list()] == ["complete"]
    assert site.begun() == []


@pytest.mark.parametrize("is_in_store", [True])
def test_a_unit_that_was_not_told_of_a_store_is_pointed_to_its_drop_in(manager, site):
    site.source.unlink()
    assert not manager.start(SERVICE)
    assert any("'kelm-backup drop-in' prints what it has to be told." in entry["MESSAGE"]
               for entry in entries(manager, PRIORITY="4"))


def test_the_status_of_kelm_is_that_of_the_service(manager, site, hooks):
    site.configure(**dict(hooks, before=f"rm {site.source}"))
    assert not manager.start(SERVICE)
    assert manager.status[SERVICE] == 8
    assert site.log() == ["after failure 8"]
    (failed,) = entries(manager, MESSAGE_ID=program.MESSAGE_IDS["failed"])
    assert failed["PRIORITY"] == "3"
    assert failed["KELM_EXIT_STATUS"] == "8"
    assert failed["MESSAGE"] == f"The source does not exist: {site.source}"


def test_an_error_of_kelm_has_its_fields(manager, site):
    site.configure(encrypt="yes", password_file=site.folder / "nothing")
    assert not manager.start(SERVICE)
    (failed,) = entries(manager, MESSAGE_ID=program.MESSAGE_IDS["failed"])
    assert failed["KELM_COMMAND"] == "import"
    assert failed["KELM_EXIT_STATUS"] == str(manager.status[SERVICE])
    assert failed["KELM_ERROR_CODE"] == "WrongPassword"


def test_a_failure_starts_what_is_named_for_it(manager, site):
    folder = site.folder / "etc/systemd/system/kelm-backup@.service.d"
    (folder / "failure.conf").write_text("[Unit]\nOnFailure=tell@%i.service\n", encoding="utf-8")
    (folder.parent / "tell@.service").write_text(
        f"[Service]\nType=oneshot\nExecStart=/bin/sh -c 'echo %i >> {site.folder}/log'\n",
        encoding="utf-8")
    assert manager.start(SERVICE)
    assert site.log() == []
    site.source.unlink()
    assert not manager.start(SERVICE)
    assert site.log() == ["web"]


def test_without_settings_the_service_fails(manager, site):
    folder = site.folder / "etc/kelm/backups"
    (folder / "web.conf").rename(folder / "mail.conf")
    assert not manager.start(SERVICE)
    assert manager.status[SERVICE] == 8
    assert site.files() == []
    assert manager.start("kelm-backup@mail.service")


def test_a_wrong_setting_ends_the_service_before_any_hook(manager, site, hooks):
    site.configure(colour="red", **hooks)
    assert not manager.start(SERVICE)
    assert manager.status[SERVICE] == 2
    assert site.log() == []
    assert any("web.conf:3: there is no setting 'colour'" in entry["MESSAGE"]
               for entry in manager.journal.entries())


def test_the_password_is_a_credential(manager, site):
    site.configure(encrypt="yes")
    assert not manager.start(SERVICE)
    assert manager.status[SERVICE] == 4
    password = site.folder / "password"
    password.write_text("correct horse\n", encoding="utf-8")
    store = site.folder / "etc/credstore.encrypted"
    store.mkdir()
    subprocess.run(
        ["python3", os.path.join(os.path.dirname(__file__), "manager.py"), site.folder,
         "systemd-creds", "encrypt", "--name=password", password, store / "kelm-backup.web"],
        check=True)
    assert manager.start(SERVICE)
    assert [disk["encrypted"] for disk in site.list()] == [True]
    site.expect_newest_is_source("--password-file", str(password))


@pytest.mark.parametrize("is_in_store", [False, True], ids=["folder", "store"])
@pytest.mark.parametrize("killed", ["before", "import", "after", "tend"])
def test_the_hook_after_runs_whichever_step_is_killed(manager, site, hooks, killed):
    site.configure()
    add_drop_in(site.folder / "etc/systemd/system", site)
    kill = "[ -e {0}/killed ] || {{ touch {0}/killed; kill -KILL $PPID; }}".format(site.folder)
    if killed in hooks:
        site.configure(**dict(hooks, **{killed: f"{hooks[killed]}; {kill}"}))
    else:
        site.configure(**hooks, **({"check": "yes"} if killed == "tend" else {}))
        command = "check" if killed == "tend" else "import"
        site.use_kelm(f'[ "$1" != {command} ] || {{ {kill}; exit 0; }}\n'
                      f'exec "{os.environ["KELM_TOOL"]}" "$@"')
    assert not manager.start(SERVICE)
    assert manager.status[SERVICE] == -9
    assert site.log() == {
        "before": ["before", "after failure 3"],
        "import": ["before", "after failure 3"],
        "after": ["before", "after success 0", "after failure 3"],
        "tend": ["before", "after success 0"],
    }[killed]
    site.mend_kelm()
    site.configure(**hooks)
    assert manager.start(SERVICE)
    assert site.log()[-2:] == ["before", "after success 0"]
    assert {disk["state"] for disk in site.list()} == {"complete"}
    site.expect_newest_is_source()


def test_a_run_by_hand_does_not_come_between_the_steps(manager, site, hooks):
    site.configure(**hooks)
    site.run("before", INVOCATION_ID="1234")
    assert "is between two of its steps" in site.run(status=6)
    assert site.log() == ["before"]
    # The service that has begun goes on, and another one's end is not its end.
    site.run("after", INVOCATION_ID="5678")
    assert site.log() == ["before"]
    site.run("import", INVOCATION_ID="1234")
    site.run("after", INVOCATION_ID="1234")
    assert site.log() == ["before", "after success 0"]
    site.run()


def test_what_a_killed_service_has_left_can_be_ended_by_hand(manager, site, hooks):
    site.configure(**hooks)
    site.run("before", INVOCATION_ID="1234")
    site.run("after")
    assert site.log() == ["before", "after success 0"]
    site.run("after")
    assert site.log() == ["before", "after success 0"]


def test_the_timer_is_enabled_by_its_name(manager, site):
    manager.enable("kelm-backup@web.timer")
    assert list(manager.timers()) == ["kelm-backup@web.timer"]


def test_a_long_message_reaches_the_journal_in_its_lines(manager, site):
    site.configure(before="exit 1 # " + "x" * 20000 + "\nafter = true")
    assert not manager.start(SERVICE)
    failed = entries(manager, MESSAGE_ID=program.MESSAGE_IDS["failed"])[0]
    assert len(failed["MESSAGE"]) == 16384
    site.configure(colour="red", taste="sweet")
    assert not manager.start(SERVICE)
    failed = [entry["MESSAGE"] for entry in entries(manager, KELM_EXIT_STATUS="2")]
    assert any(text.count("\n") == 1 for text in failed)
