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
    assert state.gun_state == tqble.GunState.CHARGING and state.fault is None
    assert state.current_a > 0 and state.voltage_v > 0
    assert (await post.stop()).accepted
    assert (await post.state()).gun_state == tqble.GunState.FINISHED


async def test_the_volume_set_is_the_volume_read_back(post):
    assert (await post.set_volume(37)).accepted
    assert (await post.system_info()).volume == 37


async def test_times_are_utc_and_sessions_last_from_start_to_end(post):
    sessions = await post.history()
    for s in sessions:
        assert s.start.tzinfo is datetime.timezone.utc and s.end - s.start == s.duration
    assert all(e.time.tzinfo is datetime.timezone.utc for e in await post.error_log())


@pytest.mark.parametrize("code", list(FaultCode.__members__.values()))
async def test_a_post_in_fault_answers_the_state_with_its_fault(post, sim_post, code):
    sim_post.raise_fault(code)
    state = await post.state()
    assert state.gun_state == tqble.GunState.FAULT and state.fault.kind.name == code.name
    sim_post.clear_fault()
    assert (await post.state()).fault is None
