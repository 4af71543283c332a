"""Reports events to the quorvaned daemon.

    import quorvane

    with quorvane.Reporter(quorvane.SessionInfo(session_id=1, client_type=5)) as reporter:
        reporter.report(12, 3, {"took": 0.25})

A Reporter takes care of the connection, never makes the program wait, and counts what it drops. A Client is one session
over one connection, for who wants the answers to events, or uploads files.

Payloads are dictionaries of str, bool, int, float, datetime (microseconds; a naive one is local time), bytes, lists and
dictionaries. There is no None: what is absent is left out. Arrays, dictionaries and bytes do not go to HTTPS servers.

Time-outs are seconds: None as long as is sensible for the call, math.inf for ever. What fails raises a QuorvaneError
that says why. Everything may be called from any thread, and other threads run meanwhile. After os.fork() the child must
not use the reporters and clients of its parent.
"""

from ._errors import (
    DisconnectedError,
    InvalidArgumentError,
    QuorvaneError,
    RefusedError,
    TimedOutError,
    WouldBlockError,
    WouldDeadlockError,
)
from ._library import version
from ._session import Flag, SessionInfo, UserInfo
from ._values import Value
from .client import AggregatedEvent, Client, UploadStep
from .reporter import Reporter, ReporterState, ReporterStatistics, ReporterStatus

__all__ = [
    "AggregatedEvent",
    "Client",
    "DisconnectedError",
    "Flag",
    "InvalidArgumentError",
    "QuorvaneError",
    "RefusedError",
    "Reporter",
    "ReporterState",
    "ReporterStatistics",
    "ReporterStatus",
    "SessionInfo",
    "TimedOutError",
    "UploadStep",
    "UserInfo",
    "Value",
    "WouldBlockError",
    "WouldDeadlockError",
    "version",
]
