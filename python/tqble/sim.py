"""The simulated radio: posts in range, their faults and the radio's latencies, so Python
code can be tested without a post. The radio starts with one default post; the first
``add_post`` replaces it."""

from ._core.sim import (FaultCode, Faults, GunState, Post, Timing, add_post, posts,
                        remove_post, set_powered, timing)

__all__ = ["FaultCode", "Faults", "GunState", "Post", "Timing", "add_post", "posts",
           "remove_post", "set_powered", "timing"]
