import asyncio
import itertools

import pytest

import tqble

_numbers = itertools.count(1)


@pytest.fixture(scope="module")
def event_loop():
    loop = asyncio.new_event_loop()
    yield loop
    loop.close()


@pytest.fixture
def sim_post():
    """A new simulated post, the only one in range, with a name no earlier test used."""
    for post in tqble.sim.posts():
        tqble.sim.remove_post(post)
    n = next(_numbers)
    return tqble.sim.add_post(name=f"TQ-TEST-{n:04}", identifier=f"SIM-TEST-{n:04}")
