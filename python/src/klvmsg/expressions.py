"""Expressions over the fields of a message: what --where, --column and check ask.

    cents > 100 and "bolt" in name
    items[0].count * 2 >= limit or not done
    len(text) < 80 and matches(station, "roof*")

They are comparisons, and, or, not, in, the arithmetic of numbers, fields and parts of fields, and the
few functions in `_FUNCTIONS`. Nothing else is understood, so that an expression reads what it is given and
does nothing. What a message does not have is MISSING: no comparison with it holds.
"""

from __future__ import annotations

import ast
import operator
from fnmatch import fnmatchcase
from typing import Any, Callable, Dict, List, Mapping, Sequence, Tuple, Type

from .fields import fields_of

Lookup = Callable[[str], Any]
_Compiled = Callable[[Lookup], Any]


class _Missing:
    def __bool__(self) -> bool:
        return False

    def __repr__(self) -> str:
        return "missing"


MISSING = _Missing()

_COMPARISONS: Dict[Type[ast.cmpop], Callable[[Any, Any], bool]] = {
    ast.Eq: operator.eq, ast.NotEq: operator.ne, ast.Lt: operator.lt, ast.LtE: operator.le,
    ast.Gt: operator.gt, ast.GtE: operator.ge,
    ast.In: lambda a, b: a in b, ast.NotIn: lambda a, b: a not in b,
}  # fmt: skip
_ARITHMETIC: Dict[Type[ast.operator], Callable[[Any, Any], Any]] = {
    ast.Add: operator.add, ast.Sub: operator.sub, ast.Mult: operator.mul,
    ast.Div: operator.truediv, ast.FloorDiv: operator.floordiv, ast.Mod: operator.mod,
}  # fmt: skip
_FUNCTIONS: Dict[str, Tuple[int, Callable[..., Any]]] = {  # with the number of arguments
    "abs": (1, abs),
    "len": (1, len),
    "lower": (1, lambda text: str(text).lower()),
    "matches": (2, lambda text, glob: fnmatchcase(str(text), glob)),
}


class Expression:
    """An expression, ready to be asked of many messages."""

    def __init__(self, text: str) -> None:
        """Raises ValueError, with words, when the text is no expression."""
        self.text = text
        try:
            tree = ast.parse(text.strip(), mode="eval")
            self._value = _compile(tree.body)
        except (SyntaxError, MemoryError, RecursionError) as error:
            raise ValueError(f"not an expression: {text!r}") from error

    def value(self, lookup: Lookup) -> Any:
        """Its value where `lookup` gives the value of a name, or MISSING. Raises TypeError when
        values do not go together, as a number that is compared with a text."""
        return self._value(lookup)


def _compile(node: ast.expr) -> _Compiled:
    if isinstance(node, ast.Constant) and isinstance(node.value, (str, bytes, int, float, type(None))):
        value = node.value
        return lambda lookup: value
    if isinstance(node, ast.Name):
        name = node.id
        return lambda lookup: lookup(name)
    if isinstance(node, (ast.List, ast.Tuple)):
        parts = [_compile(part) for part in node.elts]
        return lambda lookup: [part(lookup) for part in parts]
    if isinstance(node, ast.BoolOp):
        return _either_or_all(node)
    if isinstance(node, ast.UnaryOp):
        return _unary(node)
    if isinstance(node, ast.BinOp) and type(node.op) in _ARITHMETIC:
        return _arithmetic(_ARITHMETIC[type(node.op)], _compile(node.left), _compile(node.right))
    if isinstance(node, ast.Compare) and all(type(op) in _COMPARISONS for op in node.ops):
        return _comparison(node)
    if isinstance(node, ast.Attribute):
        return _part(_compile(node.value), _constant(node.attr))
    if isinstance(node, ast.Subscript) and isinstance(node.slice, ast.expr):
        return _part(_compile(node.value), _compile(node.slice))
    if isinstance(node, ast.Call) and isinstance(node.func, ast.Name) and not node.keywords:
        return _call(node.func.id, [_compile(argument) for argument in node.args])
    raise ValueError(f"not understood in an expression: {ast.unparse(node)!r}")


def _constant(value: Any) -> _Compiled:
    return lambda lookup: value


def _either_or_all(node: ast.BoolOp) -> _Compiled:
    parts = [_compile(part) for part in node.values]
    if isinstance(node.op, ast.And):
        return lambda lookup: all(part(lookup) for part in parts)
    return lambda lookup: any(part(lookup) for part in parts)


def _unary(node: ast.UnaryOp) -> _Compiled:
    operand = _compile(node.operand)
    if isinstance(node.op, ast.Not):
        return lambda lookup: not operand(lookup)
    if isinstance(node.op, ast.USub):
        return _arithmetic(operator.sub, _constant(0), operand)
    raise ValueError(f"not understood in an expression: {ast.unparse(node)!r}")


def _arithmetic(
    operation: Callable[[Any, Any], Any], left: _Compiled, right: _Compiled
) -> _Compiled:
    def value(lookup: Lookup) -> Any:
        a, b = left(lookup), right(lookup)
        if not isinstance(a, (int, float)) or not isinstance(b, (int, float)):
            return MISSING  # of texts a product may take all the memory
        try:
            return operation(a, b)
        except ArithmeticError:
            return MISSING

    return value


def _comparison(node: ast.Compare) -> _Compiled:
    first = _compile(node.left)
    rest = [(_COMPARISONS[type(op)], _compile(operand))
            for op, operand in zip(node.ops, node.comparators)]  # fmt: skip

    def value(lookup: Lookup) -> bool:
        left = first(lookup)
        for compare, operand in rest:
            right = operand(lookup)
            if left is MISSING or right is MISSING or not compare(left, right):
                return False
            left = right
        return True

    return value


def _part(whole: _Compiled, key: _Compiled) -> _Compiled:
    def value(lookup: Lookup) -> Any:
        return part_of(whole(lookup), key(lookup))

    return value


def part_of(whole: Any, key: Any) -> Any:
    """A field, or an element of a list or a map, or MISSING."""
    if isinstance(key, int) and isinstance(whole, Sequence):
        return whole[key] if -len(whole) <= key < len(whole) else MISSING
    if isinstance(whole, Mapping) and not isinstance(key, list):
        return whole.get(key, MISSING)
    return fields_of(whole).get(key, MISSING) if isinstance(key, str) else MISSING


def _call(name: str, arguments: List[_Compiled]) -> _Compiled:
    if name not in _FUNCTIONS:
        raise ValueError(f"no function in an expression: {name!r}; there are {', '.join(_FUNCTIONS)}")
    wanted, function = _FUNCTIONS[name]
    if len(arguments) != wanted:
        raise ValueError(f"{name} takes {wanted} argument{'s' * (wanted > 1)}")

    def value(lookup: Lookup) -> Any:
        values = [argument(lookup) for argument in arguments]
        return MISSING if MISSING in values else function(*values)

    return value
