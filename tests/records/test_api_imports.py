"""The client library's modules that the backend's api module takes its names from. (A name
the api module needs and no library module defines fails its import with that name, which
every test of the api catches.)"""

import importlib

import pytest

MODULES = [
    "quorvex.account",
    "quorvex.constant",
    "quorvex.contracts",
    "quorvex.data",
    "quorvex.order",
    "quorvex.position",
    "quorvex.reserve",
    "quorvex.error",
    "quorvex.utils",
    "quorvex.backend.solace.utils",
]


@pytest.mark.parametrize("module", MODULES)
def test_module_exports_only_names_it_has(module):
    loaded = importlib.import_module(module)
    assert set(getattr(loaded, "__all__", ())) <= set(dir(loaded))
