"""Encrypted disks."""

import pytest

import kelm
from conftest import DISK_BYTES, ROUNDS, content, files


def make_disk(password, **options):
    with kelm.create("disk.vmdk", DISK_BYTES, encrypt=True, rounds=ROUNDS, password=password,
                     **options) as disk:
        disk.write(b"secret")


@pytest.mark.parametrize("password", ["pass wörd", "pass wörd".encode(),
                                      bytearray("pass wörd".encode())])
def test_a_password_is_text_or_its_bytes(password):
    make_disk(password)
    for opening in ("pass wörd", "pass wörd".encode(), bytearray("pass wörd".encode())):
        assert content("disk.vmdk", password=opening)[:6] == b"secret"
    with kelm.open("disk.vmdk", password="pass wörd") as disk:
        assert disk.info.encrypted
    with open("disk.vmdk", "rb") as file:
        assert b"secret" not in file.read()


def test_a_bytearray_is_overwritten_whatever_happens():
    password = bytearray(b"pass")
    make_disk(password)
    assert password == bytes(4)
    for call in (lambda secret: kelm.open("disk.vmdk", password=secret).close(),
                 lambda secret: kelm.check("disk.vmdk", password=secret),
                 lambda secret: kelm.convert("disk.vmdk", "copy.vmdk", source_password=secret)):
        secret = bytearray(b"pass")
        call(secret)
        assert secret == bytes(4)
    for call in (lambda secret: kelm.open("missing.vmdk", password=secret),
                 lambda secret: kelm.open("disk.vmdk", "rt", password=secret),
                 lambda secret: kelm.check("disk.vmdk", password=secret, threads="many"),
                 lambda secret: kelm.compare("disk.vmdk", "disk.vmdk", right_password=secret)):
        secret = bytearray(b"wrong")
        with pytest.raises((kelm.Error, ValueError, TypeError)):
            call(secret)
        assert secret == bytes(5)


def test_bytes_stay_as_they_are():
    password = b"pass"
    make_disk(password)
    assert password == b"pass"


def test_a_wrong_or_missing_password():
    make_disk("right")
    with pytest.raises(kelm.WrongPassword, match="no password provided"):
        kelm.open("disk.vmdk")
    with pytest.raises(kelm.WrongPassword, match="not correct") as raised:
        kelm.open("disk.vmdk", password="wrong")
    assert "uri" in raised.value.properties
    for call in (kelm.check, kelm.digest, lambda disk, **options: kelm.export_image(
            disk, "image", **options), lambda disk, **options: kelm.convert(
                disk, "copy.vmdk", **options)):
        with pytest.raises(kelm.WrongPassword):
            call("disk.vmdk", password="wrong")
    assert files() == ["disk.vmdk"]


@pytest.mark.parametrize("password, error", [
    ("", ValueError), (b"", ValueError), (bytearray(), ValueError), (b"\xff\xfe", ValueError),
    ("\udc80", ValueError), (5, TypeError), (["p"], TypeError)])
def test_what_is_no_password(password, error):
    with pytest.raises(error):
        kelm.create("disk.vmdk", DISK_BYTES, encrypt=True, password=password)
    assert files() == []


def test_a_password_without_encryption_is_refused(image):
    for call in (lambda: kelm.create("disk.vmdk", DISK_BYTES, password="secret"),
                 lambda: kelm.import_image("image", "disk.vmdk", password="secret")):
        with pytest.raises(kelm.InvalidArgument, match="not to be encrypted"):
            call()
    with pytest.raises(kelm.InvalidArgument, match="needs a password"):
        kelm.import_image("image", "disk.vmdk", encrypt=True)
    assert files() == ["image"]


def test_one_password_opens_a_chain(image):
    kelm.import_image("image", "full.vmdk", compressed=True, encrypt=True, rounds=ROUNDS,
                      password="secret")
    with kelm.create("child.vmdk", parent="full.vmdk", rounds=ROUNDS, password="secret") as disk:
        assert disk.info.encrypted
        disk.write(b"child")
        assert disk.parent.read(5) == image[:5]
    assert content("child.vmdk", password="secret") == b"child" + image[5:]
    kelm.merge("full.vmdk", "child.vmdk", "merged.vmdk", encrypt=True, rounds=ROUNDS,
               password="secret")
    assert kelm.compare("child.vmdk", "merged.vmdk", password="secret").is_equal
    assert kelm.check("child.vmdk", password="secret").is_sound
    kelm.drop("full.vmdk", password="secret")
    assert content("child.vmdk", password="secret") == b"child" + image[5:]
    kelm.prune(".", keep_last=1, password="secret")


def test_two_disks_may_have_two_passwords(image):
    kelm.import_image("image", "one.vmdk", encrypt=True, rounds=ROUNDS, password="one")
    kelm.convert("one.vmdk", "two.vmdk", encrypt=True, rounds=ROUNDS, source_password="one",
                 password="two")
    assert content("two.vmdk", password="two") == image
    assert kelm.compare("one.vmdk", "two.vmdk", password="one", right_password="two").is_equal
    kelm.convert("two.vmdk", "plain.vmdk", password="two")
    assert content("plain.vmdk") == image


def test_encrypted_disks_can_be_of_any_kind(image):
    kelm.import_image("image", "disk.vmdk", compressed=True, split=4 << 20, on_demand=True,
                      encrypt=True, rounds=ROUNDS, password="secret")
    assert content("disk.vmdk", password="secret") == image
