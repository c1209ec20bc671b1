"""What bodies say: Protocol Buffers, a function of one's own, text."""

from __future__ import annotations

import importlib
import importlib.util
import inspect
import os
import sys
import traceback
from fnmatch import fnmatchcase
from functools import lru_cache
from typing import Any, Callable, List, NamedTuple, Optional, Set, Tuple, cast

from .calls import SIZE
from .events import MESSAGE, Event
from .expressions import MISSING, Lookup, part_of
from .exits import USAGE, Failure
from .fields import show
from .rules import Rules
from .text import complain

Decode = Callable[[str, bytes], Any]
_TYPES = 4096  # of which it is remembered how they are decoded
_HEX = 32  # bytes of a body that its decoder does not understand


class Sources(NamedTuple):
    """Where decoders come from, as the options tell."""

    protos: List[str]  # files
    functions: List[str]  # MODULE:FUNCTION
    texts: List[str]  # types, with wildcards


class Decoders:
    """Decodes the bodies of messages.

    A decoder is given the type and the body as a peer has it: without its length, if it is a length and
    what that counts. A .proto file that declares the type goes first, then texts, then functions, of which
    each may return None for what it does not know.
    """

    def __init__(self, rules: Rules, sources: Sources = Sources([], [], [])) -> None:
        """Raises Failure when a decoder cannot be had."""
        self._rules = rules
        self._decoder_of = lru_cache(_TYPES)(self._find_decoder)
        self._functions = [_load_function(name) for name in sources.functions]
        self._texts = sources.texts
        self.protos = None
        if sources.protos:
            from .protofile import ProtoFiles

            self.protos = ProtoFiles(sources.protos)
        self._said: Set[str] = set()
        self._last: Tuple[Optional[Event], Any] = (None, None)

    @staticmethod
    def none() -> Decoders:
        """Decodes nothing."""
        return Decoders(Rules())

    def __bool__(self) -> bool:
        return bool(self._functions or self._texts or self.protos)

    def decode(self, event: Event) -> Any:
        """What a message says, or None when that is not known. Never raises."""
        last, value = self._last
        if event is not last:
            value = self._decode(event) if event.kind == MESSAGE else None
            self._last = (event, value)
        return value

    def show(self, event: Event) -> str:
        """What a message says, in one line; its bytes when its decoder does not understand them; nothing
        when there is none."""
        value = self.decode(event)
        if value is not None:
            return show(value)
        if event.kind != MESSAGE or self._decoder_of(event.type) is None or not event.body:
            return ""
        return event.body[:_HEX].hex() + ("..." if event.length > _HEX else "")

    def names(self, event: Event) -> Lookup:
        """The names that an expression about a message may use: its fields, and what every message has;
        `body` is all that its decoder gives."""

        def lookup(name: str) -> Any:
            value = self.decode(event)
            field = part_of(value, name)
            if field is not MISSING:
                return field
            if name == "body":
                return MISSING if value is None else value
            known = ("type", "length", "time", "connection", "direction")
            return getattr(event, name) if name in known else MISSING

        return lookup

    def proto_of(self, type: str) -> str:
        """The name of the Protocol Buffers message that decodes this type, if one does."""
        name = self._rules.of(type).protobuf or type
        return name if self.protos is not None and self.protos.decoder(name) else ""

    def describe(self, proto: str) -> bytes:
        """The declaration of a Protocol Buffers message and of all that it needs."""
        return self.protos.describe(proto) if self.protos is not None else b""

    def content(self, event: Event) -> bytes:
        """The body without its length, if it is a length and what that counts, and without the number of
        a question or an answer."""
        rule = self._rules.of(event.type)
        fits = len(event.body) >= rule.prefix and rule.size(event.body) == len(event.body)
        content = rule.unwrap(event.body) if fits else event.body
        return content[SIZE:] if rule.call and fits else content

    def _decode(self, event: Event) -> Any:
        decoder = self._decoder_of(event.type)
        if decoder is None:
            return None
        try:
            return decoder(event.type, self.content(event))
        except Exception as error:  # somebody else's code, about anybody's bytes
            if event.type not in self._said and len(self._said) < _TYPES:
                self._said.add(event.type)
                complain(f"cannot decode {event.type} with {event.length} bytes, shown in "
                         f"hexadecimal: {_where(error)}")  # fmt: skip
            return None

    def _find_decoder(self, type: str) -> Optional[Decode]:
        name = self.proto_of(type)
        if self.protos is not None and name:
            return self.protos.decoder(name)
        if any(fnmatchcase(type, text) for text in self._texts):
            return _decode_text
        return self._decode_by_function if self._functions else None

    def _decode_by_function(self, type: str, content: bytes) -> Any:
        values = (function(type, content) for function in self._functions)
        return next((value for value in values if value is not None), None)


def _decode_text(type: str, content: bytes) -> str:
    return content.decode("utf-8")


def _where(error: Exception) -> str:
    """The kind of an error and the line of the code that raised it."""
    if isinstance(error, SyntaxError):
        return f"{os.path.basename(error.filename or '')}, line {error.lineno}, is no Python"
    frame = traceback.extract_tb(error.__traceback__)[-1]
    return f"{type(error).__name__} in {os.path.basename(frame.filename)}, line {frame.lineno}"


def _load_function(name: str) -> Decode:
    module_name, colon, function_name = name.rpartition(":")
    if not colon or not module_name or not function_name:
        raise Failure(USAGE, f"not of the form MODULE:FUNCTION: {name}")
    function: Any = getattr(_load_module(module_name), function_name, None)
    if not callable(function):
        raise Failure(USAGE, f"{module_name} has no function {function_name}")
    if _takes_type(function):
        return cast(Decode, function)
    return lambda type, content: function(content)


def _takes_type(function: Callable[..., Any]) -> bool:
    """Whether it wants the type and the bytes, and not the bytes alone."""
    try:
        parameters = inspect.signature(function).parameters.values()
    except (TypeError, ValueError):  # such as of a class written in C
        return False
    places = (inspect.Parameter.POSITIONAL_ONLY, inspect.Parameter.POSITIONAL_OR_KEYWORD)
    return sum(p.kind in places and p.default is p.empty for p in parameters) == 2


def _load_module(name: str) -> Any:
    """A module by its name, also one in the current folder, or by its file."""
    try:
        if not name.endswith(".py"):
            sys.path.insert(0, "")
            try:
                return importlib.import_module(name)
            finally:
                sys.path.remove("")
        found = importlib.util.spec_from_file_location("klvmsg_decoder", name)
        assert found is not None and found.loader is not None
        module = importlib.util.module_from_spec(found)
        written, sys.dont_write_bytecode = sys.dont_write_bytecode, True  # nothing beside that file
        try:
            found.loader.exec_module(module)
        finally:
            sys.dont_write_bytecode = written
        return module
    except OSError as error:
        raise Failure(USAGE, f"cannot read {name}: {error.strerror}") from error
    except ImportError as error:
        missing = error.name or name
        raise Failure(USAGE, f"no Python module {missing}, which the decoder {name} needs") from error
    except Exception as error:
        raise Failure(USAGE, f"the decoder {name} cannot be loaded: {_where(error)}") from error
