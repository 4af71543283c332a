"""Values as the library's handles."""

from __future__ import annotations

import ctypes
from collections.abc import Iterator, Mapping, Sequence
from contextlib import contextmanager
from datetime import datetime, timedelta, timezone
from typing import Any, Callable, Union

from . import _library as c

Value = Union[str, bool, int, float, datetime, bytes, Sequence["Value"], Mapping[str, "Value"]]

_EPOCH = datetime(1970, 1, 1, tzinfo=timezone.utc)


@contextmanager
def dictionary(entries: Mapping[str, Value] | None) -> Iterator[int | None]:
    """A dictionary for the library, None for None."""
    if entries is None:
        yield None
        return
    handle = _made(c.dictionary_new())
    try:
        for key, value in entries.items():
            _put(value, c.dictionary_set, handle, c.encoded(key))
        yield handle
    finally:
        c.dictionary_free(handle)


@contextmanager
def array(elements: Sequence[Value]) -> Iterator[int]:
    handle = _made(c.array_new())
    try:
        for element in elements:
            _put(element, c.array_add, handle)
        yield handle
    finally:
        c.array_free(handle)


def dictionary_of(handle: int) -> dict[str, Value]:
    """What a dictionary of the library's holds."""
    entries: dict[str, Value] = {}
    key = ctypes.c_char_p()
    for index in range(c.dictionary_count(handle)):
        value = c.dictionary_at(handle, index, ctypes.byref(key))
        entries[_decoded(key.value)] = _read(value)
    return entries


def _decoded(text: bytes | None) -> str:
    return (text or b"").decode(errors="replace")


def _read(value: int) -> Value:
    held: Value = _READERS[c.value_kind(value)](value)
    return held


def _read_date(value: int) -> datetime:
    return _EPOCH + timedelta(microseconds=c.value_date(value))


def _read_data(value: int) -> bytes:
    size = ctypes.c_size_t()
    data = c.value_data(value, ctypes.byref(size))
    return ctypes.string_at(data, size.value) if data else b""


def _read_array(value: int) -> list[Value]:
    return [_read(c.value_at(value, index)) for index in range(c.value_count(value))]


def _read_dictionary(value: int) -> dict[str, Value]:
    return {_decoded(c.value_key_at(value, index)): _read(c.value_at(value, index))
            for index in range(c.value_count(value))}


# By kind, in the order of QuorvaneKind.
_READERS: list[Callable[[int], Value]] = [
    lambda value: _decoded(c.value_text(value)), c.value_boolean, c.value_signed, c.value_unsigned, c.value_real,
    _read_date, _read_data, _read_array, _read_dictionary]


def _made(handle: int | None) -> int:
    if not handle:
        raise MemoryError
    return handle


def _put(value: Value, functions: dict[str, Callable[..., int]], *to: Any) -> None:
    def put(kind: str, *content: Any) -> None:
        c.check(functions[kind](*to, *content))

    if isinstance(value, str):
        put("text", c.encoded(value))
    elif isinstance(value, bool):
        put("boolean", value)
    elif isinstance(value, int):
        _put_integer(value, put)
    elif isinstance(value, float):
        put("real", value)
    elif isinstance(value, datetime):
        put("date", (value.astimezone(timezone.utc) - _EPOCH) // timedelta(microseconds=1))
    elif isinstance(value, (bytes, bytearray, memoryview)):
        data = bytes(value)
        put("data", data, len(data))
    elif isinstance(value, Mapping):
        with dictionary(value) as nested:
            put("dictionary", nested)
    elif isinstance(value, Sequence):
        with array(value) as elements:
            put("array", elements)
    else:
        raise TypeError(f"a value cannot be a {type(value).__name__}")


def _put_integer(number: int, put: Callable[..., None]) -> None:
    if -(1 << 63) <= number < 1 << 63:
        put("signed", number)
    elif 0 <= number < 1 << 64:
        put("unsigned", number)
    else:
        raise OverflowError(f"{number} has more than 64 bits")
