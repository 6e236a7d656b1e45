"""Every public call says what it does in help(), and docs/reference.md is generated from that."""

import inspect
import os
import pathlib
import subprocess
import sys

import pytest

from quorvex.aio import Client as AsyncClient
from quorvex.backend.solace.api import SolaceAPI
from quorvex.client import Client

ROOT = pathlib.Path(__file__).resolve().parents[2]


@pytest.mark.parametrize("cls", [Client, AsyncClient, SolaceAPI], ids=lambda c: c.__module__)
def test_every_public_method_has_a_docstring(cls):
    undocumented = [
        name
        for name, member in vars(cls).items()
        if not name.startswith("_")
        and (callable(member) or isinstance(member, property))
        and not inspect.getdoc(getattr(cls, name))
    ]
    assert undocumented == []


def test_the_reference_page_is_current():
    generated = subprocess.run(
        [sys.executable, str(ROOT / "scripts" / "reference.py")],
        capture_output=True,
        text=True,
        check=True,
        env=dict(os.environ, PYTHONPATH=os.pathsep.join(p for p in sys.path if p)),
    ).stdout
    assert (ROOT / "docs" / "reference.md").read_text(encoding="utf-8") == generated, "run scripts/reference"
