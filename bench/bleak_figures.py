#!/usr/bin/python3
"""bleak's cost per notification against the stand-in bluetoothd of bluez_standin.py, for
the same notifications as the bluez backend's figures (bluez_bench.cpp): a burst of 20,000
and 1,000 paced 7.5 ms apart, each checked for loss, repetition and order. Prints, per case,
the process's CPU time per notification in microseconds as JSON: {"burst": 12.1, ...}."""
import asyncio
import json
import resource

import bleak
from bleak.backends.device import BLEDevice
from dbus_fast import BusType, Message, MessageType
from dbus_fast.aio import MessageBus

CASES = {"burst": (20_000, 0.0), "paced": (1_000, 0.0075)}


def cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


async def figures():
    steering = await MessageBus(bus_type=BusType.SYSTEM).connect()

    async def mock(member, signature, *body):
        reply = await steering.call(Message(destination="org.bluez", path="/", interface="org.bluez.Mock",
                                            member=member, signature=signature, body=list(body)))
        if reply.message_type == MessageType.ERROR:
            raise RuntimeError(f"the stand-in refused {member}: {reply.error_name} {reply.body}")
        return reply.body

    [notifier] = await mock("AddPost", "s", "TQ-AC7-0043")
    device = notifier.rsplit("/", 2)[0]
    address = device.rsplit("/dev_", 1)[1].replace("_", ":")
    numbers, wanted, done = [], 0, asyncio.Event()

    def heard(_, value):
        numbers.append(int.from_bytes(value[:4], "big"))
        if len(numbers) == wanted:
            done.set()

    out = {}
    # Connected without `async with`: bleak's Disconnect fails against the stand-in, whose
    # Connected=false arrives before the reply and closes the bus the call awaits.
    client = bleak.BleakClient(BLEDevice(address, "TQ-AC7-0043", {"path": device, "props": {}}, -79))
    await client.connect()
    await client.start_notify(client.services.get_characteristic("0000fff4-0000-1000-8000-00805f9b34fb"), heard)
    for case, (count, pace) in CASES.items():
        numbers.clear()
        wanted = count
        done.clear()
        start = cpu_seconds()
        await mock("Burst", "oud", notifier, count, pace)
        await asyncio.wait_for(done.wait(), 30)
        used = cpu_seconds() - start
        if numbers != list(range(count)):
            raise SystemExit(f"bleak: a notification was lost, repeated or reordered ({case})")
        out[case] = round(used * 1e6 / count, 1)
    print(json.dumps(out))


if __name__ == "__main__":
    asyncio.run(figures())
