# One client per process, arguments checked with clear messages, every error kind with its
# exception, and callbacks that fail without taking the interpreter down.
import datetime
import sys

import pytest

import tqble
from tqble import _core, errors


async def test_a_second_client_is_refused_until_the_first_closes(sim_post):
    async with tqble.connect(sim_post.name):
        with pytest.raises(tqble.ClientInUseError, match="already open in this process"):
            await tqble.connect(sim_post.name)
        with pytest.raises(tqble.ClientInUseError):
            await tqble.discover(0.1)
    assert [h.identifier for h in await tqble.discover(0.2)] == [sim_post.identifier]


@pytest.mark.parametrize("call,error,message", [
    (lambda p: p.set_volume("5"), TypeError, "volume must be an int, not str"),
    (lambda p: p.set_volume(True), TypeError, "not bool"),
    (lambda p: p.set_volume(101), ValueError, "volume must be 0-100, not 101"),
    (lambda p: p.set_volume(-1), ValueError, "not -1"),
    (lambda p: p.reserve(8, datetime.time(9)), TypeError, "start must be a datetime.time, not int"),
])
async def test_bad_arguments_raise_before_anything_is_written(sim_post, call, error, message):
    async with tqble.connect(sim_post.name) as post:
        writes = len(sim_post.received_writes)
        with pytest.raises(error, match=message):
            await call(post)
        assert len(sim_post.received_writes) == writes


@pytest.mark.parametrize("call,error,message", [
    (lambda: tqble.connect(5), TypeError, "name must be a str, not int"),
    (lambda: tqble.connect(request_timeout=0), ValueError, "request_timeout must be more than 0"),
    (lambda: tqble.connect(connect_timeout="1"), TypeError, "connect_timeout must be a number"),
    (lambda: tqble.connect(reconnect_attempts=1.5), TypeError, "reconnect_attempts must be an int"),
    (lambda: tqble.scan(-1), ValueError, "duration must be more than 0 seconds, not -1"),
    (lambda: tqble.use_backend("nope"), ValueError, r"unknown backend 'nope' \(built: sim"),
])
async def test_bad_options_raise_clearly(call, error, message):
    with pytest.raises(error, match=message):
        await call()


def test_every_error_kind_has_its_exception():
    for kind in _core.ErrorKind.__members__.values():
        raised = errors.from_kind(kind, 7, "why")
        assert isinstance(raised, tqble.TQBleError) and raised.kind == kind
        assert (str(raised), raised.code) == ("why", 7)


async def test_a_failing_callback_is_reported_and_the_link_goes_on(sim_post, monkeypatch):
    reported = []
    monkeypatch.setattr(sys, "unraisablehook", reported.append)
    async with tqble.connect(sim_post.name) as post:
        post._core.state(lambda value, error: 1 / 0)
        assert isinstance(await post.state(), tqble.ChargerState)
    assert [type(r.exc_value) for r in reported] == [ZeroDivisionError]


def test_the_blocking_form_answers_and_closes(sim_post):
    with tqble.blocking.connect(sim_post.name) as post:
        assert post.ready and isinstance(post.state(), tqble.ChargerState)
    assert not post.ready
    with pytest.raises(RuntimeError, match="backend is chosen before the first client"):
        tqble.use_backend("sim")
