"""The C interface, quorvane/quorvane.h, by ctypes."""

from __future__ import annotations

import ctypes
import math
import os
from ctypes import POINTER, c_bool, c_char_p, c_double, c_int, c_int64, c_size_t, c_uint16, c_uint32, c_uint64, c_void_p
from pathlib import Path
from typing import Any, Callable

from ._errors import error_of

_NAME = "libquorvane.so.7"


def _load() -> ctypes.CDLL:
    """What QUORVANE_LIBRARY names; or the library that was installed with this package; or the system's."""
    named = os.environ.get("QUORVANE_LIBRARY")
    if named:
        return ctypes.CDLL(named)
    folders = Path(__file__).resolve().parents
    prefix = folders[4] if len(folders) > 4 else folders[-1]
    beside = [path for place in ("lib", "lib64", "lib/*") for path in prefix.glob(f"{place}/{_NAME}")]
    return ctypes.CDLL(str(beside[0]) if beside else _NAME)


_library = _load()

StateCallback = ctypes.CFUNCTYPE(None, c_void_p, c_int, POINTER(c_char_p), c_int, c_char_p)
DisconnectedCallback = ctypes.CFUNCTYPE(None, c_void_p, c_int, c_char_p)
AnswerCallback = ctypes.CFUNCTYPE(None, c_void_p, c_int, c_char_p, c_char_p)
EventCallback = ctypes.CFUNCTYPE(None, c_void_p, c_double, c_uint16, c_uint16, c_void_p)
EndedCallback = ctypes.CFUNCTYPE(None, c_void_p)
ProgressCallback = ctypes.CFUNCTYPE(None, c_void_p, c_int, c_uint64)


class Statistics(ctypes.Structure):
    """QuorvaneReporterStatistics."""

    _fields_ = [(name, c_uint64) for name in (
        "reported", "waiting", "taken", "dropped_full", "dropped_unsendable", "dropped_too_large", "dropped_refused",
        "dropped_lost", "dropped_at_end", "sessions")]


# What is handed out is a c_void_p, not a c_char_p, which would become bytes whose memory nobody could give back.
_OUT = POINTER(c_void_p)
_EVENT = (c_uint16, c_uint16, c_void_p, c_uint32)


def _function(name: str, result: Any, *arguments: Any) -> Callable[..., Any]:
    function = getattr(_library, "quorvane_" + name)
    function.restype = result
    function.argtypes = [c_void_p if argument is object else argument for argument in arguments]
    return function  # type: ignore[no-any-return]


def _class(name: str) -> tuple[Callable[[], int], Callable[[int], None]]:
    return _function(name + "_new", c_void_p), _function(name + "_free", None, object)


_version = _function("version", c_char_p)
_text_free = _function("text_free", None, c_void_p)
_names_free = _function("names_free", None, c_void_p)

dictionary_new, dictionary_free = _class("dictionary")
array_new, array_free = _class("array")
dictionary_set: dict[str, Callable[..., int]] = {}
array_add: dict[str, Callable[..., int]] = {}
for _kind, _types in {
    "text": (c_char_p,), "boolean": (c_bool,), "signed": (c_int64,), "unsigned": (c_uint64,), "real": (c_double,),
    "date": (c_int64,), "data": (c_char_p, c_size_t), "array": (c_void_p,), "dictionary": (c_void_p,),
}.items():
    dictionary_set[_kind] = _function("dictionary_set_" + _kind, c_int, object, c_char_p, *_types)
    array_add[_kind] = _function("array_add_" + _kind, c_int, object, *_types)

dictionary_count = _function("dictionary_count", c_size_t, object)
dictionary_at = _function("dictionary_at", c_void_p, object, c_size_t, POINTER(c_char_p))
value_kind = _function("value_kind", c_int, object)
value_text = _function("value_text", c_char_p, object)
value_boolean = _function("value_boolean", c_bool, object)
value_signed = _function("value_signed", c_int64, object)
value_unsigned = _function("value_unsigned", c_uint64, object)
value_real = _function("value_real", c_double, object)
value_date = _function("value_date", c_int64, object)
value_data = _function("value_data", c_void_p, object, POINTER(c_size_t))
value_count = _function("value_count", c_size_t, object)
value_at = _function("value_at", c_void_p, object, c_size_t)
value_key_at = _function("value_key_at", c_char_p, object, c_size_t)

session_info_new, session_info_free = _class("session_info")
session_info_set_session_id = _function("session_info_set_session_id", None, object, c_uint32)
session_info_set_client_type = _function("session_info_set_client_type", None, object, c_uint32)
session_info_set_client_version = _function("session_info_set_client_version", None, object, c_uint32)
session_info_set_batch_event = _function("session_info_set_batch_event", None, object, c_bool)
session_info_set_require_user_info = _function("session_info_set_require_user_info", None, object, c_bool)
session_info_add_framework = _function("session_info_add_framework", c_int, object, c_char_p)

user_info_new, user_info_free = _class("user_info")
user_info_set_client_name = _function("user_info_set_client_name", c_int, object, c_char_p)
user_info_set_service_name = _function("user_info_set_service_name", c_int, object, c_char_p)
user_info_set_further_keys = _function("user_info_set_further_keys", c_int, object, c_void_p)

reporter_options_new, reporter_options_free = _class("reporter_options")
reporter_options_set_session_info = _function("reporter_options_set_session_info", c_int, object, c_void_p)
reporter_options_set_user_info = _function("reporter_options_set_user_info", c_int, object, c_void_p)
reporter_options_set_socket_path = _function("reporter_options_set_socket_path", c_int, object, c_char_p)
reporter_options_set_queue = _function("reporter_options_set_queue", None, object, c_size_t, c_size_t)
reporter_options_set_retry = _function("reporter_options_set_retry", None, object, c_uint32, c_uint32)
reporter_options_set_close_timeout = _function("reporter_options_set_close_timeout", None, object, c_int64)
reporter_options_set_state_callback = _function(
    "reporter_options_set_state_callback", None, object, StateCallback, c_void_p)
reporter_start = _function("reporter_start", c_int, object, _OUT, _OUT)
reporter_free = _function("reporter_free", None, object)
reporter_report = _function("reporter_report", c_bool, object, *_EVENT)
reporter_set_user_info = _function("reporter_set_user_info", c_int, object, c_void_p, _OUT)
reporter_flush = _function("reporter_flush", c_int, object, c_int64, _OUT)
reporter_close = _function("reporter_close", c_int, object, c_int64)
reporter_statistics = _function("reporter_statistics", c_int, object, POINTER(Statistics), c_size_t)

client_options_new, client_options_free = _class("client_options")
client_options_set_socket_path = _function("client_options_set_socket_path", c_int, object, c_char_p)
client_options_set_timeout = _function("client_options_set_timeout", None, object, c_int64)
client_options_set_close_timeout = _function("client_options_set_close_timeout", None, object, c_int64)
client_options_set_disconnected_callback = _function(
    "client_options_set_disconnected_callback", None, object, DisconnectedCallback, c_void_p)
client_connect = _function("client_connect", c_int, object, _OUT, _OUT)
client_free = _function("client_free", None, object)
client_set_session_info = _function("client_set_session_info", c_int, object, c_void_p, c_void_p, c_int64, _OUT)
client_set_aggregating_session_info = _function(
    "client_set_aggregating_session_info", c_int, object, c_void_p, c_void_p, EventCallback, EndedCallback, c_void_p,
    c_int64, _OUT)
client_dropped_events = _function("client_dropped_events", c_uint64, object)
client_start = _function("client_start", c_int, object, c_int64, _OUT, _OUT)
client_fetch_states = _function("client_fetch_states", c_int, object, c_void_p, c_int64, _OUT, _OUT)
client_display_url = _function("client_display_url", c_int, object, c_int64, _OUT, _OUT)
client_send = _function("client_send", c_int, object, *_EVENT, c_int64, _OUT, _OUT)
client_send_async = _function("client_send_async", c_int, object, *_EVENT, c_int64, AnswerCallback, c_void_p, _OUT)
client_send_and_forget = _function("client_send_and_forget", c_int, object, *_EVENT, _OUT)
client_try_send = _function("client_try_send", c_int, object, *_EVENT, _OUT)
client_flush = _function("client_flush", c_int, object, c_int64, _OUT, _OUT)
client_send_single = _function(
    "client_send_single", c_int, object, c_void_p, c_void_p, c_uint16, c_uint16, c_void_p, c_int64, _OUT, _OUT)
client_upload_file = _function(
    "client_upload_file", c_int, object, c_char_p, ProgressCallback, c_void_p, c_int64, POINTER(c_bool), _OUT)
client_upload_log_data = _function("client_upload_log_data", c_int, object, c_void_p, c_int64, POINTER(c_bool), _OUT)


def version() -> str:
    """The library's version."""
    return str(_version().decode())


def encoded(text: str) -> bytes:
    """As C takes it."""
    if "\0" in text:
        raise ValueError("a text holds a NUL")
    return text.encode()


def milliseconds(timeout: float | None) -> int:
    if timeout is None:
        return -1
    if timeout == math.inf:
        return -2
    if not timeout >= 0:
        raise ValueError("a time-out is not below 0")
    return math.ceil(timeout * 1000)


def check(code: int) -> None:
    if code != 0:
        raise error_of(code, None)


def telling(function: Callable[..., int], *arguments: Any) -> None:
    """Calls a function that tells its error in words."""
    message = c_void_p()
    code = function(*arguments, ctypes.byref(message))
    text = take_text(message)
    if code != 0:
        raise error_of(code, text)


def take_text(text: c_void_p) -> str | None:
    """What was handed out, or None."""
    if not text.value:
        return None
    try:
        return ctypes.string_at(text.value).decode(errors="replace")
    finally:
        _text_free(text)


def names_at(names: Any) -> list[str]:
    """The names of an array that ends with NULL."""
    found: list[str] = []
    while names[len(found)] is not None:
        found.append(names[len(found)].decode(errors="replace"))
    return found


def take_names(names: c_void_p) -> list[str] | None:
    if not names.value:
        return None
    try:
        return names_at(ctypes.cast(names, POINTER(c_char_p)))
    finally:
        _names_free(names)
