# Every request of a Post, through asyncio on the simulated radio's default post (two
# past sessions, one logged error), on one link.
import datetime
import inspect
import typing

import pytest

import tqble
from tqble.sim import FaultCode, GunState

ARGUMENTS = {"set_volume": (30,), "reserve": (datetime.time(22, 0), datetime.time(6, 30))}
REQUESTS = [name for name, _ in inspect.getmembers(tqble.Post, inspect.iscoroutinefunction)
            if not name.startswith("_") and name != "close"]


@pytest.fixture(scope="module")
async def post():
    async with tqble.connect() as post:
        yield post


@pytest.fixture
def sim_post(post):
    [sim_post] = tqble.sim.posts()
    return sim_post


@pytest.mark.parametrize("name", REQUESTS)
async def test_each_request_answers_its_declared_type(post, name):
    answer = await getattr(post, name)(*ARGUMENTS.get(name, ()))
    declared = typing.get_type_hints(getattr(tqble.Post, name))["return"]
    assert isinstance(answer, typing.get_origin(declared) or declared)
    if isinstance(answer, list):
        assert answer and all(isinstance(i, typing.get_args(declared)[0]) for i in answer)


async def test_start_and_stop_follow_the_gun(post, sim_post):
    sim_post.unplug()
    assert not (await post.start()).accepted
    sim_post.plug_in()
    assert (await post.start()).accepted
    assert sim_post.gun_state == GunState.CHARGING
    state = await post.charging_data()
    assert state.current_a > 0 and state.voltage_v > 0 and not state.in_fault
    assert (await post.stop()).accepted
    assert sim_post.gun_state == GunState.FINISHED


async def test_the_volume_set_is_the_volume_read_back(post):
    assert (await post.set_volume(37)).accepted
    assert "37" in dict((await post.system_info()).rows).values()


@pytest.mark.parametrize("code", list(FaultCode.__members__.values()))
async def test_a_post_in_fault_answers_the_state_as_a_fault(post, sim_post, code):
    sim_post.raise_fault(code)
    state = await post.state()
    assert state.in_fault and state.fault
    sim_post.clear_fault()
    assert not (await post.state()).in_fault
