"""Values as the library's handles."""

from __future__ import annotations

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
