"""What the library's codes become."""

from __future__ import annotations


class QuorvaneError(Exception):
    """The system refused: no file, no descriptor, no thread. The other errors are kinds of this one."""


class DisconnectedError(QuorvaneError, ConnectionError):
    """The daemon cannot be reached, or the connection has ended: connect anew."""


class TimedOutError(QuorvaneError, TimeoutError):
    """The daemon's answer did not come in time. What was asked for may still happen."""


class InvalidArgumentError(QuorvaneError, ValueError):
    """What cannot be sent, such as values nested too deeply, or a path that is not of a regular file."""


class RefusedError(QuorvaneError):
    """The daemon answered with an error."""


class WouldDeadlockError(QuorvaneError):
    """The call would wait for itself."""


class WouldBlockError(QuorvaneError, BlockingIOError):
    """Nothing was done, since it would have to wait for the daemon to keep up."""


_CLASSES: dict[int, type[QuorvaneError]] = {
    1: DisconnectedError,
    2: TimedOutError,
    3: InvalidArgumentError,
    4: RefusedError,
    5: WouldDeadlockError,
    7: WouldBlockError,
}
_NO_MEMORY = 8


def error_of(code: int, message: str | None) -> Exception:
    if code == _NO_MEMORY:
        return MemoryError()
    return _CLASSES.get(code, QuorvaneError)(message or f"libquorvane failed with code {code}")
