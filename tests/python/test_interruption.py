"""What ends work before its time, and what is left then."""

import os
import signal
import threading

import pytest

import kelm
from conftest import DISK_BYTES, NoForcedSwitches, content, files


class Stop(Exception):
    """Raised by a callback."""


def raising(error):
    def progress(done, total):
        raise error

    return progress


@pytest.mark.parametrize("error", [KeyboardInterrupt(), Stop("enough"), SystemExit(3)])
def test_what_a_callback_raises_ends_the_work(error, image):
    kelm.import_image("image", "disk.vmdk", digests=False)
    before = files()
    for call in (
            lambda progress: kelm.import_image("image", "new.vmdk", progress=progress),
            lambda progress: kelm.import_image("image", "new.vmdk", split=4 << 20, compressed=True,
                                               progress=progress),
            lambda progress: kelm.export_image("disk.vmdk", "copy", progress=progress),
            lambda progress: kelm.convert("disk.vmdk", "new.vmdk", progress=progress),
            lambda progress: kelm.merge("disk.vmdk", "disk.vmdk", "new.vmdk", progress=progress),
            lambda progress: kelm.check("disk.vmdk", progress=progress),
            lambda progress: kelm.compare("disk.vmdk", "image", progress=progress),
            lambda progress: kelm.digest("disk.vmdk", progress=progress),
            lambda progress: kelm.digest("disk.vmdk", keep=True, progress=progress)):
        with pytest.raises(type(error)) as raised:
            call(raising(error))
        assert raised.value is error
        assert files() == before
    assert content("disk.vmdk") == image


def test_a_disk_whose_dropping_was_ended_goes_by_the_same_call(chain):
    with pytest.raises(Stop):
        kelm.drop("full.vmdk", progress=raising(Stop()))
    assert content("child.vmdk") == chain
    kelm.drop("full.vmdk")
    assert content("child.vmdk") == chain
    assert "full.vmdk" not in files()


def test_a_callback_that_is_none_is_refused_in_time(image):
    with pytest.raises(TypeError):
        kelm.import_image("image", "disk.vmdk", progress=5)
    assert files() == ["image"]


@pytest.fixture
def half_fed_pipe(image):
    """A pipe whose writer, once it has a reader, writes a part, and then calls what it is given."""
    os.mkfifo("pipe")
    is_over = threading.Event()
    threads = []

    def feed(action):
        def work():
            with open("pipe", "wb") as pipe:
                pipe.write(image[:1 << 20])
                pipe.flush()
                action()
                is_over.wait()

        threads.append(threading.Thread(target=work))
        threads[0].start()

    yield feed
    is_over.set()
    for thread in threads:
        thread.join()


def test_ctrl_c_ends_work_that_waits(half_fed_pipe):
    half_fed_pipe(lambda: os.kill(os.getpid(), signal.SIGINT))
    with pytest.raises(KeyboardInterrupt):
        kelm.import_image("pipe", "disk.vmdk", size=DISK_BYTES)
    assert files() == ["image", "pipe"]


def test_a_handler_that_returns_ends_nothing(image):
    os.mkfifo("pipe")
    handled = threading.Event()

    def feed():
        with open("pipe", "wb") as pipe:
            pipe.write(image[:1 << 20])
            os.kill(os.getpid(), signal.SIGUSR1)
            handled.wait()
            pipe.write(image[1 << 20:])

    former = signal.signal(signal.SIGUSR1, lambda *_: handled.set())
    writer = threading.Thread(target=feed)
    writer.start()
    try:
        kelm.import_image("pipe", "disk.vmdk", size=DISK_BYTES)
    finally:
        signal.signal(signal.SIGUSR1, former)
        writer.join()
    assert content("disk.vmdk") == image


def test_a_handler_that_raises_ends_the_work(half_fed_pipe):
    def handle(*_):
        raise Stop

    former = signal.signal(signal.SIGTERM, handle)
    half_fed_pipe(lambda: os.kill(os.getpid(), signal.SIGTERM))
    try:
        with pytest.raises(Stop):
            kelm.import_image("pipe", "disk.vmdk", size=DISK_BYTES)
    finally:
        signal.signal(signal.SIGTERM, former)
    assert files() == ["image", "pipe"]


def test_ctrl_c_ends_the_derivation_of_a_key():
    kelm.create("disk.vmdk", DISK_BYTES, encrypt=True, rounds=1000, password="secret").close()

    go = threading.Event()

    def send():
        go.wait()
        os.kill(os.getpid(), signal.SIGINT)

    sender = threading.Thread(target=send)
    sender.start()
    # The signal comes once the function lets the interpreter go. 10 million rounds, the most that
    # are allowed, take far longer than that.
    with NoForcedSwitches(), pytest.raises(KeyboardInterrupt):
        go.set()
        kelm.create("slow.vmdk", DISK_BYTES, encrypt=True, rounds=10_000_000, password="secret")
    sender.join()
    assert files() == ["disk.vmdk"]


def test_work_goes_on_in_several_threads_at_once(image):
    errors = []

    def work(number):
        try:
            kelm.import_image("image", f"{number}.vmdk", compressed=True,
                              progress=lambda done, total: None)
            assert kelm.check(f"{number}.vmdk").is_sound
        except BaseException as error:
            errors.append(error)

    threads = [threading.Thread(target=work, args=[number]) for number in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert errors == []
    for number in range(4):
        assert content(f"{number}.vmdk") == image
