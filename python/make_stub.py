#!/usr/bin/python3
"""Writes kelm/_kelm.pyi from the built module's signatures and docstrings.

    PYTHONPATH=build/python python3 python/make_stub.py > python/kelm/_kelm.pyi

Run it after changing the bindings; the stub is kept in the source tree so
that editors complete names and types without building.
"""
import enum
import inspect
import re
import sys

sys.path = [entry for entry in sys.path if entry not in ("", sys.path[0])]  # not the source tree's kelm
import kelm._kelm as module  # noqa: E402

HEADER = '''"""Type stub of kelm._kelm, written by python/make_stub.py from the built module."""
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple, Union, overload

import numpy

JointVector = Union[Sequence[float], numpy.ndarray]
Pose = Union[Sequence[float], numpy.ndarray]  # x, y, z [m], qx, qy, qz, qw
Points = Union[Sequence[JointVector], numpy.ndarray]

'''

REPLACEMENTS = [
    (r"kelm\._kelm\.", ""),
    (r"numpy\.ndarray\[numpy\.(float64|uint64)\]", "numpy.ndarray"),
    (r"List\[List\[float\[7\]\]\]", "Sequence[Pose]"),
    (r"List\[List\[float\]\[3\]\]", "Sequence[JointVector]"),
    (r"List\[float\[7\]\]", "Pose"),
    (r"List\[float\[3\]\]", "Sequence[float]"),
    (r"List\[List\[float\]\]", "Points"),
    (r"List\[float\]", "JointVector"),
    (r"\bfunction\b", "Callable[..., Any]"),
    (r"-> object", "-> Any"),
    (r": \*args", ": Any"),
]


# What the (result, output) tuples hold, by member name; the first match wins.
TUPLE_RETURNS = [
    (r"forward_?[kK]ine", "Tuple[int, numpy.ndarray]"),
    (r"inverse_kine(_left|_right)?$", "Tuple[int, numpy.ndarray]"),
    (r"inverse_?[kK]ine", "Tuple[int, Union[numpy.ndarray, List[numpy.ndarray]]]"),
    (r"check_teach", "Tuple[int, List[str]]"),
    (r"cmd_publish", "Tuple[bool, str]"),
    (r"cmd_server", "Tuple[Optional[Dict[str, Any]], str]"),
    (r"parseIOInfo", "Tuple[int, List[Dict[str, Any]]]"),
    (r"move_", "Tuple[int, str]"),
]


def tuple_return(name):
    for pattern, hint in TUPLE_RETURNS:
        if re.match(pattern, name):
            return hint
    raise SystemExit(f"make_stub.py: no tuple type known for {name}; add it to TUPLE_RETURNS")


def clean(signature):
    for pattern, replacement in REPLACEMENTS:
        signature = re.sub(pattern, replacement, signature)
    return signature


def docstring(text, indent):
    text = (text or "").strip()
    if not text:
        return ""
    text = text.replace('"""', "'''")
    pad = " " * indent
    lines = text.splitlines()
    return pad + '"""' + ("\n" + pad).join(lines) + '"""\n'


def signatures(name, doc):
    """(signature, docstring) pairs of a pybind11 function's docstring."""
    doc = doc or ""
    if "Overloaded function." in doc:
        parts = re.split(r"\n\d+\. (?=" + re.escape(name) + r"\()", doc)[1:]
    else:
        parts = [doc]
    out = []
    for part in parts:
        first, _, rest = part.strip().partition("\n")
        out.append((first.strip(), rest.strip()))
    return out


def emit_function(name, obj, indent, lines):
    pairs = signatures(name, obj.__doc__)
    pad = " " * indent
    for signature, doc in pairs:
        if len(pairs) > 1:
            lines.append(pad + "@overload\n")
        signature = clean(signature)
        if signature.endswith("-> tuple"):
            signature = signature[: -len("tuple")] + tuple_return(name)
        if not signature.startswith(name + "("):
            signature = name + "(*args: Any, **kwargs: Any) -> Any"
        signature = re.sub(r"= <[^>]*>", "= ...", signature)
        signature = re.sub(r"= (\d+\.\d+|-?\d+|True|False|'[^']*')", r"= \1", signature)
        lines.append(f"{pad}def {signature}:\n")
        lines.append(docstring(doc, indent + 4) or pad + "    ...\n")
        if docstring(doc, indent + 4):
            lines.append(pad + "    ...\n")


def emit_enum(name, cls, lines):
    lines.append(f"class {name}(int):\n")
    lines.append(docstring(cls.__doc__.split("\n\nMembers:")[0], 4))
    for member in cls.__members__:
        lines.append(f"    {member}: {name}\n")
    lines.append("    def __init__(self, value: int) -> None: ...\n")
    lines.append("    @property\n    def name(self) -> str: ...\n    @property\n    def value(self) -> int: ...\n\n")


def emit_class(name, cls, lines):
    lines.append(f"class {name}:\n")
    lines.append(docstring(cls.__doc__, 4))
    for attr, value in cls.__dict__.items():
        if attr.startswith("__") and attr not in ("__init__", "__enter__", "__exit__", "__repr__"):
            continue
        if isinstance(value, property):
            fget = clean(signatures(attr, value.fget.__doc__)[0][0]) if value.fget else ""
            kind = fget.split("-> ")[-1] if "->" in fget else "Any"
            lines.append(f"    {attr}: {kind}\n")
        elif callable(value):
            emit_function(attr, value, 4, lines)
    lines.append("\n")


def main():
    lines = [HEADER]
    enums = {}
    for name, value in vars(module).items():
        if inspect.isclass(value) and hasattr(value, "__members__"):
            enums[name] = value
    for name, cls in enums.items():
        emit_enum(name, cls, lines)
    for name, value in vars(module).items():
        if name.startswith("_") or name in enums:
            continue
        if inspect.isclass(value):
            emit_class(name, value, lines)
    for name, value in vars(module).items():
        if name.startswith("_") or inspect.isclass(value):
            continue
        if callable(value):
            emit_function(name, value, 0, lines)
        elif isinstance(value, dict):
            key, item = next(iter(value.items()))
            lines.append(f"{name}: Dict[{type(key).__name__}, {type(item).__name__}]\n")
        elif type(value).__name__ in enums:
            lines.append(f"{name}: {type(value).__name__}\n")
    sys.stdout.write("".join(lines))


if __name__ == "__main__":
    main()
