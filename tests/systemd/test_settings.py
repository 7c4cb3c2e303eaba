"""What stands in a file of settings, and what is wrong with it."""

import os
import re

import pytest

from conftest import SOURCES, load_program

program = load_program()

NEEDED = "source = /dev/sda\ndestination = /backup/web\n"


def parse(text):
    return program.parse_settings(text, "web.conf")


def problems_of(text):
    with pytest.raises(program.Failure) as caught:
        parse(text)
    assert caught.value.status == program.WRONG_USAGE
    return str(caught.value).split("\n")


def test_what_is_needed_is_enough():
    assert {name: value for name, value in parse(NEEDED).items() if value is not None} == {
        "source": "/dev/sda", "destination": "/backup/web", "compress": True, "encrypt": False,
        "full": "never", "chain-limit": 180, "resume": False, "digests": "yes", "check": "no",
        "nice-io": False}


def test_comments_empty_lines_and_space_do_not_count():
    assert parse("# a comment\n\n  ; another\n" + NEEDED.replace(" = ", "=") +
                 "  before  =  fsfreeze -f /srv # not a comment \n") == {
        **parse(NEEDED), "before": "fsfreeze -f /srv # not a comment"}


@pytest.mark.parametrize("line, problem", [
    ("sorce = /dev/sda", "there is no setting 'sorce'; is it 'source'?"),
    ("colour = red", "there is no setting 'colour'"),
    ("compress", "this is no 'name = value': compress"),
    ("compress =", "'compress' has no value"),
    ("compress = 6", "'compress': 6 is neither yes nor no"),
    ("source = disk.img", "'source' is in line 1 already"),
    ("password-file = secret", "'password-file': secret is no absolute path"),
    ("store-timeout = 0", "'store-timeout': 0 is no whole number from 1 to 31536000"),
    ("level = 10", "'level': 10 is no whole number from 0 to 9"),
    ("level = -1", "'level': -1 is no whole number from 0 to 9"),
    ("split = 2GB", "'split': 2GB is no size: a number, or one with K, M, G or T behind it"),
    ("split = 0", "'split': 0 is no size: a number, or one with K, M, G or T behind it"),
    ("full = daily", "'full': daily is none of never, weekly, monthly, yearly"),
    ("chain-limit = 201", "'chain-limit': 201 is no whole number from 1 to 200"),
    ("digests = all", "'digests': all is none of yes, no, image"),
    ("check = 101%", "'check': 101% is neither yes, nor no, nor a percentage such as 5%"),
    ("check = 0%", "'check': 0% is neither yes, nor no, nor a percentage such as 5%"),
    ("keep-last = 0", "'keep-last': 0 is no whole number from 1 to 1000000"),
    ("threads = ²", "'threads': ² is no whole number from 1 to 1024"),
])
def test_a_wrong_line_is_named(line, problem):
    assert problems_of(NEEDED + line + "\n") == ["web.conf:3: " + problem]


@pytest.mark.parametrize("text, destination", [
    ("/backup/web", "/backup/web"),
    ("/backup/../srv//web/", "/srv/web"),
    ("file:///backup/of%20web", "/backup/of web"),
    ("file:/backup/web", "/backup/web"),
    ("ceph://writer@disks/backup/server-1", "ceph://writer@disks/backup/server-1"),
    ("ceph:/backup of/web/", "ceph:/backup of/web/"),
    ("test:/", "test:/"),
])
def test_a_destination_is_a_folder_here_or_in_a_store(text, destination):
    parsed = parse(f"source = /dev/sda\ndestination = {text}\n")
    assert parsed["destination"] == destination


@pytest.mark.parametrize("text, problem", [
    ("backup", "is neither an absolute path nor the URI of a folder in a store"),
    ("c:/backup", "is neither an absolute path nor the URI of a folder in a store"),
    ("file:backup", "is neither an absolute path nor the URI of a folder in a store"),
    ("file://server/backup", "names a file of another machine"),
    ("s3://bucket/web", "is for reading only: no disks can be made by 's3:'"),
    ("S3://bucket/web", "is for reading only: no disks can be made by 's3:'"),
    ("https://server/web", "is for reading only: no disks can be made by 'https:'"),
    ("http://server/web", "is for reading only: no disks can be made by 'http:'"),
])
def test_a_destination_in_which_no_disk_can_be_made_is_refused(text, problem):
    assert problems_of(f"source = /dev/sda\ndestination = {text}\n") == [
        f"web.conf:2: 'destination': {text} {problem}"]


def test_all_wrong_lines_are_named_at_once():
    assert problems_of("compress = maybe\nlevel = x\n") == [
        "web.conf:1: 'compress': maybe is neither yes nor no",
        "web.conf:2: 'level': x is no whole number from 0 to 9"]


def test_missing_settings_are_named():
    assert problems_of("# nothing\n") == ["web.conf: 'source' is missing",
                                          "web.conf: 'destination' is missing"]


def test_a_level_goes_with_compression():
    assert problems_of(NEEDED + "compress = no\nlevel = 3\n") == [
        "web.conf:4: 'level' goes with 'compress = yes'"]


def test_the_example_has_every_setting_and_is_right():
    text = (SOURCES / "kelm-backup.conf").read_text(encoding="utf-8")
    parse(text)
    named = set(re.findall(r"^#?([a-z-]+) = ", text, re.MULTILINE))
    assert named == set(program.SETTINGS)
    # With all of them in force it is still right.
    parse(re.sub(r"^#([a-z-]+ = )", r"\1", text, flags=re.MULTILINE))


@pytest.mark.parametrize("name", ["../web", "we b", ".web", "w%b", "", "ü"])
def test_a_name_is_of_plain_characters(site, name):
    result = site.call("plan", name if "/" not in name else f"./{name[3:]}!.conf")
    assert result.returncode == program.WRONG_USAGE
    assert "cannot be the name of a backup" in result.stderr


def test_a_file_that_is_not_there_is_not_found(site):
    assert site.run(status=program.NOT_FOUND, name="nothing") == \
        f"kelm-backup: {site.folder}/etc/kelm/backups/nothing.conf: there is no such file\n"


def test_a_file_that_is_no_text_is_refused(site):
    (site.folder / "etc/kelm/backups/web.conf").write_bytes(NEEDED.encode() + b"before = \xff\n")
    assert "web.conf:3: this is no UTF-8" in site.run(status=program.WRONG_USAGE)


@pytest.mark.parametrize("mode", [0o620, 0o602])
def test_a_file_that_others_may_write_is_refused(site, mode):
    os.chmod(site.folder / "etc/kelm/backups/web.conf", mode)
    assert "others than root may write this file" in site.run(status=program.WRONG_USAGE)
    assert site.files() == []


def test_a_file_of_somebody_else_is_refused(site):
    if os.geteuid() != 0:
        pytest.skip("only root can give a file away")
    os.chown(site.folder / "etc/kelm/backups/web.conf", 1234, 1234)
    assert "others than root may write this file" in site.run(status=program.WRONG_USAGE)
