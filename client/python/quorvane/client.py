"""One session with the daemon over a connection of its own."""

from __future__ import annotations

import ctypes
import os
import threading
import weakref
from collections.abc import Mapping, Sequence
from concurrent.futures import Future
from dataclasses import dataclass
from datetime import datetime, timezone
from enum import IntEnum
from types import TracebackType
from typing import Any, Callable

from . import _library as c
from ._errors import DisconnectedError, error_of
from ._session import Flag, SessionInfo, UserInfo, event, session_handle, user_handle
from ._values import Value, array, dictionary, dictionary_of


class UploadStep(IntEnum):
    OPENED = 0  #: The file is open.
    LENT = 1  #: The daemon holds the file and is about to send it.
    FINISHED = 2  #: The daemon has answered.


@dataclass(frozen=True)
class AggregatedEvent:
    """An event of an aggregating client's session or of one below it."""

    at: datetime
    category: int
    type: int
    payload: dict[str, Value] | None


class Client:
    """Connects, and waits until the daemon answers. When the daemon does not keep up, senders wait; nothing is dropped.
    A lost connection raises DisconnectedError from then on. Calls wait up to 30 s unless told otherwise.

    disconnected is told once when the connection is lost, on a thread of the library's; not when the client is closed.
    """

    def __init__(
        self,
        *,
        socket_path: str | None = None,
        timeout: float | None = None,
        close_timeout: float | None = None,
        disconnected: Callable[[Exception], None] | None = None,
    ) -> None:
        self._answers = _Answers()
        self._callback = _disconnected_callback(disconnected)
        options = c.client_options_new()
        try:
            if socket_path is not None:
                c.check(c.client_options_set_socket_path(options, c.encoded(socket_path)))
            c.client_options_set_timeout(options, c.milliseconds(timeout))
            c.client_options_set_close_timeout(options, c.milliseconds(close_timeout))
            c.client_options_set_disconnected_callback(options, self._callback, None)
            handle = ctypes.c_void_p()
            c.telling(c.client_connect, options, ctypes.byref(handle))
        finally:
            c.client_options_free(options)
        self._handle = handle
        self._free = weakref.finalize(self, _free, handle, self._answers, self._callback)

    def set_session_info(
        self, session_info: SessionInfo, user_info: UserInfo | None = None, timeout: float | None = None
    ) -> None:
        """Configures the session; comes before start()."""
        with session_handle(session_info) as session, user_handle(user_info) as user:
            c.telling(c.client_set_session_info, self._open(), session, user, c.milliseconds(timeout))

    def set_aggregating_session_info(
        self,
        session_info: SessionInfo,
        user_info: UserInfo,
        event: Callable[[AggregatedEvent], None],
        ended: Callable[[], None] | None = None,
        timeout: float | None = None,
    ) -> None:
        """The same for a client that aggregates: event gets the events of the sessions of its user info's names that
        are below its own, on a thread of the library's; ended is told when no more come."""

        def take(_context: Any, timestamp: float, category: int, type: int, payload: int | None) -> None:
            values = dictionary_of(payload) if payload else None
            event(AggregatedEvent(datetime.fromtimestamp(timestamp, timezone.utc), category, type, values))

        def end(_context: Any) -> None:
            if ended is not None:
                ended()

        callbacks = c.EventCallback(take), c.EndedCallback(end)
        self._answers.keep(callbacks)
        with session_handle(session_info) as session, user_handle(user_info) as user:
            c.telling(c.client_set_aggregating_session_info, self._open(), session, user, *callbacks, None,
                      c.milliseconds(timeout))

    @property
    def dropped_events(self) -> int:
        """Aggregated events that were dropped, since the callback did not keep up."""
        return int(c.client_dropped_events(self._open()))

    def start(self, timeout: float | None = None) -> list[str] | None:
        """Makes the daemon set up the session's backends, for which it may download; 90 s unless told otherwise. The
        names of the backends that report; None when there are none for want of a storebag."""
        return self._ask_names(c.client_start, c.milliseconds(timeout))

    def fetch_states(self, user_info: UserInfo | None, timeout: float | None = None) -> list[str] | None:
        """Gives or changes the user info, or takes it away with None, and asks for the backends that report."""
        with user_handle(user_info) as user:
            return self._ask_names(c.client_fetch_states, user, c.milliseconds(timeout))

    def display_url(self, timeout: float | None = None) -> str:
        """Where the session's events can be looked at, or "URL not available"."""
        return self._ask(c.client_display_url, c.milliseconds(timeout)) or ""

    def send(
        self,
        category: int,
        type: int,
        payload: Mapping[str, Value] | None = None,
        flags: int = Flag.NONE,
        timeout: float | None = None,
    ) -> str | None:
        """Sends an event and waits for the daemon's answer; None where the daemon has none."""
        category, type, flags = event(category, type, flags)
        with dictionary(payload) as handle:
            return self._ask(c.client_send, category, type, handle, flags, c.milliseconds(timeout))

    def send_async(
        self,
        category: int,
        type: int,
        payload: Mapping[str, Value] | None = None,
        flags: int = Flag.NONE,
        timeout: float | None = None,
    ) -> Future[str | None]:
        """Sends an event; its answer comes later. Waits while 1,024 events are unanswered."""
        category, type, flags = event(category, type, flags)
        with dictionary(payload) as handle:
            number, future = self._answers.add()
            try:
                c.telling(c.client_send_async, self._open(), category, type, handle, flags, c.milliseconds(timeout),
                          self._answers.callback, number)
            except BaseException:
                self._answers.take(number)
                raise
        return future

    def send_and_forget(
        self, category: int, type: int, payload: Mapping[str, Value] | None = None, flags: int = Flag.NONE
    ) -> None:
        """Sends an event that is not answered."""
        category, type, flags = event(category, type, flags)
        with dictionary(payload) as handle:
            c.telling(c.client_send_and_forget, self._open(), category, type, handle, flags)

    def try_send(
        self, category: int, type: int, payload: Mapping[str, Value] | None = None, flags: int = Flag.NONE
    ) -> None:
        """The same, but never waits: WouldBlockError when the daemon does not keep up, and the event is not sent."""
        category, type, flags = event(category, type, flags)
        with dictionary(payload) as handle:
            c.telling(c.client_try_send, self._open(), category, type, handle, flags)

    def flush(self, timeout: float | None = None) -> str | None:
        """Makes the backends post what they hold back."""
        return self._ask(c.client_flush, c.milliseconds(timeout))

    def send_single(
        self,
        session_info: SessionInfo,
        user_info: UserInfo | None,
        category: int,
        type: int,
        payload: Mapping[str, Value] | None = None,
        timeout: float | None = None,
    ) -> str:
        """Sends one event through backends made for it alone: "finished", also when they have no use for it, or
        "storebag not available". The daemon never answers without session ID and client type. 90 s unless told
        otherwise."""
        category, type, _ = event(category, type, 0)
        with session_handle(session_info) as session, user_handle(user_info) as user, dictionary(payload) as handle:
            return self._ask(c.client_send_single, session, user, category, type, handle,
                             c.milliseconds(timeout)) or ""

    def upload_file(
        self,
        path: str | os.PathLike[str],
        progress: Callable[[UploadStep, int], None] | None = None,
        timeout: float | None = None,
    ) -> bool:
        """Lends the regular file to the daemon, which uploads it; whether a backend took it. When a server asks for it,
        the file is removed afterwards. progress gets the step and the file's size. An hour unless told otherwise."""

        def tell(_context: Any, step: int, size: int) -> None:
            if progress is not None:
                progress(UploadStep(step), size)

        return self._ask_whether(c.client_upload_file, os.fsencode(path), c.ProgressCallback(tell), None,
                                 c.milliseconds(timeout))

    def upload_log_data(self, log_data: Sequence[Value], timeout: float | None = None) -> bool:
        """Uploads log data; an hour unless told otherwise."""
        with array(log_data) as handle:
            return self._ask_whether(c.client_upload_log_data, handle, c.milliseconds(timeout))

    def close(self) -> None:
        """Waits until the daemon has taken everything sent, but no longer than the close time-out, then closes. Answers
        that have not come raise DisconnectedError. Not beside other operations."""
        self._free()

    def __enter__(self) -> Client:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()

    def _open(self) -> ctypes.c_void_p:
        if not self._free.alive:
            raise DisconnectedError("the client is closed")
        return self._handle

    def _ask(self, function: Callable[..., int], *arguments: Any) -> str | None:
        answer = ctypes.c_void_p()
        c.telling(function, self._open(), *arguments, ctypes.byref(answer))
        return c.take_text(answer)

    def _ask_names(self, function: Callable[..., int], *arguments: Any) -> list[str] | None:
        names = ctypes.c_void_p()
        c.telling(function, self._open(), *arguments, ctypes.byref(names))
        return c.take_names(names)

    def _ask_whether(self, function: Callable[..., int], *arguments: Any) -> bool:
        answer = ctypes.c_bool()
        c.telling(function, self._open(), *arguments, ctypes.byref(answer))
        return answer.value


class _Answers:
    """The answers that have not come, by number, which is the context of the one callback; and further callbacks."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._last = 0
        self._futures: dict[int, Future[str | None]] = {}
        self._kept: list[Any] = []
        self.callback = c.AnswerCallback(self._settle)

    def keep(self, callbacks: Any) -> None:
        """As long as the client is there, which may call them."""
        self._kept.append(callbacks)

    def add(self) -> tuple[int, Future[str | None]]:
        future: Future[str | None] = Future()
        future.set_running_or_notify_cancel()  # It cannot be cancelled: the event is on its way.
        with self._lock:
            self._last += 1
            self._futures[self._last] = future
            return self._last, future

    def take(self, number: int) -> Future[str | None] | None:
        with self._lock:
            return self._futures.pop(number, None)

    def _settle(self, number: int, code: int, answer: bytes | None, message: bytes | None) -> None:
        future = self.take(number)
        if future is None:
            return
        if code:
            future.set_exception(error_of(code, message.decode(errors="replace") if message else None))
        else:
            future.set_result(answer.decode(errors="replace") if answer is not None else None)

    def end(self) -> None:
        while self._futures:
            future = self.take(next(iter(self._futures)))
            if future is not None:
                future.set_exception(DisconnectedError("the client was closed"))


def _free(handle: ctypes.c_void_p, answers: _Answers, _callback: Any) -> None:
    c.client_free(handle)
    answers.end()


def _disconnected_callback(disconnected: Callable[[Exception], None] | None) -> Any:
    if disconnected is None:
        return c.DisconnectedCallback(0)

    told = disconnected

    def tell(_context: Any, code: int, message: bytes) -> None:
        told(error_of(code, message.decode(errors="replace")))

    return c.DisconnectedCallback(tell)
