"""The exceptions a request or a link can end with, one class per kind of failure."""

from __future__ import annotations

from ._core import ClientInUseError, ErrorKind

__all__ = [
    "TQBleError", "NotConnectedError", "WriteFailedError", "RequestTimeoutError",
    "LinkLostError", "MalformedAnswerError", "ConnectFailedError", "PostNotFoundError",
    "RequestCancelledError", "ClientInUseError", "from_kind",
]


class TQBleError(Exception):
    """A failed step of the client: ``kind`` (ErrorKind), ``code`` (the SDK's code of a
    refused write, else 0), the message and ``stack_error``, the Bluetooth stack's own
    name for its refusal ("org.bluez.Error.Failed"), else ""."""

    kind: ErrorKind

    def __init__(self, message: str, code: int = 0, stack_error: str = "") -> None:
        super().__init__(message)
        self.code = code
        self.stack_error = stack_error


class NotConnectedError(TQBleError):
    """No ready link, or the link was closed while the request waited."""

    kind = ErrorKind.NOT_CONNECTED


class WriteFailedError(TQBleError):
    """The SDK could not write the request (``code`` says why)."""

    kind = ErrorKind.WRITE_FAILED


class RequestTimeoutError(TQBleError, TimeoutError):
    """No whole answer, or no ready link, in time."""

    kind = ErrorKind.TIMED_OUT


class LinkLostError(TQBleError, ConnectionError):
    """The link went down before the answer was complete."""

    kind = ErrorKind.LINK_LOST


class MalformedAnswerError(TQBleError):
    """The post's answer could not be decoded."""

    kind = ErrorKind.MALFORMED


class ConnectFailedError(TQBleError, ConnectionError):
    """The radio stack refused the connection."""

    kind = ErrorKind.CONNECT_FAILED


class PostNotFoundError(TQBleError, LookupError):
    """No post with the name or identifier asked for was heard in time."""

    kind = ErrorKind.NOT_FOUND


class RequestCancelledError(TQBleError):
    """The request was cancelled (an awaiting task that is cancelled raises
    asyncio.CancelledError instead)."""

    kind = ErrorKind.CANCELLED


_BY_KIND = {cls.kind: cls for cls in TQBleError.__subclasses__()}


def from_kind(kind: ErrorKind, code: int, message: str, stack_error: str = "") -> TQBleError:
    """The exception for a failure of this kind (not raised)."""
    return _BY_KIND[kind](message, code, stack_error)
