"""Chains of disks: listing, thinning, joining and renaming them."""

import os
import pathlib

import pytest

import kelm
from conftest import DISK_BYTES, GRAIN_BYTES, content, files


def make_days(count):
    """day1.vmdk and its descendants, each with another byte in its own grain. Returns contents."""
    contents = []
    data = bytearray(DISK_BYTES)
    for day in range(1, count + 1):
        data[day * GRAIN_BYTES:(day + 1) * GRAIN_BYTES] = bytes([day]) * GRAIN_BYTES
        pathlib.Path("image").write_bytes(data)
        kelm.import_image("image", f"day{day}.vmdk", compressed=True,
                          parent=f"day{day - 1}.vmdk" if day > 1 else None)
        contents.append(bytes(data))
    os.remove("image")
    return contents


def names(paths):
    return [os.path.basename(path) for path in paths]


def test_a_list_has_each_child_behind_its_parent():
    make_days(3)
    backups = kelm.list_backups(".")
    assert names(backup.path for backup in backups) == ["day1.vmdk", "day2.vmdk", "day3.vmdk"]
    assert [backup.state for backup in backups] == ["complete"] * 3
    assert [backup.problem for backup in backups] == [None] * 3
    assert [backup.parent_count for backup in backups] == [0, 1, 2]
    assert [backup.dependent_count for backup in backups] == [2, 1, 0]
    assert [backup.parent for backup in backups] == [None, backups[0].path, backups[1].path]
    assert backups[0].image_size == backups[0].size == DISK_BYTES
    assert backups[0].compressed and not backups[0].encrypted and not backups[0].on_demand


def test_a_list_says_what_is_wrong():
    make_days(2)
    os.remove("day1.vmdk")
    pathlib.Path("junk.vmdk").write_bytes(b"no disk")
    states = {os.path.basename(backup.path): backup for backup in kelm.list_backups(".")}
    assert states["day2.vmdk"].state == "parent missing"
    assert states["day2.vmdk"].problem is not None
    assert states["junk.vmdk"].state == "damaged"
    assert kelm.list_backups() == ()
    with pytest.raises(kelm.NotFound):
        kelm.list_backups("missing")


def test_a_dropped_disk_leaves_its_content_to_its_children():
    contents = make_days(3)
    dropped = kelm.drop("day2.vmdk", verify=True)
    assert names(dropped.children) == ["day3.vmdk"]
    assert sorted(names(dropped.files)) == ["day2.vmdk", "day2.vmdk.digests"]
    assert content("day3.vmdk") == contents[2]
    assert content("day1.vmdk") == contents[0]
    with kelm.open("day3.vmdk") as disk:
        assert names([disk.info.parent]) == ["day1.vmdk"]
    assert not [name for name in files() if name.startswith("day2")]


def test_a_disk_without_children_is_deleted():
    make_days(1)
    assert kelm.drop("day1.vmdk").children == ()
    assert files() == []
    with pytest.raises(kelm.NotFound):
        kelm.drop("day1.vmdk")


def test_children_are_looked_for_where_the_user_says():
    contents = make_days(1)
    os.mkdir("children")
    kelm.create("children/child.vmdk", parent="day1.vmdk").close()
    dropped = kelm.drop("day1.vmdk", look_in=["children"])
    assert names(dropped.children) == ["child.vmdk"]
    assert content("children/child.vmdk") == contents[0]


def test_pruning_keeps_what_a_rule_keeps():
    contents = make_days(3)
    before = files()
    planned = kelm.prune(".", keep_last=1, dry_run=True)
    assert planned.dry_run and files() == before
    assert names(planned.dropped) == ["day1.vmdk", "day2.vmdk"]
    assert [verdict.reasons for verdict in planned.verdicts] == [(), (), ("last 1",)]
    assert [verdict.keep for verdict in planned.verdicts] == [False, False, True]

    pruned = kelm.prune(".", keep_last=1)
    assert not pruned.dry_run
    assert pruned.verdicts == planned.verdicts
    assert files() == ["day3.vmdk", "day3.vmdk.digests"]
    assert content("day3.vmdk") == contents[2]
    assert kelm.check("day3.vmdk").is_sound


def test_pruning_leaves_other_labels_and_broken_disks_alone():
    make_days(2)
    day1 = pathlib.Path("day1.vmdk").read_bytes()
    os.remove("day1.vmdk")
    pruned = kelm.prune(".", keep_last=1)
    assert [(names([verdict.path]), verdict.reasons) for verdict in pruned.verdicts] == [
        (["day2.vmdk"], ("parent missing",))]
    pathlib.Path("day1.vmdk").write_bytes(day1)
    pruned = kelm.prune(".", keep_last=1, label="Monday")
    assert pruned.dropped == ()
    assert {verdict.reasons for verdict in pruned.verdicts} == {("another label",)}


@pytest.mark.parametrize("rules", [{}, {"keep_daily": 0}, {"keep_last": -1}])
def test_pruning_without_a_rule_is_refused(rules):
    make_days(1)
    with pytest.raises(ValueError):
        kelm.prune(".", **rules)
    assert "day1.vmdk" in files()


def test_merged_links_read_as_the_last_one():
    contents = make_days(3)
    made = kelm.merge("day2.vmdk", "day3.vmdk", "merged.vmdk", compressed=True)
    assert made == kelm.Made(os.path.abspath("merged.vmdk"), DISK_BYTES, DISK_BYTES, True)
    assert content("merged.vmdk") == contents[2]
    with kelm.open("merged.vmdk") as disk:
        assert names([disk.info.parent]) == ["day1.vmdk"]
    kelm.merge("day1.vmdk", "day3.vmdk", "whole.vmdk", digests=False)
    assert content("whole.vmdk") == contents[2]
    with kelm.open("whole.vmdk") as disk:
        assert disk.parent is None


def test_disks_that_are_no_links_of_one_chain_are_not_merged():
    make_days(2)
    before = files()
    with pytest.raises(kelm.InvalidArgument, match="no child of the first one"):
        kelm.merge("day2.vmdk", "day1.vmdk", "merged.vmdk")
    with pytest.raises(kelm.InvalidArgument):
        kelm.merge("day1.vmdk", "day2.vmdk", "day1.vmdk")
    assert files() == before


def test_a_renamed_disk_is_known_to_its_children():
    contents = make_days(2)
    os.mkdir("archive")
    renamed = kelm.rename("day1.vmdk", "archive/full.vmdk")
    assert sorted(names(renamed.files)) == ["full.vmdk", "full.vmdk.digests"]
    assert names(renamed.children) == ["day2.vmdk"]
    assert content("day2.vmdk") == contents[1]
    assert "day1.vmdk" not in files()
    with pytest.raises(kelm.NotFound):
        kelm.rename("day1.vmdk", "other.vmdk")
    kelm.create("taken.vmdk", DISK_BYTES).close()
    with pytest.raises(kelm.Exists):
        kelm.rename("day2.vmdk", "taken.vmdk")
