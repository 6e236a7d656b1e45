"""The README's example and the scripts under examples/: they type-check under mypy --strict
and run on the embedded paper broker."""

import os
import pathlib
import re
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = sorted((ROOT / "examples").glob("*.py"))


def _readme_example(folder: pathlib.Path) -> pathlib.Path:
    [block] = re.findall(r"```python\n(.*?)```", (ROOT / "README.md").read_text(encoding="utf-8"), flags=re.S)
    script = folder / "readme_example.py"
    script.write_text(block, encoding="utf-8")
    return script


def _env(folder: pathlib.Path) -> dict:
    return dict(
        os.environ,
        PYTHONPATH=os.pathsep.join(p for p in sys.path if p),
        QUORVEX_CONTRACTS_DIR=str(folder / "contracts"),
        QUORVEX_EXAMPLE_SECONDS="1",
    )


def test_the_readme_example_and_the_examples_pass_mypy_strict(tmp_path):
    files = [str(_readme_example(tmp_path))] + [str(p) for p in EXAMPLES]
    done = subprocess.run(
        [
            sys.executable,
            "-m",
            "mypy",
            "--strict",
            "--follow-imports=silent",
            "--no-error-summary",
            "--cache-dir",
            str(ROOT / "build" / "mypy-cache"),
            *files,
        ],
        capture_output=True,
        text=True,
        env=_env(tmp_path),
        timeout=300,
    )
    assert done.returncode == 0, done.stdout[-3000:] + done.stderr[-2000:]


@pytest.mark.parametrize("script", EXAMPLES, ids=lambda p: p.name)
def test_each_example_runs(tmp_path, script):
    done = subprocess.run(
        [sys.executable, str(script)],
        capture_output=True,
        text=True,
        env=_env(tmp_path),
        timeout=120,
        cwd=str(tmp_path),
    )
    assert done.returncode == 0, done.stdout[-2000:] + done.stderr[-3000:]
    assert "Traceback" not in done.stderr
