"""The README's Python examples run as written, on the series the demo makes."""

import os
import re
import shutil
import subprocess
import sys

import pytest

README = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, "README.md")
# An HTML comment right before a block says why the tests leave it out.
EXAMPLE = re.compile(r"(?:<!-- (?P<skip>[^>]*) -->\n)?```python\n(?P<code>.*?)```", re.S)


def examples():
    with open(README, encoding="utf-8") as stream:
        text = stream.read()
    for match in EXAMPLE.finditer(text):
        line = text.count("\n", 0, match.start("code"))
        marks = [pytest.mark.skip(reason=match["skip"])] if match["skip"] else []
        yield pytest.param(match["code"], id=f"README.md:{line}", marks=marks)


def zelpy_command(*args, cwd):
    result = subprocess.run([sys.executable, "-m", "zelpy", *args], cwd=cwd,
                            capture_output=True, text=True, timeout=300)
    assert result.returncode == 0, result.stderr


@pytest.fixture(scope="module")
def demo_series(tmp_path_factory):
    """What the README asks to run first, on a smaller grid."""
    base = tmp_path_factory.mktemp("readme")
    zelpy_command("demo", "--size", "41", "--no-plot", "-q", cwd=base)
    zelpy_command("convert", "zelpy-demo/plate_hole.h5", "zelpy-demo/run", "-q", cwd=base)
    return base / "zelpy-demo"


# Examples that use an optional extra run only where it is installed.
EXTRAS = {"distributed": "distributed", "zelpy.series": "pandas"}


@pytest.mark.parametrize("code", list(examples()))
def test_readme_example_runs_as_written(demo_series, tmp_path, code):
    for named, package in EXTRAS.items():
        if re.search(rf"^\s*(from|import) {re.escape(named)}\b", code, re.M):
            pytest.importorskip(package)
    shutil.copytree(demo_series, tmp_path / "zelpy-demo")
    result = subprocess.run([sys.executable, "-c", code], cwd=tmp_path,
                            capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stderr
