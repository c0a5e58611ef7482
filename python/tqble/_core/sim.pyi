# Types of tqble._core.sim, the simulated radio.
import datetime
import enum
from typing import List, Optional, Set

class GunState(enum.Enum):
    IDLE: int
    PLUGGED_IN: int
    CHARGING: int
    FINISHED: int
    FAULT: int

class FaultCode(enum.Enum):
    OVER_CURRENT: int
    OVER_VOLTAGE: int
    UNDER_VOLTAGE: int
    EMERGENCY_STOP: int

class Faults:
    mute: bool
    fault_answer: Optional[int]
    chunk_sizes: List[int]
    lost_notifications: Set[int]
    drop_link_after: Optional[int]
    connection_error: Optional[str]

class Timing:
    connect: datetime.timedelta
    discovery: datetime.timedelta
    read: datetime.timedelta
    answer: datetime.timedelta
    notification_gap: datetime.timedelta
    write_confirmation: datetime.timedelta
    first_advertisement: datetime.timedelta

class Post:
    @property
    def name(self) -> str: ...
    @property
    def identifier(self) -> str: ...
    rssi: int
    advertising: bool
    @property
    def connected(self) -> bool: ...
    @property
    def faults(self) -> Faults: ...
    @property
    def gun_state(self) -> GunState: ...
    @property
    def received_writes(self) -> List[List[int]]: ...
    def drop_link(self) -> None: ...
    def plug_in(self) -> None: ...
    def unplug(self) -> None: ...
    def raise_fault(self, code: FaultCode) -> None: ...
    def clear_fault(self) -> None: ...

def add_post(name: str = ..., identifier: str = ..., rssi: int = ...) -> Post: ...
def remove_post(post: Post) -> None: ...
def posts() -> List[Post]: ...
def set_powered(on: bool) -> None: ...
def timing() -> Timing: ...
