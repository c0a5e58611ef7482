"""What a post answers, in Python terms: codes as ``enum.Enum`` members (the raw code kept
beside them), quantities in named units (volts, amperes, kilowatt-hours), durations as
``datetime.timedelta`` and times as ``datetime`` in UTC."""

from __future__ import annotations

import datetime
from dataclasses import dataclass
from typing import Optional

from ._core import ChargeStage, ChargingMode, FaultKind, GunState, NetworkState, PostType

__all__ = ["Heard", "Acknowledgement", "Fault", "SystemInfo", "ChargerState",
           "ChargingSession", "ErrorLogEntry", "Diagnostics", "GunState", "FaultKind",
           "PostType", "ChargingMode", "ChargeStage", "NetworkState"]


@dataclass(frozen=True)
class Heard:
    """A post heard on the radio (or the one a link was opened to)."""

    name: str
    identifier: str
    rssi: int = 0


@dataclass(frozen=True)
class Acknowledgement:
    """The post's answer to a setting, a start or a stop."""

    accepted: bool


@dataclass(frozen=True)
class Fault:
    """What stopped the post, and the code it sent."""

    kind: FaultKind
    code: int


@dataclass(frozen=True)
class SystemInfo:
    """Everything the post says about itself."""

    post_number: str
    type: PostType
    type_code: int
    manufacturer_code: int
    manufacturer: str
    magic_number: int
    protocol_version: str
    firmware_version: str
    firmware_model: str
    charging_mode: ChargingMode
    volume: int
    clock: datetime.datetime
    gun_state: GunState
    gun_code: int


@dataclass(frozen=True)
class ChargerState:
    """The gun and, while charging, the session so far; in a fault answer, the fault."""

    gun_state: GunState
    gun_code: int
    fault: Optional[Fault]
    serial_number: str
    energy_kwh: float
    voltage_v: float
    current_a: float
    duration: datetime.timedelta


@dataclass(frozen=True)
class ChargingSession:
    """One finished charging session."""

    serial: int
    energy_kwh: float
    start: datetime.datetime
    end: datetime.datetime
    duration: datetime.timedelta


@dataclass(frozen=True)
class ErrorLogEntry:
    """One entry of the post's error log: the code and, when it is one, the fault it means."""

    time: datetime.datetime
    code: int
    kind: Optional[FaultKind]


@dataclass(frozen=True)
class Diagnostics:
    """The running diagnostics."""

    stage: ChargeStage
    stage_code: int
    fault: Optional[Fault]
    supply_v: float
    rated_a: Optional[float]
    network: NetworkState
    network_code: int
    meter_ok: bool
    screen_ok: bool
    gun_locked: bool
    start_mode: Optional[ChargingMode]
    start_time: datetime.timedelta
    firmware_version: str
