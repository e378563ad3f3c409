"""The typing stubs declare every public name of zelpy and zelpy.series."""

import ast
import inspect
import pathlib

import pytest

import zelpy
from zelpy import series

HERE = pathlib.Path(zelpy.__file__).parent


def declared(body):
    names = set()
    for node in body:
        if isinstance(node, (ast.FunctionDef, ast.ClassDef)):
            names.add(node.name)
        elif isinstance(node, ast.AnnAssign):
            names.add(node.target.id)
        elif isinstance(node, ast.Assign):
            names.update(target.id for target in node.targets)
    return names


@pytest.mark.parametrize("module, stub", [(zelpy, "__init__.pyi"), (series, "series.pyi")])
def test_stub_declares_every_public_name(module, stub):
    tree = ast.parse((HERE / stub).read_text())
    classes = {node.name: declared(node.body) for node in tree.body if isinstance(node, ast.ClassDef)}
    public = {name: value for name, value in vars(module).items() if not name.startswith("_")
              and (inspect.isclass(value) or inspect.isroutine(value))
              and getattr(value, "__module__", None) in (module.__name__, "zelpyx.zelpy.zelpy")}
    missing = set(public) - declared(tree.body)
    for name, value in public.items():
        if inspect.isclass(value) and name in classes:
            missing |= {name + "." + attribute for attribute in vars(value)
                        if not attribute.startswith("_")} - {name + "." + a for a in classes[name]}
    assert not missing
    if module is zelpy:
        assert "__iter__" in classes["ZelDataSetReader"]
