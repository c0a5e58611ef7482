"""tqble: EV charging posts over Bluetooth LE, from asyncio.

    import asyncio, tqble

    async def main():
        async with tqble.connect("TQ-AC7-0042") as post:
            print(await post.state())

    asyncio.run(main())

``connect`` opens the link, ``scan``/``discover`` listen to the radio, ``tqble.sim`` puts
simulated posts (and their faults) on the radio, ``tqble.blocking`` serves scripts without
asyncio. Failures raise the ``TQBleError`` subclasses of ``tqble.errors``.
"""

import os as _os

# The SDK's log lines are the manager's own texts, for debugging: a Python program hears
# them only when TQBLE_LOG asks (stderr, or a file to append to).
_os.environ.setdefault("TQBLE_LOG", "off")

from . import blocking, sim  # noqa: E402
from ._core import backends, use_backend
from .answers import (Acknowledgement, ChargeStage, ChargerState, ChargingMode,
                      ChargingSession, Diagnostics, ErrorLogEntry, Fault, FaultKind, GunState,
                      Heard, NetworkState, PostType, SystemInfo)
from .client import LinkChange, Post, connect, discover, scan
from .errors import (ClientInUseError, ConnectFailedError, LinkLostError,
                     MalformedAnswerError, NotConnectedError, PostNotFoundError,
                     RequestCancelledError, RequestTimeoutError, TQBleError, WriteFailedError)

__all__ = [
    "connect", "scan", "discover", "Post", "LinkChange", "use_backend", "backends", "sim", "blocking",
    "Acknowledgement", "ChargerState", "ChargingSession", "Diagnostics", "ErrorLogEntry",
    "Fault", "Heard", "SystemInfo", "GunState", "FaultKind", "PostType", "ChargingMode",
    "ChargeStage", "NetworkState",
    "TQBleError", "NotConnectedError", "WriteFailedError", "RequestTimeoutError",
    "LinkLostError", "MalformedAnswerError", "ConnectFailedError", "PostNotFoundError",
    "RequestCancelledError", "ClientInUseError",
]
