"""What a post answers, in Python terms: quantities in named units (volts, amperes,
kilowatt-hours) and durations as ``datetime.timedelta``."""

from __future__ import annotations

import datetime
from dataclasses import dataclass, field
from typing import List, Optional, Tuple


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
class SystemInfo:
    """The post's system information as (title, value) rows."""

    rows: List[Tuple[str, str]] = field(default_factory=list)


@dataclass(frozen=True)
class ChargerState:
    """The gun's state and, while charging, the running session."""

    gun_status: Optional[str]
    fault: Optional[str]
    serial_number: Optional[str]
    energy_kwh: float
    voltage_v: float
    current_a: float
    duration: datetime.timedelta

    @property
    def in_fault(self) -> bool:
        """Whether the post answered with a fault."""
        return self.fault is not None


@dataclass(frozen=True)
class ChargingSession:
    """One finished charging session; start and end as the post's local date text."""

    serial_number: Optional[str]
    energy_kwh: float
    duration: datetime.timedelta
    start: Optional[str]
    end: Optional[str]


@dataclass(frozen=True)
class ErrorLogEntry:
    """One entry of the post's error log."""

    date: Optional[str]
    code: int


@dataclass(frozen=True)
class Diagnostics:
    """The running diagnostics, as texts with their units."""

    start_mode: int
    version: Optional[str]
    ammeter: Optional[str]
    start_time: Optional[str]
    charge_state: Optional[str]
    voltage: Optional[str]
    current: Optional[str]
    errors: Optional[str]
    network: Optional[str]
    screen: Optional[str]
    lock: Optional[str]
