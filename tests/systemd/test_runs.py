"""Whole runs of kelm-backup: what is there afterwards, and what trouble leads to.

All of it holds for backups into a folder and into a store.
"""

import fcntl
import os
import pathlib
import signal
import subprocess

import pytest

from conftest import GRAIN_BYTES, PROGRAM, SOURCE_BYTES, TOOL, end_by


@pytest.fixture(params=[False, True], ids=["folder", "store"])
def is_in_store(request):
    return request.param


def parents(site):
    """For each disk, the oldest first, which of them is its parent."""
    disks = site.list()
    names = [disk["file"] for disk in disks]
    return [names.index(disk["parent"]) if "parent" in disk else None for disk in disks]


# ---- What a run makes ----------------------------------------------------------------------------


def test_first_a_full_disk_then_children(site):
    assert "a full disk: 2.0 MiB read, 2.0 MiB stored" in site.run()
    site.change(3)
    assert "2.0 MiB read, 64.0 KiB stored" in site.run()
    site.change(9)
    site.run()
    assert parents(site) == [None, 0, 1]
    assert [disk["label"] for disk in site.list()] == ["web"] * 3
    assert [disk["source"] for disk in site.list()] == [str(site.source)] * 3
    site.expect_newest_is_source()
    assert len(site.files()) == 6  # each with its digests, and nothing else


@pytest.mark.parametrize("settings, facts", [
    ({"compress": "no"}, {"compressed": False, "encrypted": False, "files": 1}),
    ({"level": 6}, {"compressed": True, "encrypted": False, "files": 1}),
    ({"compress": "no", "split": "1M"}, {"compressed": False, "encrypted": False, "files": 11}),
    ({"split": "20M", "encrypt": "yes"}, {"compressed": True, "encrypted": True}),
])
def test_kinds_of_disks(site, settings, facts):
    password = site.folder / "password"
    password.write_text("correct horse\n", encoding="utf-8")
    if "encrypt" in settings:
        settings = dict(settings, password_file=password)
    site.configure(**settings)
    for _ in range(2):
        site.run()
        for name, value in facts.items():
            assert site.list()[-1][name] == value
        site.change(5)
    assert parents(site) == [None, 0]
    site.kelm("check", site.newest(), "--password-file", str(password))


def test_digests_as_they_are_wanted(site):
    site.configure(digests="no")
    site.run()
    assert not any(name.endswith(".digests") for name in site.files())
    site.configure(digests="image")
    site.run()
    digest = subprocess.run(["sha256sum", str(site.source)], check=True, capture_output=True,
                            text=True).stdout[:64]
    assert site.kelm("digest", "--print", site.newest())["imageDigest"] == digest


def test_checks_as_wanted(site):
    site.configure(check="yes")
    assert "grains read, nothing is wrong" in site.run()
    site.configure(check="50%")
    assert "nothing is wrong" in site.run()
    site.configure()
    assert "checked" not in site.run()


def test_the_policy_thins_out(site):
    site.configure(keep_last=2)
    site.run()
    assert "thinned out: nothing has to go" in site.run()
    oldest = site.list()[0]["file"]
    site.change(1)
    assert f"thinned out: gone are {oldest}\n" in site.run()
    assert parents(site) == [None, 0]
    site.expect_newest_is_source()


def test_the_policy_is_for_the_disks_of_the_backup_alone(site):
    for _ in range(3):
        site.run()
    site.configure("mail", keep_last=1)
    site.run(name="mail")
    site.run(name="mail")
    assert sorted(disk["label"] for disk in site.list()) == ["mail", "web", "web", "web"]


def test_a_chain_ends_at_its_limit(site):
    site.configure(chain_limit=2)
    outputs = []
    for grain in range(5):
        site.change(grain)
        outputs.append(site.run())
    assert parents(site) == [None, 0, None, 2, None]
    assert "This will be a full disk: the chain has 2 disks." in outputs[2]
    site.expect_newest_is_source()


def test_another_source_begins_anew(site):
    site.run()
    other = site.folder / "other"
    other.write_bytes(bytes(SOURCE_BYTES))
    site.configure(source=other)
    assert f"full disk: the newest disk is one of {site.source}" in site.run()
    assert parents(site) == [None, None]


def test_a_source_that_grew_goes_on(site):
    site.run()
    with open(site.source, "ab") as file:
        file.write(b"more" * GRAIN_BYTES)
    site.run()
    assert parents(site) == [None, 0]
    site.expect_newest_is_source()


def test_plan_says_what_comes_and_changes_nothing(site):
    assert "The next disk will be a full one: there is no complete disk." in \
        site.call("plan").stdout
    assert site.files() == []
    site.run()
    plan = site.call("plan").stdout
    assert f"source = {site.source}\n" in plan
    assert f"The next disk will be a child of {site.newest()}: it is the newest" in plan
    assert len(site.files()) == 2


def test_newest_is_found_or_not(site):
    site.run("newest", status=8)
    site.run()
    assert site.call("newest").stdout.strip() == site.list()[-1]["file"]


def test_a_link_to_the_destination_is_as_good(site):
    (site.place.parent / "link").symlink_to("backup")
    site.run()
    destination = "test:/link/" if site.is_in_store else site.folder / "link"
    site.configure(destination=destination)
    site.change(1)
    assert f"a child of {site.disk('web-')}" in site.run()
    site.kill_kelm("import", 4)
    site.run(status=3)
    site.mend_kelm()
    site.configure(destination=str(destination).rstrip("/"), keep_last=2)
    site.run()
    assert parents(site) == [None, 0]
    assert site.begun() == []
    site.expect_newest_is_source()


def test_what_waits_for_a_store_is_given_up_as_the_settings_say(site):
    site.configure(store_timeout=30, check="yes", keep_last=1)
    site.use_kelm(f'echo "$@" >> {site.folder}/log\nexec "{TOOL}" "$@"')
    for _ in range(3):
        site.run()
    assert {line.split()[0] for line in site.log()} == {"list", "import", "check", "prune"}
    assert all(" --store-timeout 30 " in line for line in site.log())


# ---- Hooks ---------------------------------------------------------------------------------------


def test_hooks_run_around_the_import(site, hooks):
    site.configure(**hooks)
    site.run()
    assert site.log() == ["before", "after success 0"]


def test_hooks_know_the_backup(site):
    site.configure(before=f'echo "$KELM_BACKUP $KELM_SOURCE $KELM_DESTINATION" > {site.folder}/log')
    site.run()
    assert site.log() == [f"web {site.source} {site.destination}"]


def test_a_failed_hook_before_ends_the_run(site, hooks):
    site.configure(**dict(hooks, before="exit 7"))
    assert "The hook 'before' ended with 7: exit 7" in site.run(status=3)
    assert site.log() == ["after failure 3"]
    assert site.list() == []


def test_a_failed_hook_after_fails_the_run_and_the_disk_stays(site, hooks):
    site.configure(**dict(hooks, after="exit 7"))
    assert "The hook 'after' ended with 7: exit 7" in site.run(status=3)
    assert [disk["state"] for disk in site.list()] == ["complete"]
    # What it was to take away is still there, so the next run begins with it.
    site.configure(**hooks)
    assert "An earlier run has not come to its hook 'after'" in site.run()
    assert site.log() == ["before", "after failure 3", "before", "after success 0"]


def test_a_hook_after_that_always_fails_does_not_keep_the_next_run_from_its_import(site, hooks):
    # As one that removes a snapshot fails where none was made.
    snapshot = site.folder / "snapshot"
    site.configure(before=f"[ -e {site.source} ] && mkdir {snapshot}", after=f"rmdir {snapshot}")
    moved = site.folder / "moved"
    site.source.rename(moved)
    site.run(status=3)
    assert "The hook 'before' ended with 1" in site.run(status=3)
    moved.rename(site.source)
    assert "The hook 'after' ended with 1" in site.run()
    site.expect_newest_is_source()
    assert not snapshot.exists()


def test_the_hook_after_runs_though_the_import_failed(site, hooks):
    site.configure(**dict(hooks, before=f"rm {site.source}"))
    assert f"The source does not exist: {site.source}" in site.run(status=8)
    assert site.log() == ["after failure 8"]


def test_a_hook_that_is_killed_is_told(site, hooks):
    site.configure(**dict(hooks, before="kill -KILL $$"))
    assert "The hook 'before' was killed: Killed" in site.run(status=3)
    assert site.log() == ["after failure 3"]


# ---- Kills and interruptions ---------------------------------------------------------------------


def operations_of_import(site):
    """How many operations on files an import takes."""
    environment = dict(site.environment, KELM_FILE_LOG_NO_SYNC="1",
                       LD_PRELOAD=os.environ["KELM_FILE_LOG_LIBRARY"])
    low, high = 1, 4096
    # The first number of operations behind which nothing is left to be killed.
    while low < high:
        middle = (low + high) // 2
        environment["KELM_FILE_LOG_KILL_AFTER"] = str(middle)
        target = site.disk("operations.vmdk")
        status = subprocess.run([TOOL, "import", str(site.source), target], check=False,
                                env=environment).returncode
        for file in site.place.glob("operations.vmdk*"):
            file.unlink()
        if status == -signal.SIGKILL:
            low = middle + 1
        else:
            high = middle
    return low - 1


@pytest.mark.parametrize("settings", [{}, {"compress": "no", "split": "1M"}, {"resume": "yes"}],
                         ids=["one-file", "split", "resumed"])
def test_the_run_after_a_kill_goes_right_wherever_it_was(site, settings):
    site.configure(**settings)
    count = operations_of_import(site)
    assert count > 10
    for after in sorted({1, 2, 4, 6, count // 2, count - 1, count}):
        before = len(site.list())
        site.kill_kelm("import", after)
        status = site.call("run").returncode
        assert status in (0, 3), after
        site.mend_kelm()
        site.change(after % 32)
        site.run()
        assert {disk["state"] for disk in site.list()} == {"complete"}, after
        # The killed one may have come to its end.
        assert len(site.list()) - before in (1, 2), after
        site.expect_newest_is_source()
        stems = [pathlib.Path(disk["file"]).stem for disk in site.list()]
        assert all(any(name.startswith(stem) for stem in stems) for name in site.files()), after
        assert site.begun() == [], after
    assert parents(site)[0] is None and None not in parents(site)[1:]


def leave_unfinished(site, name="web"):
    """Kills imports later and later, until a disk is left unfinished; what that run has said."""
    for after in range(12, 400, 4):
        site.kill_kelm("import", after)
        output = site.run(status=3, name=name)
        if site.list()[-1]["state"] == "unfinished":
            return output
    raise AssertionError("no import was left unfinished")


def test_an_unfinished_disk_is_gone_on_with(site):
    site.configure(resume="yes", compress="no")
    site.run()
    site.change(7)
    assert "kelm import was killed: Killed" in leave_unfinished(site)
    assert [disk["state"] for disk in site.list()] == ["complete", "unfinished"]
    unfinished = site.list()[-1]["file"]
    site.mend_kelm()
    assert f"{unfinished} was left unfinished; it goes on." in site.run()
    assert site.list()[-1]["file"] == unfinished
    site.expect_newest_is_source()


def test_an_unfinished_disk_of_another_size_is_not_gone_on_with(site):
    site.configure(resume="yes", compress="no")
    leave_unfinished(site)
    assert [disk["state"] for disk in site.list()] == ["unfinished"]
    site.mend_kelm()
    with open(site.source, "ab") as file:
        file.write(b"more" * GRAIN_BYTES)
    assert "it is deleted" in site.run()
    assert parents(site) == [None]
    site.expect_newest_is_source()


def test_an_unfinished_disk_of_another_backup_stays(site):
    site.configure("mail", compress="no")
    leave_unfinished(site, "mail")
    site.mend_kelm()
    site.run()
    assert sorted(disk["state"] for disk in site.list()) == ["complete", "unfinished"]


@pytest.mark.parametrize("signal_number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_a_signal_ends_the_import_and_leaves_nothing(site, hooks, signal_number):
    # Slow enough to be there still, whenever the signal comes.
    site.configure(limit_rate="1K", **hooks)
    started = site.folder / "started"
    os.mkfifo(started)
    site.use_kelm(f'[ "$1" != import ] || echo > {started}\nexec "{TOOL}" "$@"')
    with subprocess.Popen([PROGRAM, "run", "web"], env=site.environment,
                          stderr=subprocess.DEVNULL) as run:
        started.read_bytes()
        assert end_by(run, signal_number) == 10
    assert site.log() == ["before", "after failure 10"]
    site.mend_kelm()
    site.configure()
    site.run()
    assert parents(site) == [None]


def test_a_signal_in_a_hook_ends_the_run(site, hooks):
    started = site.folder / "started"
    os.mkfifo(started)
    site.configure(**dict(hooks, before=f"echo > {started}; exec sleep 1000"))
    with subprocess.Popen([PROGRAM, "run", "web"], env=site.environment,
                          stderr=subprocess.DEVNULL) as run:
        started.read_bytes()
        assert end_by(run) == 10
    assert site.log() == ["after failure 10"]
    assert site.list() == []


def test_a_signal_does_not_end_the_hook_after(site, hooks):
    started = site.folder / "started"
    os.mkfifo(started)
    goes_on = site.folder / "goes-on"
    os.mkfifo(goes_on)
    site.configure(**dict(hooks, after=f"echo > {started}; read line < {goes_on}; "
                                       f"{hooks['after']}"))
    with subprocess.Popen([PROGRAM, "run", "web"], env=site.environment,
                          stderr=subprocess.DEVNULL) as run:
        started.read_bytes()
        run.send_signal(signal.SIGTERM)
        goes_on.write_text("\n", encoding="utf-8")
        assert run.wait() == 10
    assert site.log() == ["before", "after success 0"]
    site.expect_newest_is_source()


def test_a_run_after_a_kill_of_the_program_itself(site, hooks):
    site.configure(**hooks)
    started = site.folder / "started"
    os.mkfifo(started)
    goes_on = site.folder / "goes-on"
    os.mkfifo(goes_on)
    site.use_kelm(f'[ "$1" != import ] || {{ echo > {started}; read line < {goes_on}; }}\n'
                  f'exec "{TOOL}" "$@"')
    with subprocess.Popen([PROGRAM, "run", "web"], env=site.environment,
                          stderr=subprocess.DEVNULL) as run:
        started.read_bytes()
        assert end_by(run, signal.SIGKILL) == -signal.SIGKILL
    # kelm itself goes on, so the backup is still running.
    assert "The backup 'web' is running already." in site.run(status=6)
    goes_on.write_text("\n", encoding="utf-8")
    with open(site.folder / "run/kelm-backup/web.lock", "rb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
    site.mend_kelm()
    assert "An earlier run has not come to its hook 'after'" in site.run()
    assert site.log() == ["before", "after failure 3", "before", "after success 0"]
    assert parents(site) == [None, 0]
    site.expect_newest_is_source()


def test_two_runs_at_once_are_one(site):
    with open(site.folder / "run/kelm-backup/web.lock", "wb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        for command in ("run", "before", "import", "after", "tend"):
            assert "The backup 'web' is running already." in site.run(command, status=6)
    assert site.files() == []
    site.run()


# ---- Other machines ------------------------------------------------------------------------------


@pytest.mark.parametrize("resume", ["no", "yes"])
def test_a_run_of_another_machine_of_the_same_name_is_left_alone(site, resume):
    site.configure(resume=resume, compress="no")
    site.run()
    # No lock of this machine is in its way. Its image comes slowly.
    unfinished = site.disk("web-20990101T000000Z.vmdk")
    with subprocess.Popen([TOOL, "import", "-", unfinished, "--size", "2M", "--parent",
                           site.newest()], env=site.environment, stdin=subprocess.PIPE,
                          stderr=subprocess.DEVNULL) as other:
        other.stdin.write(site.source.read_bytes()[:SOURCE_BYTES // 2])
        other.stdin.flush()
        # More than a pipe holds: once it is taken, the disk is there.
        assert "in use" in site.run(status=6)
        assert [disk["state"] for disk in site.list()] == ["complete", "unfinished"]
        other.stdin.write(site.source.read_bytes()[SOURCE_BYTES // 2:])
        other.stdin.close()
        assert other.wait() == 0
    assert [disk["state"] for disk in site.list()] == ["complete", "complete"]
    site.kelm("compare", unfinished, str(site.source))


def test_another_machine_may_have_been_quicker_to_take_the_name(site):
    site.use_kelm(f'[ "$1" != import ] || [ -e {site.folder}/taken ] || '
                  f'{{ touch {site.folder}/taken; "{TOOL}" import "$2" "$3" --quiet; }}\n'
                  f'exec "{TOOL}" "$@"')
    site.run()
    site.expect_newest_is_source()
    first, second = [disk["file"] for disk in site.list()]
    assert second == first.replace("Z.vmdk", "Z-2.vmdk")
    assert [disk["state"] for disk in site.list()] == ["complete", "complete"]
    assert site.begun() == []


def test_what_the_other_machine_makes_under_the_name_stays(site):
    # The run is killed when it has met it, so the name is still written down as its own.
    site.use_kelm(f'[ "$1" != import ] || {{ "{TOOL}" import "$2" "$3" --quiet; kill -KILL $$; }}\n'
                  f'exec "{TOOL}" "$@"')
    site.run(status=3)
    assert len(site.begun()) == 1
    site.mend_kelm()
    site.run()
    assert [disk["state"] for disk in site.list()] == ["complete", "complete"]
    assert site.begun() == []


def test_what_is_left_in_one_destination_waits_until_it_is_one_again(site):
    other = site.place.parent / "other"
    other.mkdir()
    site.kill_kelm("import", 4)
    site.run(status=3)
    assert [disk["state"] for disk in site.list()] == ["damaged"]
    site.mend_kelm()
    site.configure(destination="test:/other" if site.is_in_store else other)
    site.run()
    assert len(os.listdir(other)) == 2
    assert [disk["state"] for disk in site.list()] == ["damaged"]
    site.configure()
    assert "was left unfinished; it is deleted." in site.run()
    assert [disk["state"] for disk in site.list()] == ["complete"]
    assert site.begun() == []
    assert len(site.files()) == 2


def test_a_disk_that_was_damaged_since_is_not_taken_for_what_a_kill_has_left(site):
    site.kill_kelm("import", 30)
    site.run(status=3)
    assert [disk["state"] for disk in site.list()] == ["unfinished"]
    site.mend_kelm()
    broken = site.list()[0]["file"]
    with open(site.local(broken), "r+b") as file:
        file.write(b"oops" * 128)
    assert f"{broken} (damaged)" in site.run(status=7)
    assert sorted(disk["state"] for disk in site.list()) == ["complete", "damaged"]
    assert site.begun() == []


# ---- Other trouble -------------------------------------------------------------------------------


def test_without_the_destination_there_is_no_backup(site):
    site.configure(destination=site.folder / "unmounted")
    assert f"There is no folder {site.folder}/unmounted. It is not made here. It may be that its " \
           "file system is not mounted." in site.run(status=8)
    assert not (site.folder / "unmounted").exists()
    (site.folder / "store").mkdir(exist_ok=True)
    site.configure(destination="test:/unknown")
    assert "There is no folder test:/unknown. It is not made here. Cannot list the folder: " \
        "No such file or directory" in site.run(status=8)
    assert not (site.folder / "store/unknown").exists()
    site.configure(destination="other:/backup")
    assert "There is no store for 'other:' here" in site.run(status=8)


def test_a_source_that_is_none_is_refused(site):
    site.configure(source="/dev/null")
    assert "neither a file nor a block device: /dev/null" in site.run(status=3)


def test_without_kelm_there_is_no_backup(site):
    (site.programs / "kelm").unlink()
    assert "There is no program 'kelm'" in site.run(status=8, PATH="/usr/bin:/bin")


def test_what_kelm_says_wrongly_is_no_success(site):
    site.use_kelm("echo oops >&2; exit 0")
    assert "kelm list ended with 0 without a result: oops" in site.run(status=3)


def test_an_encrypted_backup_needs_its_password(site):
    site.configure(encrypt="yes")
    assert "there is no password: neither a credential kelm-backup.web nor" in site.run(status=4)
    assert site.list() == []


def test_a_wrong_password_makes_no_disk(site):
    password = site.folder / "password"
    site.configure(encrypt="yes", password_file=password)
    password.write_text("correct horse\n", encoding="utf-8")
    site.run()
    files = site.files()
    password.write_text("wrong horse\n", encoding="utf-8")
    assert "kelm import: " in site.run(status=4)
    assert set(site.files()) - set(files) == ({*site.begun()} if not site.is_in_store else set())
    assert len(site.begun()) == 1 and site.begun()[0].strip(".").startswith("web@")
    password.write_text("correct horse\n", encoding="utf-8")
    site.run()
    assert site.begun() == []
    assert parents(site) == [None, 0]
    site.expect_newest_is_source("--password-file", str(password))


def test_a_damaged_disk_gets_no_child_and_is_told_of(site, hooks):
    site.run()
    site.change(1)
    site.run()
    broken = site.newest()
    with open(site.local(broken), "r+b") as file:
        file.truncate(1000)
    site.configure(keep_last=1, **hooks)
    site.change(2)
    output = site.run(status=7)
    assert f"full disk: a newer disk than the newest complete one is damaged: {broken}" in output
    assert "Nothing is thinned out before somebody has looked at these: " \
           f"{broken} (damaged)" in output
    assert site.log() == ["before", "after success 0"]
    site.expect_newest_is_source()
    # The next one is a child of the new disk, and the trouble is still told.
    site.change(3)
    assert f"{broken} (damaged)" in site.run(status=7)
    assert [disk["parents"] for disk in site.list() if disk["state"] == "complete"] == [0, 0, 1]
    # Until somebody has looked.
    site.local(broken).unlink()
    site.run()
    assert len(site.list()) == 1
    site.expect_newest_is_source()


def test_a_changed_parent_gets_no_grandchild(site):
    site.run()
    site.change(1)
    site.run()
    full = site.list()[0]["file"]
    site.kelm("import", str(site.source), full, "--force")
    assert "parent changed" in site.run(status=7)
    site.expect_newest_is_source()
    assert site.list()[-1]["parents"] == 0


def test_damage_in_the_data_ends_the_run_before_anything_goes(site):
    site.configure(check="yes", keep_last=1, compress="no")
    site.run()
    with open(site.local(site.newest()), "r+b") as file:
        file.seek(-1000, os.SEEK_END)
        file.write(b"oops")
    site.change(1)
    assert "kelm check: 1 findings, the first: " in site.run(status=1)
    assert len(site.list()) == 2


def test_a_clock_that_was_wrong_is_told_of(site):
    site.run()
    future = site.disk("web-20990101T000000Z.vmdk")
    site.kelm("rename", site.newest(), future)
    assert f"{future} is of the future" in site.run()
    assert site.kelm("list", str(site.destination))["disks"][1]["parent"] == future


# ---- A full destination --------------------------------------------------------------------------


def test_a_full_destination_fails_and_leaves_what_was_there(site, small_destination, hooks):
    site.configure(compress="no", **hooks)
    site.run()
    site.source.write_bytes(os.urandom(SOURCE_BYTES))
    files = site.files()
    site.run(status=9)
    assert set(files) <= set(site.files())
    assert site.log() == ["before", "after success 0", "before", "after failure 9"]
    assert [disk["state"] for disk in site.list()] == ["complete"]
    # The next run finds the destination as it was.
    site.configure()
    site.source.write_bytes(bytes(SOURCE_BYTES))
    site.run()
    site.expect_newest_is_source()


def test_a_full_destination_is_thinned_out_and_tried_again(site, small_destination):
    # Three of such full disks have room.
    site.source.write_bytes(site.source.read_bytes()[:SOURCE_BYTES // 2])
    site.configure(compress="no", chain_limit=1, keep_last=10)
    for _ in range(3):
        site.run()
    site.run(status=9)
    site.configure(compress="no", chain_limit=1, keep_last=2)
    assert "Old disks are thinned out first." in site.run()
    assert [disk["state"] for disk in site.list()] == ["complete"] * 2
    site.expect_newest_is_source()
