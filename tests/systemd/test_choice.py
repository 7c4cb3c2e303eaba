"""Whether the next disk is a full one, and of which disk it is a child otherwise."""

import datetime

import pytest

from conftest import load_program

program = load_program()

NOW = datetime.datetime(2031, 3, 1, 2, 30)


def backup(**settings):
    """A backup without a file of settings."""
    result = program.Backup.__new__(program.Backup)
    result.name = "web"
    result.host = "here"
    result.settings = program.parse_settings("source = /dev/sda\ndestination = /backup\n", "")
    result.settings.update({name.replace("_", "-"): value for name, value in settings.items()})
    return result


def disk(stamp, parent=None, **members):
    time = datetime.datetime.strptime(stamp[:16], "%Y%m%dT%H%M%SZ")
    return {"file": f"/backup/web-{stamp}.vmdk", "state": "complete", "host": "here",
            "time": f"{time:%Y-%m-%dT%H:%M:%SZ}", "source": "/dev/sda", "encrypted": False,
            "parents": 0, **({"parent": f"/backup/web-{parent}.vmdk"} if parent else {}), **members}


FULL = disk("20310201T023000Z")
CHILD = disk("20310228T023000Z", parent="20310201T023000Z", parents=1)
NEWER = "20310228T030000Z"


def choose(entries, **settings):
    chosen = backup(**settings)
    found = program.entries_in_folder({"folders": ["/backup"], "disks": entries})
    parent, reason = program.choose_parent(chosen, program.disks_of(chosen, found), NOW)
    return parent.file if parent else None, reason


@pytest.mark.parametrize("entries", [[FULL, CHILD], [CHILD, FULL]])
def test_the_newest_complete_disk_is_the_parent(entries):
    assert choose(entries)[0] == CHILD["file"]


def test_an_unfinished_disk_is_no_parent():
    assert choose([FULL, CHILD, disk(NEWER, state="unfinished")])[0] == CHILD["file"]


def test_of_two_disks_of_one_second_the_later_is_the_parent():
    entries = [disk("20310228T023000Z-10"), disk("20310228T023000Z-2"), disk("20310228T023000Z")]
    assert choose(entries)[0] == "/backup/web-20310228T023000Z-10.vmdk"


@pytest.mark.parametrize("entries, reason", [
    ([], "there is no complete disk"),
    ([disk(NEWER, state="unfinished")], "there is no complete disk"),
    ([FULL, disk(NEWER, state="parent changed")],
     f"a newer disk than the newest complete one is parent changed: /backup/web-{NEWER}.vmdk"),
    ([FULL, {"file": f"/backup/web-{NEWER}.vmdk", "state": "damaged"}],
     f"a newer disk than the newest complete one is damaged: /backup/web-{NEWER}.vmdk"),
    ([FULL, disk(NEWER, source="/dev/sdb")], "the newest disk is one of /dev/sdb"),
    ([FULL, disk(NEWER, source=None)], "the newest disk is one of an unknown source"),
    ([FULL, disk(NEWER, encrypted=True)], "the newest disk is encrypted"),
])
def test_what_makes_a_full_disk(entries, reason):
    assert choose(entries) == (None, reason)


def test_a_plain_disk_is_no_parent_of_an_encrypted_one():
    assert choose([FULL], encrypt=True) == (None, "the newest disk is not encrypted")


@pytest.mark.parametrize("limit, is_full", [(1, True), (2, True), (3, False)])
def test_a_chain_has_no_more_disks_than_its_limit(limit, is_full):
    parent, reason = choose([FULL, CHILD], chain_limit=limit)
    assert (parent is None) == is_full
    assert not is_full or reason == "the chain has 2 disks"


@pytest.mark.parametrize("full, first, is_full", [
    ("weekly", "20310224T023000Z", False),  # Monday of the same week
    ("weekly", "20310223T235959Z", True),
    ("monthly", "20310301T000000Z", False),
    ("monthly", "20310228T235959Z", True),
    ("monthly", "20300301T023000Z", True),
    ("yearly", "20310101T000000Z", False),
    ("yearly", "20301231T235959Z", True),
    ("never", "20200101T000000Z", False),
])
def test_a_new_period_begins_with_a_full_disk(full, first, is_full):
    entries = [disk(first), disk("20310301T010000Z", parent=first, parents=1)]
    parent, reason = choose(entries, full=full)
    assert (parent is None) == is_full
    assert not is_full or reason == "the chain is of another " + full[:-2]


@pytest.mark.parametrize("other", [
    dict(FULL, host="elsewhere"),
    dict(FULL, file="/backup/below/web-20310201T023000Z.vmdk"),
    dict(FULL, file="/backup/web2-20310201T023000Z.vmdk"),
    dict(FULL, file="/backup/old-web-20310201T023000Z.vmdk"),
    dict(FULL, file="/backup/web-full.vmdk"),
    dict(FULL, file="/backup/web-20310201T023000Z-2-merged.vmdk"),
])
def test_disks_of_others_do_not_count(other):
    assert choose([other]) == (None, "there is no complete disk")


def test_a_disk_of_the_past_is_found_though_the_clock_was_wrong():
    future = disk("20350101T000000Z")
    assert choose([FULL, future])[0] == future["file"]


@pytest.mark.parametrize("folder", ["test:/", "test:/a%20b", "ceph://writer@disks/backup", "/",
                                    "/backup"])
def test_disks_are_found_in_any_kind_of_folder(folder):
    root = folder.rstrip("/")
    name = "web-20310201T023000Z.vmdk"
    entries = [dict(FULL, file=f"{root}/{name}"), dict(CHILD, file=f"{root}/below/{name}"),
               dict(CHILD, file=f"{root}s/{name}")]
    found = program.entries_in_folder({"folders": [folder], "disks": entries})
    assert found == {name: entries[0]}


@pytest.mark.parametrize("there, names", [
    ([], ["", "-2"]),
    (["web-20310301T022959Z.vmdk", "mail-20310301T023000Z.vmdk"], ["", "-2"]),
    (["web-20310301T023000Z.vmdk"], ["-2", "-3"]),
    (["web-20310301T023000Z-s00001.vmdk"], ["-2", "-3"]),
    # The order of the names is that of the disks, so no gap is filled.
    (["web-20310301T023000Z.vmdk", "web-20310301T023000Z-12-s00001.vmdk"], ["-13", "-14"]),
])
def test_a_name_stands_behind_all_of_its_second(there, names):
    found = program.new_disk_names(backup(), NOW, dict.fromkeys(there, {}))
    assert [next(found), next(found)] == [f"web-20310301T023000Z{name}.vmdk" for name in names]
