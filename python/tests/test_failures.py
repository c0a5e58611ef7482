# Time-outs, cancellation, lost links and refused connections end requests with the
# right exception, and the link goes on serving what follows.
import asyncio

import pytest

import tqble


async def test_a_request_times_out_by_its_own_time_out_and_the_next_one_is_answered(sim_post):
    async with tqble.connect(sim_post.name, request_timeout=60) as post:
        sim_post.faults.mute = True
        with pytest.raises(tqble.RequestTimeoutError) as timed_out:
            await asyncio.wait_for(post.state(timeout=0.2), 10)
        assert isinstance(timed_out.value, TimeoutError)
        sim_post.faults.mute = False
        assert isinstance(await post.state(), tqble.ChargerState)


async def test_a_cancelled_request_ends_at_once_and_leaves_its_answer_to_no_other(sim_post):
    async with tqble.connect(sim_post.name, request_timeout=60) as post:
        sim_post.faults.mute = True
        asked = asyncio.ensure_future(post.state())
        await asyncio.sleep(0)
        asked.cancel()
        with pytest.raises(asyncio.CancelledError):
            await asked
        sim_post.faults.mute = False
        # Still queued behind the cancelled one, it would wait for that one's 60 s.
        assert isinstance(await asyncio.wait_for(post.system_info(), 10), tqble.SystemInfo)


async def test_closing_ends_a_waiting_request_as_not_connected(sim_post):
    post = await tqble.connect(sim_post.name)
    sim_post.faults.mute = True
    asked = asyncio.ensure_future(post.state())
    await asyncio.sleep(0)
    await post.close()
    with pytest.raises(tqble.NotConnectedError):
        await asked


async def test_a_link_lost_mid_answer_fails_the_request_and_later_ones(sim_post):
    async with tqble.connect(sim_post.name) as post:
        events = []
        post.on_link(events.append)
        sim_post.faults.drop_link_after = 1  # of the state answer's two
        with pytest.raises(tqble.LinkLostError, match="went down"):
            await post.state()
        assert not post.ready
        assert [(e.event, type(e.reason)) for e in events] == [
            ("lost", tqble.LinkLostError), ("closed", tqble.LinkLostError)]
        with pytest.raises(tqble.NotConnectedError):
            await post.state()


async def test_an_unheard_name_is_not_found_and_frees_the_client(sim_post):
    with pytest.raises(tqble.PostNotFoundError, match="'TQ-NOWHERE'"):
        await tqble.connect("TQ-NOWHERE", connect_timeout=0.3)
    async with tqble.connect(sim_post.identifier) as post:
        assert post.name == sim_post.name


async def test_a_refused_connection_says_why(sim_post):
    sim_post.faults.connection_error = "connection refused by the stack"
    with pytest.raises(tqble.ConnectFailedError, match="connection refused by the stack"):
        await tqble.connect(sim_post.name)
