"""Every Python file of the project stays Python 3.8: its grammar, and the typing forms and
standard-library names that 3.8 only fails on when the code runs.

The checks parse with the 3.8 grammar on whatever interpreter runs the tests. That grammar
check is best effort (the parser of a newer interpreter lets a few later forms through), so
the forms it misses are checked on the tree here, and the files are also compiled by a real
3.8 interpreter when one is installed (QV_PYTHON38, python3.8 on PATH, or a pyenv 3.8).
"""

import ast
import glob
import os
import shutil
import subprocess
from pathlib import Path
from typing import Iterator, List, Optional, Set

import pytest

ROOT = Path(__file__).resolve().parent.parent
SOURCE_DIRS = ("python", "tests", "bench", "scripts")
TARGET = (3, 8)

# Built-in classes that became subscriptable in 3.9 (list[int] fails on 3.8 when evaluated).
BUILTIN_GENERICS = {"list", "dict", "tuple", "set", "frozenset", "type"}
# Standard-library modules added after 3.8.
LATER_MODULES = {"zoneinfo", "graphlib", "tomllib"}
# Names that `typing` gained after 3.8; take them from typing_extensions instead.
LATER_TYPING_NAMES = {
    "Annotated", "Concatenate", "LiteralString", "Never", "NotRequired", "ParamSpec", "ParamSpecArgs",
    "ParamSpecKwargs", "Required", "Self", "TypeAlias", "TypeGuard", "TypeVarTuple", "Unpack",
    "assert_never", "assert_type", "dataclass_transform", "is_typeddict", "override", "reveal_type",
}  # fmt: skip


def python_files() -> List[Path]:
    files: List[Path] = []
    for top in SOURCE_DIRS:
        for pattern in ("**/*.py", "**/*.pyi"):
            files.extend(Path(p) for p in glob.glob(str(ROOT / top / pattern), recursive=True))
    return sorted(f for f in set(files) if "__pycache__" not in f.parts)


def annotation_nodes(tree: ast.AST) -> Iterator[ast.AST]:
    for node in ast.walk(tree):
        if isinstance(node, ast.arg) and node.annotation is not None:
            yield node.annotation
        elif isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)) and node.returns is not None:
            yield node.returns
        elif isinstance(node, ast.AnnAssign):
            yield node.annotation


def postponed_annotations(tree: ast.Module) -> bool:
    return any(
        isinstance(node, ast.ImportFrom)
        and node.module == "__future__"
        and any(alias.name == "annotations" for alias in node.names)
        for node in tree.body
    )


def is_dotted_name(node: ast.AST) -> bool:
    while isinstance(node, ast.Attribute):
        node = node.value
    return isinstance(node, ast.Name)


def later_forms(source: str, filename: str, stub: bool) -> List[str]:
    """What in `source` is not Python 3.8, one line per finding ("path:line: what")."""
    try:
        tree = ast.parse(source, filename, feature_version=TARGET)
    except SyntaxError as error:
        return ["{}:{}: not Python 3.8 grammar: {}".format(filename, error.lineno, error.msg)]

    found: List[str] = []

    def report(node: ast.AST, what: str) -> None:
        found.append("{}:{}: {}".format(filename, getattr(node, "lineno", "?"), what))

    # Annotations are not evaluated in a stub, nor under `from __future__ import annotations`;
    # a stub still keeps to the typing forms 3.8 has, so that tools reading it for 3.8 agree.
    unevaluated: Set[int] = set()
    if postponed_annotations(tree) and not stub:
        for annotation in annotation_nodes(tree):
            unevaluated.update(id(n) for n in ast.walk(annotation))
    in_annotation: Set[int] = set()
    for annotation in annotation_nodes(tree):
        in_annotation.update(id(n) for n in ast.walk(annotation))

    for node in ast.walk(tree):
        if id(node) in unevaluated:
            continue
        if isinstance(node, ast.Subscript):
            if isinstance(node.value, ast.Name) and node.value.id in BUILTIN_GENERICS:
                report(
                    node, "{}[...] needs 3.9; use typing.{}".format(node.value.id, node.value.id.capitalize())
                )
            index = node.slice
            if type(index).__name__ == "Index":  # up to 3.8 a plain subscript is wrapped
                index = index.value
            if isinstance(index, ast.Tuple) and any(isinstance(e, ast.Starred) for e in index.elts):
                report(node, "a starred expression in a subscript needs 3.11")
        elif isinstance(node, ast.BinOp) and isinstance(node.op, ast.BitOr) and id(node) in in_annotation:
            report(node, "X | Y in an annotation needs 3.10; use typing.Union or typing.Optional")
        elif isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
            for decorator in node.decorator_list:
                target = decorator.func if isinstance(decorator, ast.Call) else decorator
                if not is_dotted_name(target):
                    report(decorator, "a decorator that is not a dotted name or a call of one needs 3.9")
        elif isinstance(node, ast.Import):
            for alias in node.names:
                if alias.name.split(".")[0] in LATER_MODULES:
                    report(node, "module {} is not in the 3.8 standard library".format(alias.name))
        elif isinstance(node, ast.ImportFrom) and node.level == 0 and node.module:
            if node.module.split(".")[0] in LATER_MODULES:
                report(node, "module {} is not in the 3.8 standard library".format(node.module))
            if node.module == "typing":
                for alias in node.names:
                    if alias.name in LATER_TYPING_NAMES:
                        report(
                            node,
                            "typing.{} is not in 3.8; import it from typing_extensions".format(alias.name),
                        )
    return found


def test_the_project_has_python_files_to_check():
    files = python_files()
    names = {f.relative_to(ROOT).as_posix() for f in files}
    assert "python/quorvex/__init__.py" in names
    assert "tests/test_python38.py" in names


@pytest.mark.parametrize("path", python_files(), ids=lambda p: p.relative_to(ROOT).as_posix())
def test_file_is_python38(path):
    source = path.read_text(encoding="utf-8")
    findings = later_forms(source, path.relative_to(ROOT).as_posix(), stub=path.suffix == ".pyi")
    assert not findings, "\n".join(findings)


# ---- the checker itself: each later form it guards against is reported ----------------


@pytest.mark.parametrize(
    ("source", "expected"),
    [
        ("match x:\n    case 1:\n        pass\n", "not Python 3.8 grammar"),
        ("with (open('a') as f, open('b') as g):\n    pass\n", "not Python 3.8 grammar"),
        ("def f(x: list[int]) -> None:\n    pass\n", "list[...] needs 3.9"),
        ("Rows = dict[str, int]\n", "dict[...] needs 3.9"),
        ("def f(x: 'int') -> int | None:\n    pass\n", "X | Y in an annotation"),
        ("a[*b]\n", "starred expression in a subscript"),
        ("@handlers[0].register\ndef f():\n    pass\n", "decorator that is not a dotted name"),
        ("from typing import Annotated\n", "typing.Annotated is not in 3.8"),
        ("import zoneinfo\n", "module zoneinfo"),
        ("from graphlib import TopologicalSorter\n", "module graphlib"),
    ],
)
def test_checker_reports_later_forms(source, expected):
    findings = later_forms(source, "example.py", stub=False)
    assert len(findings) == 1 and expected in findings[0], findings


@pytest.mark.parametrize(
    "source",
    [
        (
            "from typing import Dict, List, Optional, Union\n"
            "def f(x: Optional[List[int]]) -> Dict[str, Union[int, str]]:\n    return {}\n"
        ),
        "flags = 1 | 2\n",
        "@functools.lru_cache(maxsize=None)\n@property\ndef f():\n    pass\n",
        "if (n := 3) > 2:\n    pass\n",
        "def f(a, /, b):\n    pass\n",
        "from __future__ import annotations\ndef f(x: list[int]) -> int | None:\n    pass\n",
        "from typing_extensions import Annotated\n",
    ],
)
def test_checker_accepts_python38(source):
    assert later_forms(source, "example.py", stub=False) == []


def test_stub_annotations_keep_to_typing_forms_even_when_postponed():
    source = "from __future__ import annotations\ndef f(x: list[int]) -> None: ...\n"
    assert later_forms(source, "example.pyi", stub=True)


# ---- a real 3.8 interpreter, where there is one ----------------------------------------


def python38() -> Optional[str]:
    candidates = [os.environ.get("QV_PYTHON38")]
    candidates += sorted(glob.glob(os.path.expanduser("~/.pyenv/versions/3.8*/bin/python3.8")))
    candidates.append(shutil.which("python3.8"))
    for candidate in candidates:
        if not candidate or not os.access(candidate, os.X_OK):
            continue
        # A version manager's shim may exist without a 3.8 behind it.
        probe = subprocess.run(
            [candidate, "-c", "import sys; print(sys.version_info[:2] == (3, 8))"],
            capture_output=True,
            text=True,
            timeout=60,
            check=False,
        )
        if probe.returncode == 0 and probe.stdout.strip() == "True":
            return candidate
    return None


COMPILE_ALL = """
import sys
failed = []
for name in sys.argv[1:]:
    with open(name, "rb") as f:
        source = f.read()
    try:
        compile(source, name, "exec", dont_inherit=True)
    except SyntaxError as error:
        failed.append("%s:%s: %s" % (name, error.lineno, error.msg))
print("\\n".join(failed))
sys.exit(1 if failed else 0)
"""


def test_files_compile_on_python38():
    interpreter = python38()
    if interpreter is None:
        pytest.skip("no Python 3.8 interpreter here (set QV_PYTHON38 to one)")
    files = [str(f) for f in python_files()]
    done = subprocess.run(
        [interpreter, "-I", "-c", COMPILE_ALL, *files],
        capture_output=True,
        text=True,
        timeout=300,
        check=False,
    )
    assert done.returncode == 0, done.stdout + done.stderr
