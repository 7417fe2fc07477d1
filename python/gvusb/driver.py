"""Settings of the driver, which apply to all readers of the process. Any thread; no call waits for a reader."""

from __future__ import annotations

import enum
import math
from typing import Union

from . import _library
from ._errors import ErrorCode, error_of
from ._readers import get_parameter, set_parameter


class HotplugMode(enum.IntEnum):
    """How the library notices that readers come and go. The configuration file sets it."""

    OFF = 0
    """Not at all."""
    POLLING = 1
    """A thread of the library polls the bus."""
    CALLBACKS = 2
    """By libusb's hot-plug callbacks."""


def get(key: str) -> str:
    """Read a parameter by its key. Raises gvusb.ParameterError for an unknown key."""
    return get_parameter(_library.GVUSB_DRIVER, key)


def set(key: str, value: Union[str, int]) -> None:
    """Change a parameter by its key. Raises gvusb.ParameterError if the key is unknown or the value is out of range."""
    set_parameter(_library.GVUSB_DRIVER, key, value)


def hotplug_mode() -> HotplugMode:
    """Return the hot-plug mode."""
    return HotplugMode(int(get("HOTPLUG-MODE")))


def set_update_interval(seconds: float) -> None:
    """Set the time between two polls: 0.00001 to 4294.967295 seconds, otherwise gvusb.ParameterError."""
    # The C function accepts a negative number as the longest time.
    if not 0 < seconds <= 0xFFFFFFFF / 1e6:
        raise error_of(ErrorCode.OUT_OF_RANGE)
    set("HOTPLUG-UPDATERATE", math.ceil(round(seconds * 1e6, 3)))


def suspend_polling(suspended: bool) -> None:
    """Suspend polling; or resume it, or start it in a mode without polling."""
    set("HOTPLUG-SUSPEND", int(suspended))


def parallel() -> bool:
    """Return whether parallel mode is on."""
    return get("PARALLEL") == "1"


def set_parallel(on: bool) -> None:
    """Switch parallel mode on or off. With it, a call waits only for calls on the same reader.

    Switch it on in programs with several readers. A call that is under way keeps the mode that it began in.
    """
    set("PARALLEL", int(on))
