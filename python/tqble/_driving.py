"""Drives the SDK's main queue from the asyncio loop: every callback of the SDK runs on
the loop's thread, inside the loop, and no other thread touches the client."""

from __future__ import annotations

import asyncio
import numbers
from typing import Any, Callable

from . import _core


class Driver:
    """Runs the client's due work whenever its descriptor polls readable."""

    def __init__(self, core: _core.Client, loop: asyncio.AbstractEventLoop) -> None:
        self._core = core
        self._loop = loop
        self._fd = core.event_fd()
        self._tick: asyncio.TimerHandle | None = None
        if self._fd >= 0:
            loop.add_reader(self._fd, core.dispatch)
        else:
            self._poll()

    def _poll(self) -> None:
        self._core.dispatch()
        self._tick = self._loop.call_later(0.001, self._poll)

    def close(self) -> None:
        """Stops driving (the client's own closing work runs before)."""
        if self._fd >= 0:
            self._loop.remove_reader(self._fd)
        elif self._tick is not None:
            self._tick.cancel()


async def ask(start: Callable[..., None], *args: Any) -> Any:
    """Starts one client step and waits for its outcome; cancelling the wait drops it."""
    future = asyncio.get_running_loop().create_future()

    def done(value: Any, error: BaseException | None) -> None:
        if future.done():
            return
        if error is not None:
            future.set_exception(error)
        else:
            future.set_result(value)

    start(*args, done)
    return await future


def seconds(name: str, value: Any) -> float:
    """A positive number of seconds. Raises TypeError or ValueError naming `name`."""
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise TypeError(f"{name} must be a number of seconds, not {type(value).__name__}")
    if not value > 0:
        raise ValueError(f"{name} must be more than 0 seconds, not {value!r}")
    return float(value)
