"""Reports events without making the program wait."""

from __future__ import annotations

import ctypes
import threading
import weakref
from collections.abc import Mapping
from dataclasses import dataclass
from enum import IntEnum
from types import TracebackType
from typing import Any, Callable

from . import _library as c
from ._errors import error_of
from ._session import Flag, SessionInfo, UserInfo, event, session_handle, user_handle
from ._values import Value, dictionary


class ReporterState(IntEnum):
    CONNECTING = 0  #: A connection is being made, or its session set up. Events wait.
    CONNECTED = 1  #: Events go to the daemon.
    DISCONNECTED = 2  #: No daemon answers; it is tried again after a while. Events wait.


@dataclass(frozen=True)
class ReporterStatus:
    state: ReporterState
    #: When connected: the backends that report; None when there are none for want of a storebag.
    backends: list[str] | None = None
    error: Exception | None = None  #: When disconnected: why.


@dataclass(frozen=True)
class ReporterStatistics:
    """What became of the events: reported is the sum of all others but sessions, always."""

    reported: int
    waiting: int  #: In the queue, or on their way and unanswered.
    taken: int  #: The daemon has answered that it took them.
    dropped_full: int  #: The queue was full, or there was no memory.
    dropped_unsendable: int  #: Nested too deeply.
    dropped_too_large: int  #: Larger than the queue, or than 32 MiB.
    dropped_refused: int  #: The daemon has answered that it did not take them.
    dropped_lost: int  #: On their way when the connection was lost; the daemon may have taken them.
    dropped_at_end: int  #: Still waiting when the reporter was closed, or reported after.
    sessions: int  #: How often a session was set up. No count of events.


class Reporter:
    """Takes care of the connection: makes it, which may be before there is a daemon, makes it anew when it is lost, and
    sets the session up again. Events keep their order. Close it, or use it in a with statement, so that what waits is
    sent.

    state_changed is told of every change of state, on the reporter's thread, which does nothing else meanwhile. It may
    call everything but flush() and close().
    """

    def __init__(
        self,
        session_info: SessionInfo,
        user_info: UserInfo | None = None,
        *,
        socket_path: str | None = None,
        queue_events: int = 10_000,
        queue_bytes: int = 8 << 20,
        first_retry: float = 0.1,
        longest_retry: float = 30,
        close_timeout: float | None = None,
        state_changed: Callable[[ReporterStatus], None] | None = None,
    ) -> None:
        self._callback = _state_callback(state_changed)
        options = c.reporter_options_new()
        try:
            with session_handle(session_info) as session:
                c.check(c.reporter_options_set_session_info(options, session))
            with user_handle(user_info) as user:
                c.check(c.reporter_options_set_user_info(options, user))
            if socket_path is not None:
                c.check(c.reporter_options_set_socket_path(options, c.encoded(socket_path)))
            c.reporter_options_set_queue(options, queue_events, queue_bytes)
            c.reporter_options_set_retry(options, c.milliseconds(first_retry), c.milliseconds(longest_retry))
            c.reporter_options_set_close_timeout(options, c.milliseconds(close_timeout))
            c.reporter_options_set_state_callback(options, self._callback, None)
            handle = ctypes.c_void_p()
            c.telling(c.reporter_start, options, ctypes.byref(handle))
        finally:
            c.reporter_options_free(options)
        self._handle = handle
        # Also at the interpreter's end, while callbacks can still run. The callback lives as long as the handle.
        self._free = weakref.finalize(self, _free, handle, self._callback)

    def report(
        self, category: int, type: int, payload: Mapping[str, Value] | None = None, flags: int = Flag.NONE
    ) -> bool:
        """Queues the event and never waits. False when it was dropped; the statistics tell why."""
        category, type, flags = event(category, type, flags)
        with dictionary(payload) as handle:
            return bool(c.reporter_report(self._handle, category, type, handle, flags))

    def set_user_info(self, user_info: UserInfo | None) -> None:
        """From here on events are reported with this user info; those queued before keep the former. Never waits."""
        with user_handle(user_info) as handle:
            c.telling(c.reporter_set_user_info, self._handle, handle)

    def flush(self, timeout: float | None = None) -> None:
        """Sends what waits and makes the backends post what they hold back; up to 30 s unless told otherwise."""
        c.telling(c.reporter_flush, self._handle, c.milliseconds(timeout))

    @property
    def statistics(self) -> ReporterStatistics:
        counted = c.Statistics()
        c.check(c.reporter_statistics(self._handle, ctypes.byref(counted), ctypes.sizeof(counted)))
        return ReporterStatistics(**{name: getattr(counted, name) for name, _ in counted._fields_})

    def close(self, timeout: float | None = None) -> ReporterStatistics:
        """Sends what waits while a daemon answers and the time-out (5 s unless told otherwise) allows, and drops the
        rest. Events reported later are dropped. The final statistics."""
        c.check(c.reporter_close(self._handle, c.milliseconds(timeout)))
        return self.statistics

    def __enter__(self) -> Reporter:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()


_thread = threading.local()


def _free(handle: ctypes.c_void_p, _callback: Any) -> None:
    """Freeing waits for the reporter's thread, so it must not happen there; but that is where a callback is when it has
    the collector find the reporter."""
    if getattr(_thread, "runs_callback", False):
        threading.Thread(target=c.reporter_free, args=(handle,)).start()
    else:
        c.reporter_free(handle)


def _state_callback(state_changed: Callable[[ReporterStatus], None] | None) -> Any:
    if state_changed is None:
        return c.StateCallback(0)

    told = state_changed

    def tell(_context: Any, state: int, backends: Any, code: int, message: bytes | None) -> None:
        _thread.runs_callback = True
        names = c.names_at(backends) if backends else None
        error = error_of(code, message.decode(errors="replace") if message else None) if code else None
        told(ReporterStatus(ReporterState(state), names, error))

    return c.StateCallback(tell)
