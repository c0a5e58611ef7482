"""Drives the SDK's main queue from the asyncio loop: every callback of the SDK runs on
the loop's thread, inside the loop, and no other thread touches the client."""

from __future__ import annotations

import asyncio
import numbers
from typing import Any, Callable, Optional

from . import _core


class Driver:
    """Runs the client's due work whenever its descriptor polls readable."""

    def __init__(self, core: _core.Client, loop: asyncio.AbstractEventLoop) -> None:
        self._loop = loop
        self._fd = core.event_fd()
        loop.add_reader(self._fd, core.dispatch)

    def close(self) -> None:
        """Stops driving (the client's own closing work runs before)."""
        self._loop.remove_reader(self._fd)


async def ask(start: Callable[..., _core.Request], *args: Any,
              timeout: Optional[float] = None) -> Any:
    """Starts one client step and waits for its outcome, within `timeout` seconds when
    given (else the link's request time-out); cancelling the wait cancels the step."""
    if timeout is not None:
        timeout = seconds("timeout", timeout)
    future = asyncio.get_running_loop().create_future()

    def done(value: Any, error: Optional[BaseException]) -> None:
        if future.done():
            return
        if error is not None:
            future.set_exception(error)
        else:
            future.set_result(value)

    request = start(*args, done)
    if timeout is not None:
        request.set_timeout(timeout)
    try:
        return await future
    except asyncio.CancelledError:
        request.cancel()
        raise


def seconds(name: str, value: Any) -> float:
    """A positive number of seconds. Raises TypeError or ValueError naming `name`."""
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise TypeError(f"{name} must be a number of seconds, not {type(value).__name__}")
    if not value > 0:
        raise ValueError(f"{name} must be more than 0 seconds, not {value!r}")
    return float(value)
