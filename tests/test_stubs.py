"""The checked-in stubs (.pyi) describe the compiled modules as they are built: the same
classes and functions, the same members, parameter names in the same order, and the same
defaults, so that editors and type checkers see the API that runs."""

import ast
import importlib
import inspect
import re
from pathlib import Path
from typing import Any, Callable, Dict, List, Tuple

import pytest

import pymqlink
import quorvex

ROOT = Path(__file__).resolve().parent.parent
PACKAGES = ROOT / "python"

# Special methods a stub declares when the class defines them itself; the rest are inherited.
DECLARED_SPECIALS = {"__init__", "__del__", "__call__", "__iter__", "__len__", "__getitem__"}

# A special method the class only inherits from the C level (no constructor of its own, say).
SLOT_WRAPPER = type(object.__init__)

NO_DEFAULT = object()
ANY_DEFAULT = object()  # a stub's `= ...`: some default the stub does not spell out


def stub_files() -> List[Path]:
    return sorted(PACKAGES.glob("**/*.pyi"))


def module_name(stub: Path) -> str:
    return ".".join(stub.relative_to(PACKAGES).with_suffix("").parts)


class Parameters:
    """The parameters of one signature after `self`: name, kind and default of each."""

    def __init__(self, params: List[Tuple[str, str, Any]]):
        if params and params[0][1] in (POSITIONAL_ONLY, POSITIONAL) and params[0][0] in ("self", "cls"):
            params = params[1:]
        self.params = params

    def __repr__(self) -> str:
        prefix = {VAR_POSITIONAL: "*", VAR_KEYWORD: "**"}
        return "({})".format(", ".join(prefix.get(kind, "") + name for name, kind, _ in self.params))


POSITIONAL_ONLY, POSITIONAL, VAR_POSITIONAL, KEYWORD_ONLY, VAR_KEYWORD = (
    "positional-only",
    "positional",
    "*args",
    "keyword-only",
    "**kwargs",
)


def ast_parameters(args: ast.arguments, default_of: Callable[[ast.expr], Any]) -> Parameters:
    positional = [(a.arg, POSITIONAL_ONLY) for a in args.posonlyargs]
    positional += [(a.arg, POSITIONAL) for a in args.args]
    defaults = [NO_DEFAULT] * (len(positional) - len(args.defaults)) + [default_of(d) for d in args.defaults]
    params = [(name, kind, default) for (name, kind), default in zip(positional, defaults)]
    if args.vararg:
        params.append((args.vararg.arg, VAR_POSITIONAL, NO_DEFAULT))
    for arg, default in zip(args.kwonlyargs, args.kw_defaults):
        params.append((arg.arg, KEYWORD_ONLY, NO_DEFAULT if default is None else default_of(default)))
    if args.kwarg:
        params.append((args.kwarg.arg, VAR_KEYWORD, NO_DEFAULT))
    return Parameters(params)


def stub_default(value: ast.expr) -> Any:
    if isinstance(value, ast.Constant) and value.value is Ellipsis:
        return ANY_DEFAULT
    return ast.literal_eval(value)


def stub_parameters(node: ast.FunctionDef) -> Parameters:
    return ast_parameters(node.args, stub_default)


INSPECT_KINDS = {
    inspect.Parameter.POSITIONAL_ONLY: POSITIONAL_ONLY,
    inspect.Parameter.POSITIONAL_OR_KEYWORD: POSITIONAL,
    inspect.Parameter.VAR_POSITIONAL: VAR_POSITIONAL,
    inspect.Parameter.KEYWORD_ONLY: KEYWORD_ONLY,
    inspect.Parameter.VAR_KEYWORD: VAR_KEYWORD,
}


def runtime_parameters(func: Any) -> List[Parameters]:
    """One entry per overload of a nanobind function; one for any other callable."""
    nb_signatures = getattr(func, "__nb_signature__", None)
    if nb_signatures is None:
        params = inspect.signature(func).parameters.values()
        defaults = [NO_DEFAULT if p.default is p.empty else p.default for p in params]
        return [Parameters([(p.name, INSPECT_KINDS[p.kind], d) for p, d in zip(params, defaults)])]
    found = []
    for text, _doc, default_values in nb_signatures:
        # nanobind writes a default as \N, the index into the tuple of default values.
        node = ast.parse(re.sub(r"\\(\d+)", r"__default_\1", text) + ": ...").body[0]
        assert isinstance(node, ast.FunctionDef)

        def default_of(value: ast.expr, values: Any = default_values) -> Any:
            marker = re.fullmatch(r"__default_(\d+)", value.id) if isinstance(value, ast.Name) else None
            return values[int(marker.group(1))] if marker else ANY_DEFAULT

        found.append(ast_parameters(node.args, default_of))
    return found


def same_shape(stub: Parameters, built: Parameters) -> bool:
    """Same parameters in the same order; a name only counts where it can be passed by keyword."""
    if len(stub.params) != len(built.params):
        return False
    for (stub_name, stub_kind, _), (built_name, built_kind, _) in zip(stub.params, built.params):
        if POSITIONAL_ONLY in (stub_kind, built_kind):
            if {stub_kind, built_kind} - {POSITIONAL_ONLY, POSITIONAL}:
                return False
        elif stub_kind != built_kind or (stub_kind in (POSITIONAL, KEYWORD_ONLY) and stub_name != built_name):
            return False
    return True


class StubClass:
    def __init__(self, node: ast.ClassDef):
        self.methods: Dict[str, List[Parameters]] = {}
        self.properties = set()
        self.attributes = set()
        for item in node.body:
            if isinstance(item, ast.FunctionDef):
                decorators = {d.id for d in item.decorator_list if isinstance(d, ast.Name)}
                if "property" in decorators:
                    self.properties.add(item.name)
                else:
                    self.methods.setdefault(item.name, []).append(stub_parameters(item))
            elif isinstance(item, ast.AnnAssign) and isinstance(item.target, ast.Name):
                self.attributes.add(item.target.id)

    def names(self):
        return set(self.methods) | self.properties

    def declares(self):
        """Everything the stub says the class has; an annotated name may stand for a property."""
        return self.names() | self.attributes


def parse_stub(stub: Path) -> Tuple[Dict[str, StubClass], Dict[str, List[Parameters]]]:
    tree = ast.parse(stub.read_text(encoding="utf-8"), str(stub))
    classes = {n.name: StubClass(n) for n in tree.body if isinstance(n, ast.ClassDef)}
    functions: Dict[str, List[Parameters]] = {}
    for node in tree.body:
        if isinstance(node, ast.FunctionDef):
            functions.setdefault(node.name, []).append(stub_parameters(node))
    return classes, functions


def import_or_skip(name: str):
    try:
        return importlib.import_module(name)
    except ImportError as error:
        pytest.skip("{} is not built here: {}".format(name, error))


def runtime_members(cls: type) -> Dict[str, Any]:
    members = {}
    for name, value in vars(cls).items():
        if name.startswith("__") and (name not in DECLARED_SPECIALS or isinstance(value, SLOT_WRAPPER)):
            continue
        if isinstance(value, property) or callable(value):
            members[name] = value
    return members


def same_default(stub_default: Any, runtime_default: Any) -> bool:
    if stub_default is ANY_DEFAULT:
        return runtime_default is not NO_DEFAULT
    if stub_default is NO_DEFAULT or runtime_default is NO_DEFAULT:
        return stub_default is runtime_default
    return type(stub_default) is type(runtime_default) and stub_default == runtime_default


def signature_problems(where: str, stubbed: List[Parameters], built: List[Parameters]) -> List[str]:
    """Each stub overload must have the shape of a built signature, and every default the stub
    states must be the built one (an overload of several may leave a default out)."""
    problems = []
    for stub in stubbed:
        candidates = [b for b in built if same_shape(stub, b)]
        if not candidates:
            problems.append("{}: stub parameters {} but built {}".format(where, stub, built))
            continue
        for (name, _, stub_default), (_, _, built_default) in zip(stub.params, candidates[0].params):
            if stub_default is NO_DEFAULT and len(stubbed) > 1:
                continue
            if not same_default(stub_default, built_default):
                problems.append(
                    "{}({}): stub default {!r}, built {!r}".format(where, name, stub_default, built_default)
                )
    return problems


@pytest.mark.parametrize("stub", stub_files(), ids=lambda p: p.relative_to(PACKAGES).as_posix())
def test_stub_matches_the_built_module(stub):
    module = import_or_skip(module_name(stub))
    classes, functions = parse_stub(stub)
    problems: List[str] = []

    public = {
        n for n, v in vars(module).items() if not n.startswith("_") and (callable(v) or isinstance(v, type))
    }
    public = {n for n in public if getattr(vars(module)[n], "__module__", module.__name__) == module.__name__}
    undeclared = public - set(classes) - set(functions)
    if undeclared:
        problems.append("built but not in the stub: {}".format(sorted(undeclared)))

    for name, stubbed in functions.items():
        built = getattr(module, name, None)
        if built is None:
            problems.append("{} is in the stub but not built".format(name))
        else:
            problems += signature_problems(name, stubbed, runtime_parameters(built))

    for class_name, stub_class in classes.items():
        cls = getattr(module, class_name, None)
        if not isinstance(cls, type):
            problems.append("class {} is in the stub but not built".format(class_name))
            continue
        qualified = "{}.{}".format(module.__name__, class_name)
        members = runtime_members(cls)
        missing_from_stub = set(members) - stub_class.declares()
        if missing_from_stub:
            problems.append("{}: built but not in the stub: {}".format(qualified, sorted(missing_from_stub)))
        not_built = stub_class.names() - set(dir(cls))
        if not_built:
            problems.append("{}: in the stub but not built: {}".format(qualified, sorted(not_built)))
        for name in stub_class.properties & set(members):
            if not isinstance(members[name], property):
                problems.append("{}.{}: a property in the stub, not in the build".format(qualified, name))
        for name, stubbed in stub_class.methods.items():
            if name not in members:
                continue
            if isinstance(members[name], property):
                problems.append(
                    "{}.{}: a method in the stub, a property in the build".format(qualified, name)
                )
                continue
            problems += signature_problems(
                "{}.{}".format(qualified, name), stubbed, runtime_parameters(members[name])
            )

    assert not problems, "\n".join(problems)


def test_every_extension_module_has_a_stub():
    stubs = {module_name(s) for s in stub_files()}
    built = set()
    # Wherever the packages are imported from: next to the sources in development, in
    # site-packages once installed.
    for package in (quorvex, pymqlink):
        root = Path(package.__file__).parent.parent
        for path in Path(package.__file__).parent.glob("**/*"):
            # Extension modules carry an interpreter tag (api.cpython-311-...so); the bus's
            # shared library next to them does not.
            if (
                path.suffix in (".so", ".pyd")
                and path.name.count(".") >= 2
                and "__pycache__" not in path.parts
            ):
                name = path.name.split(".")[0]
                built.add(".".join((*path.relative_to(root).parent.parts, name)))
    assert built, "no extension module found next to the quorvex and pymqlink packages"
    assert built <= stubs, "extension modules without a stub: {}".format(sorted(built - stubs))


def test_stub_declares_every_attribute_a_new_instance_has(api):
    classes, _ = parse_stub(PACKAGES / "quorvex" / "backend" / "solace" / "api.pyi")
    declared = classes["SolaceAPI"].attributes | classes["SolaceAPI"].names()
    assert set(vars(api)) - declared == set()


def test_comparison_catches_a_changed_default():
    # The checks above pass only if they can fail: a stub default that differs from the built one.
    def built(self, account, timeout=5000, cb=None):
        pass

    stubbed = [stub_parameters(ast.parse("def f(self, account, timeout=0, cb=None): ...").body[0])]
    assert signature_problems("f", stubbed, runtime_parameters(built))
    stubbed = [stub_parameters(ast.parse("def f(self, account, cb=None, timeout=5000): ...").body[0])]
    assert signature_problems("f", stubbed, runtime_parameters(built))
    stubbed = [stub_parameters(ast.parse("def f(self, account, timeout=..., cb=None): ...").body[0])]
    assert signature_problems("f", stubbed, runtime_parameters(built)) == []


def test_stubs_and_typed_markers_ship_with_the_packages():
    # PEP 561: without py.typed, type checkers ignore a package's stubs and annotations. The
    # packages looked in are the imported ones, so an installed build is checked as installed.
    def installed(package: str) -> Path:
        return Path(importlib.import_module(package).__file__).parent

    for package in ("quorvex", "pymqlink"):
        assert (installed(package) / "py.typed").is_file(), "{} has no py.typed".format(installed(package))
    for stub in stub_files():
        package, *inside = stub.relative_to(PACKAGES).parts
        assert installed(package).joinpath(*inside).is_file(), "{} is not installed".format(stub.name)
