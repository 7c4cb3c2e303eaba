"""The types of the package, by mypy."""

import os
import pathlib
import re
import subprocess
import sys

import kelm

HERE = pathlib.Path(__file__).parent


def run_mypy(*arguments):
    package = pathlib.Path(kelm.__file__).parent
    return subprocess.run(
        [sys.executable, "-m", "mypy", "--strict", "--no-error-summary", "--cache-dir=cache",
         *map(str, arguments)],
        env={**os.environ, "MYPYPATH": str(package.parent)}, capture_output=True, text=True)


def test_the_package_and_its_use_have_no_error():
    result = run_mypy("-p", "kelm")
    assert (result.returncode, result.stdout + result.stderr) == (0, "")
    result = run_mypy(HERE / "typed_use.py")
    assert (result.returncode, result.stdout + result.stderr) == (0, "")


def test_wrong_use_is_refused_line_by_line():
    source = HERE / "wrong_use.py"
    expected = {number for number, line in enumerate(source.read_text().split("\n"), 1)
                if line.endswith("# refused")}
    result = run_mypy(source)
    refused = {int(number) for number in re.findall(r"wrong_use\.py:(\d+): error:", result.stdout)}
    assert refused == expected


def test_the_package_says_that_it_has_types():
    assert (pathlib.Path(kelm.__file__).parent / "py.typed").exists()


def test_all_that_is_public_is_listed_and_explained():
    for name in kelm.__all__:
        value = getattr(kelm, name)
        assert name == "__version__" or (value.__doc__ and value.__module__ == "kelm"), name
    public = {name for name, value in vars(kelm).items()
              if not name.startswith("_") and getattr(value, "__module__", None) == "kelm"}
    assert public == set(kelm.__all__) - {"__version__"}
    assert re.fullmatch(r"\d+\.\d+\.\d+", kelm.__version__)
