"""The same client for scripts without asyncio: each call waits for its answer.

    with tqble.blocking.connect("TQ-AC7-0042") as post:
        print(post.state())
"""

from __future__ import annotations

import asyncio
import functools
import inspect
from typing import Any, List

from . import client
from .answers import Heard

__all__ = ["connect", "discover", "BlockingPost"]


class BlockingPost:
    """A ``tqble.Post`` whose requests block: each runs the link's own event loop until
    its answer (or error) arrives. Close it, or use it with ``with``."""

    def __init__(self, loop: asyncio.AbstractEventLoop, post: client.Post) -> None:
        self._loop = loop
        self._post = post

    @property
    def name(self) -> str:
        """The post's advertised name."""
        return self._post.name

    @property
    def ready(self) -> bool:
        """Whether the link is up and ready for requests."""
        return self._post.ready

    def close(self) -> None:
        """Closes the link and its event loop."""
        if not self._loop.is_closed():
            self._loop.run_until_complete(self._post.close())
            self._loop.close()

    def __enter__(self) -> "BlockingPost":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()


def _blocking(name: str, request: Any) -> Any:
    @functools.wraps(request)
    def call(self: BlockingPost, *args: Any, **options: Any) -> Any:
        return self._loop.run_until_complete(getattr(self._post, name)(*args, **options))
    return call


# Every request of the asyncio Post, as a blocking method of the same name and docstring.
for _name, _request in inspect.getmembers(client.Post, inspect.iscoroutinefunction):
    if not _name.startswith("_") and _name != "close":
        setattr(BlockingPost, _name, _blocking(_name, _request))


def connect(name: str = "", **options: Any) -> BlockingPost:
    """Opens a link as ``tqble.connect`` does (same options) and returns it, blocking."""
    loop = asyncio.new_event_loop()
    try:
        post = loop.run_until_complete(client.connect(name, **options))
    except BaseException:
        loop.close()
        raise
    return BlockingPost(loop, post)


def discover(duration: float = 5.0) -> List[Heard]:
    """The posts heard within `duration` seconds, each once, blocking."""
    return asyncio.run(client.discover(duration))
