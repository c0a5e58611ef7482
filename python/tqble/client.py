"""asyncio access to a charging post: ``connect`` opens a link, ``scan`` and ``discover``
listen to the radio. One link per process, as the SDK underneath runs one."""

from __future__ import annotations

import asyncio
import datetime
from typing import Any, AsyncIterator, Callable, Dict, Generator, List, NamedTuple, Optional

from . import _core
from ._driving import Driver, ask, seconds
from .answers import (Acknowledgement, ChargerState, ChargingSession, Diagnostics,
                      ErrorLogEntry, Heard, SystemInfo)
from .errors import TQBleError

__all__ = ["Post", "LinkChange", "connect", "scan", "discover"]

class LinkChange(NamedTuple):
    """A change of the link: ``event``, the error behind a "lost" or "closed" (else None)
    and, for "reconnecting", the attempt's number."""

    event: str
    reason: Optional[TQBleError]
    attempt: int


# How long closing waits for the radio to report the link closed, in seconds.
_CLOSE_TIMEOUT = 2.0


def _open(connect_timeout: Any = 10.0, request_timeout: Any = 5.0, reconnect_attempts: Any = 0,
          reconnect_delay: Any = 1.0) -> _core.Client:
    if isinstance(reconnect_attempts, bool) or not isinstance(reconnect_attempts, int):
        raise TypeError("reconnect_attempts must be an int, not "
                        f"{type(reconnect_attempts).__name__}")
    if not 0 <= reconnect_attempts <= 1000:
        raise ValueError(f"reconnect_attempts must be 0-1000, not {reconnect_attempts}")
    return _core.Client(connect_timeout=seconds("connect_timeout", connect_timeout),
                        request_timeout=seconds("request_timeout", request_timeout),
                        reconnect_attempts=reconnect_attempts,
                        reconnect_delay=seconds("reconnect_delay", reconnect_delay))


class Post:
    """An open link to one charging post. Requests are answered one at a time, in the
    order asked; each raises a ``tqble.TQBleError`` when it fails, takes its own
    ``timeout`` in seconds (else the link's ``request_timeout``), and is cancelled with the
    task that awaits it."""

    def __init__(self, core: _core.Client, driver: Driver, heard: Heard) -> None:
        self._core = core
        self._driver = driver
        self._heard = heard
        self._listeners: List[Callable[[LinkChange], None]] = []
        core.on_link(self._link_event)

    def _link_event(self, event: str, reason: Optional[TQBleError], attempt: int) -> None:
        change = LinkChange(event, reason, attempt)
        for listener in list(self._listeners):
            listener(change)

    def on_link(self, listener: Callable[[LinkChange], None]) -> None:
        """Calls listener(LinkChange) on every change of the link: "connecting", "ready",
        "lost" (with the error that took it), "reconnecting" (attempt n of the
        reconnection policy) and "closed" (with the error, unless closed by close())."""
        self._listeners.append(listener)

    @property
    def name(self) -> str:
        """The post's advertised name."""
        return self._heard.name

    @property
    def identifier(self) -> str:
        """The post's stable identifier (its address on a real radio)."""
        return self._heard.identifier

    @property
    def ready(self) -> bool:
        """Whether the link is up and ready for requests."""
        return self._core.ready

    async def state(self, *, timeout: Optional[float] = None) -> ChargerState:
        """The charger state: the gun and, while charging, the session so far."""
        return await ask(self._core.state, timeout=timeout)

    async def charging_data(self, *, timeout: Optional[float] = None) -> ChargerState:
        """The live charging data (the state request, read as the state answer)."""
        return await ask(self._core.charging_data, timeout=timeout)

    async def system_info(self, *, timeout: Optional[float] = None) -> SystemInfo:
        """The post's system information."""
        return await ask(self._core.system_info, timeout=timeout)

    async def history(self, *, timeout: Optional[float] = None) -> List[ChargingSession]:
        """The finished charging sessions."""
        return await ask(self._core.history, timeout=timeout)

    async def energy(self, *, timeout: Optional[float] = None) -> float:
        """The energy delivered over the post's life, in kWh."""
        return await ask(self._core.energy, timeout=timeout)

    async def error_log(self, *, timeout: Optional[float] = None) -> List[ErrorLogEntry]:
        """The post's error log."""
        return await ask(self._core.error_log, timeout=timeout)

    async def diagnostics(self, *, timeout: Optional[float] = None) -> Diagnostics:
        """The running diagnostics."""
        return await ask(self._core.diagnostics, timeout=timeout)

    async def start(self, *, timeout: Optional[float] = None) -> Acknowledgement:
        """Starts charging; the post refuses unless a car is plugged in."""
        return await ask(self._core.start, timeout=timeout)

    async def stop(self, *, timeout: Optional[float] = None) -> Acknowledgement:
        """Stops charging."""
        return await ask(self._core.stop, timeout=timeout)

    async def sync_time(self, *, timeout: Optional[float] = None) -> Acknowledgement:
        """Sets the post's clock to now."""
        return await ask(self._core.sync_time, timeout=timeout)

    async def set_volume(self, volume: int, *, timeout: Optional[float] = None) -> Acknowledgement:
        """Sets the speaker volume, 0-100 (ValueError outside, TypeError for a non-int)."""
        if isinstance(volume, bool) or not isinstance(volume, int):
            raise TypeError(f"volume must be an int, not {type(volume).__name__}")
        return await ask(self._core.set_volume, volume, timeout=timeout)

    async def reserve(self, start: datetime.time, end: datetime.time, *,
                      timeout: Optional[float] = None) -> Acknowledgement:
        """Reserves a daily charging period from `start` to `end` (hours and minutes)."""
        for name, value in (("start", start), ("end", end)):
            if not isinstance(value, datetime.time):
                raise TypeError(f"{name} must be a datetime.time, not {type(value).__name__}")
        return await ask(self._core.reserve, start.hour, start.minute, end.hour, end.minute,
                         timeout=timeout)

    async def close(self) -> None:
        """Closes the link; requests still waiting raise NotConnectedError. Returns once
        the radio has reported the link closed (at most 2 s), so that a link opened next
        does not hear this one's end."""
        if self._driver is None:
            return
        if self._core.linked:
            closed = asyncio.get_running_loop().create_future()
            self._core.on_released(lambda: closed.done() or closed.set_result(None))
            self._core.disconnect()
            try:
                await asyncio.wait_for(closed, _CLOSE_TIMEOUT)
            except asyncio.TimeoutError:
                pass
        self._core.close()
        self._driver.close()
        self._driver = None

    async def __aenter__(self) -> "Post":
        return self

    async def __aexit__(self, *exc: Any) -> None:
        await self.close()


class _Connecting:
    """What ``connect`` returns: await it for a Post, or use it with ``async with``."""

    def __init__(self, name: str, options: Dict[str, Any]) -> None:
        if not isinstance(name, str):
            raise TypeError(f"name must be a str, not {type(name).__name__}")
        self._name = name
        self._options = options
        self._post: Optional[Post] = None

    async def _connect(self) -> Post:
        core = _open(**self._options)
        driver = Driver(core, asyncio.get_running_loop())
        try:
            heard = await ask(core.connect, self._name)
        except BaseException:
            core.close()
            driver.close()
            raise
        return Post(core, driver, heard)

    def __await__(self) -> Generator[Any, None, Post]:
        return self._connect().__await__()

    async def __aenter__(self) -> Post:
        self._post = await self._connect()
        return self._post

    async def __aexit__(self, *exc: Any) -> None:
        assert self._post is not None
        await self._post.close()


def connect(name: str = "", *, connect_timeout: float = 10.0, request_timeout: float = 5.0,
            reconnect_attempts: int = 0, reconnect_delay: float = 1.0) -> _Connecting:
    """Finds the post whose name or identifier is `name` (any post when empty) and opens a
    link to it. ``async with tqble.connect("TQ-AC7-0042") as post:`` closes it at the end.
    Raises PostNotFoundError, ConnectFailedError or RequestTimeoutError; ClientInUseError
    while another link or scan is open in this process. Times are in seconds."""
    return _Connecting(name, dict(connect_timeout=connect_timeout,
                                  request_timeout=request_timeout,
                                  reconnect_attempts=reconnect_attempts,
                                  reconnect_delay=reconnect_delay))


class scan:
    """Every advertisement heard for `duration` seconds, as ``Heard``, while iterated:
    ``async with tqble.scan(5) as heard: async for post in heard: ...`` (a post is heard
    again at each of its advertisements). Leaving the block stops the scan."""

    def __init__(self, duration: float = 5.0) -> None:
        self._duration = seconds("duration", duration)
        self._core: Optional[_core.Client] = None
        self._driver: Optional[Driver] = None

    def _start(self) -> None:
        loop = asyncio.get_running_loop()
        self._core = _open()
        self._driver = Driver(self._core, loop)
        self._heard: asyncio.Queue[Heard] = asyncio.Queue()
        self._deadline = loop.time() + self._duration
        self._core.scan(self._heard.put_nowait)

    async def close(self) -> None:
        """Stops scanning and releases the radio."""
        if self._core is not None:
            self._core.close()
            assert self._driver is not None
            self._driver.close()
            self._core = None

    async def __aenter__(self) -> "scan":
        self._start()
        return self

    async def __aexit__(self, *exc: Any) -> None:
        await self.close()

    def __aiter__(self) -> AsyncIterator[Heard]:
        return self

    async def __anext__(self) -> Heard:
        if self._core is None:
            raise StopAsyncIteration
        remaining = self._deadline - asyncio.get_running_loop().time()
        try:
            return await asyncio.wait_for(self._heard.get(), max(remaining, 0))
        except asyncio.TimeoutError:
            await self.close()
            raise StopAsyncIteration from None


async def discover(duration: float = 5.0) -> List[Heard]:
    """The posts heard within `duration` seconds, each once, in the order first heard."""
    found: Dict[str, Heard] = {}
    async with scan(duration) as heard:
        async for post in heard:
            found.setdefault(post.identifier, post)
    return list(found.values())
