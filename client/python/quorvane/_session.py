"""Who reports."""

from __future__ import annotations

from collections.abc import Iterator, Mapping, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from enum import IntFlag

from . import _library as c
from ._values import Value, dictionary


class Flag(IntFlag):
    """Of an event."""

    NONE = 0
    SEND_NOW = 1  #: Unbatched, to the real-time URL.
    PROMOTE = 2  #: A sampled-out session reports from here on.


@dataclass(frozen=True)
class SessionInfo:
    """Says who reports. The daemon chooses the session's backends by the client type (5 to 11 have some)."""

    session_id: int | None = None
    client_type: int | None = None
    client_version: int = 0
    batch_event: bool = False  #: Events are collected and posted together.
    require_user_info: bool = False  #: Events are held until user info comes.
    frameworks: Sequence[str] = ()  #: Whose versions the daemon is to look up.


@dataclass(frozen=True)
class UserInfo:
    """Sessions of the same client name and service name (letter case aside) belong together."""

    client_name: str | None = None
    service_name: str | None = None
    further_keys: Mapping[str, Value] = field(default_factory=dict)  #: Handed to the backends.


@contextmanager
def session_handle(info: SessionInfo) -> Iterator[int]:
    handle = c.session_info_new()
    try:
        if info.session_id is not None:
            c.session_info_set_session_id(handle, _number(info.session_id))
        if info.client_type is not None:
            c.session_info_set_client_type(handle, _number(info.client_type))
        c.session_info_set_client_version(handle, _number(info.client_version))
        c.session_info_set_batch_event(handle, info.batch_event)
        c.session_info_set_require_user_info(handle, info.require_user_info)
        for name in info.frameworks:
            c.check(c.session_info_add_framework(handle, c.encoded(name)))
        yield handle
    finally:
        c.session_info_free(handle)


@contextmanager
def user_handle(info: UserInfo | None) -> Iterator[int | None]:
    if info is None:
        yield None
        return
    handle = c.user_info_new()
    try:
        if info.client_name is not None:
            c.check(c.user_info_set_client_name(handle, c.encoded(info.client_name)))
        if info.service_name is not None:
            c.check(c.user_info_set_service_name(handle, c.encoded(info.service_name)))
        with dictionary(info.further_keys) as keys:
            c.check(c.user_info_set_further_keys(handle, keys))
        yield handle
    finally:
        c.user_info_free(handle)


def _number(number: int) -> int:
    """ctypes cuts numbers without a word."""
    if not 0 <= number < 1 << 32:
        raise OverflowError(f"{number} is not a number of 32 bits")
    return number


def event(category: int, type: int, flags: int) -> tuple[int, int, int]:
    if not 0 <= category < 1 << 16 or not 0 <= type < 1 << 16:
        raise OverflowError("category and type are numbers of 16 bits")
    return category, type, _number(flags)
