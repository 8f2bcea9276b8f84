"""The stub's functions take the parameters the module's functions take: same
names, in order, the same ones with defaults. (The module's functions carry no
signature that stubtest can read; it checks that the stub and the module name
the same things.)"""
import ast
import os

import pytest
import zuresource as zr

STUB = os.path.join(os.path.dirname(__file__), "..", "zuresource.pyi")
# The context managers' __exit__ takes *args; the stub spells out the protocol.
SPELLED_OUT = {"Acquisition.__exit__", "Observer.__exit__", "_ContextManager.__exit__"}


def stub_functions():
    tree = ast.parse(open(STUB).read())
    for node in tree.body:
        if isinstance(node, ast.FunctionDef):
            yield node.name, None, node
        elif isinstance(node, ast.ClassDef) and hasattr(zr, node.name):
            for item in node.body:
                if isinstance(item, ast.FunctionDef) and not item.decorator_list:
                    yield f"{node.name}.{item.name}", node.name, item


def parameters(node):
    """[(name, has_default)] of a function's definition."""
    args = node.args.posonlyargs + node.args.args
    defaults = [False] * (len(args) - len(node.args.defaults)) + [True] * len(node.args.defaults)
    return [(a.arg, d) for a, d in zip(args, defaults)]


def module_parameters(function):
    """Those of the signature line that pybind11 writes first in the doc (less its return type)."""
    line = function.__doc__.split("\n", 1)[0]
    return parameters(ast.parse(f"def {line[:line.rindex(') ->') + 1]}: pass").body[0])


FUNCTIONS = [f for f in stub_functions() if f[0] not in SPELLED_OUT]


@pytest.mark.parametrize("name,cls,node", FUNCTIONS, ids=[f[0] for f in FUNCTIONS])
def test_the_stub_takes_the_parameters_the_module_takes(name, cls, node):
    owner = getattr(zr, cls) if cls else zr
    assert parameters(node) == module_parameters(getattr(owner, node.name))
