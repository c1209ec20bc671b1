"""Message classes from .proto files, by protoc and the protobuf package."""

from __future__ import annotations

import os
import subprocess
import tempfile
from functools import lru_cache
from typing import Any, Callable, Dict, List, Optional

from .exits import FILE, USAGE, Failure, missing

try:
    from google.protobuf import descriptor_pb2, descriptor_pool, message_factory
except ImportError as error:
    raise missing("--proto", "protobuf", error) from error

_CLASSES = 4096  # of messages, or names of none, that are remembered


class ProtoFiles:
    """The messages that .proto files, and those that they import, declare."""

    def __init__(self, paths: List[str]) -> None:
        """Raises Failure when a file is not there or not understood, or protoc is missing."""
        self._files: Dict[str, Any] = {}  # by name: what protoc has made of it
        for path in paths:
            for file in _compile(path).file:
                self._files.setdefault(file.name, file)
        self._pool = descriptor_pool.DescriptorPool()
        for file in self._files.values():  # protoc names a file behind those that it imports
            self._pool.Add(file)

    @lru_cache(_CLASSES)
    def decoder(self, name: str) -> Optional[Callable[[str, bytes], Dict[str, Any]]]:
        """What decodes the message of this full name, or None if no file declares it."""
        try:
            descriptor = self._pool.FindMessageTypeByName(name)
        except (KeyError, ValueError):
            return None
        if hasattr(message_factory, "GetMessageClass"):
            message_class = message_factory.GetMessageClass(descriptor)
        else:  # before 4.22
            message_class = message_factory.MessageFactory(self._pool).GetPrototype(descriptor)
        return lambda type, content: _fields(message_class.FromString(content))

    def describe(self, name: str) -> bytes:
        """The declaration of a message and all that it needs, as a FileDescriptorSet."""
        wanted: Dict[str, Any] = {}

        def want(file_name: str) -> None:
            for imported in self._files[file_name].dependency:
                want(imported)
            wanted.setdefault(file_name, self._files[file_name])

        want(self._pool.FindMessageTypeByName(name).file.name)
        data: bytes = descriptor_pb2.FileDescriptorSet(file=wanted.values()).SerializeToString()
        return data


def _compile(path: str) -> Any:
    if not os.access(path, os.R_OK):
        raise Failure(FILE, f"cannot read {path}")
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "descriptors")
        directory, name = os.path.split(os.path.abspath(path))
        try:
            done = subprocess.run(
                ["protoc", f"--descriptor_set_out={out}", "--include_imports", f"-I{directory}", name],
                stderr=subprocess.PIPE, cwd=directory, check=False,
            )  # fmt: skip
        except FileNotFoundError as error:
            raise Failure(USAGE, "--proto needs protoc (apt-get install protobuf-compiler)") from error
        if done.returncode != 0:
            words = done.stderr.decode("utf-8", "replace").splitlines()
            why = next((line for line in words if line.startswith(name)), "protoc fails")
            raise Failure(FILE, f"cannot understand {path}: {why}")
        with open(out, "rb") as file:
            return descriptor_pb2.FileDescriptorSet.FromString(file.read())


def _fields(message: Any) -> Dict[str, Any]:
    """Its fields by name, also those that have their default, but not messages and choices that are
    not there."""
    fields = {}
    for field in message.DESCRIPTOR.fields:
        value = getattr(message, field.name)
        if field.label == field.LABEL_REPEATED:
            fields[field.name] = _elements(field, value)
        elif not field.has_presence or message.HasField(field.name):
            fields[field.name] = _value(field, value)
    return fields


def _elements(field: Any, value: Any) -> Any:
    if field.message_type is not None and field.message_type.GetOptions().map_entry:
        part = field.message_type.fields_by_name["value"]
        return {key: _value(part, value[key]) for key in value}
    return [_value(field, element) for element in value]


def _value(field: Any, value: Any) -> Any:
    if field.message_type is not None:
        return _fields(value)
    if field.enum_type is not None:
        known = field.enum_type.values_by_number.get(value)
        return known.name if known else value
    return value
