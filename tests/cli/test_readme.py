"""The README's Python example and commands, so that they cannot rot."""

import pathlib
import re
import shlex
import subprocess
import sys

import pytest

from quorvex.cli import build_parser

README = pathlib.Path(__file__).resolve().parents[2] / "README.md"


def _python_blocks():
    return re.findall(r"```python\n(.*?)```", README.read_text(encoding="utf-8"), flags=re.S)


def _quorvex_commands():
    return [
        line.split("quorvex", 1)[1].strip()
        for line in README.read_text(encoding="utf-8").splitlines()
        if line.strip().startswith(".venv/bin/quorvex ")
    ]


def test_readme_keeps_its_two_commands():
    text = README.read_text(encoding="utf-8")
    assert "\n    ./scripts/demo\n" in text
    assert "\n    ./scripts/test\n" in text


@pytest.mark.parametrize("command", _quorvex_commands())
def test_readme_commands_parse(command):
    args = build_parser().parse_args(shlex.split(command))
    assert args.run


def test_the_one_python_example_runs(tmp_path):
    [example] = _python_blocks()
    script = tmp_path / "example.py"
    script.write_text(example, encoding="utf-8")
    env = {
        "PYTHONPATH": ":".join(p for p in sys.path if p),
        "QUORVEX_CONTRACTS_DIR": str(tmp_path / "cache"),
        "PATH": "/usr/bin:/bin",
    }
    done = subprocess.run(
        [sys.executable, str(script)], capture_output=True, text=True, env=env, timeout=90, cwd=str(tmp_path)
    )
    assert done.returncode == 0, done.stderr[-3000:]
    assert "Traceback" not in done.stderr
