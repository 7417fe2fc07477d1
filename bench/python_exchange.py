#!/usr/bin/env python3
"""Print the time of an exchange by the Python package, in microseconds: {"exchange": ..., "exchange-timeout": ...}.

The median of many short measurements, so that other programs of the machine matter little."""

import json
import statistics
import time
from typing import Callable, Dict, List

import gvusb

FRAME = bytes(16)
SIZE = 512


def microseconds(call: Callable[[], object]) -> float:
    def measure() -> float:
        begin = time.perf_counter()
        for _ in range(200):
            call()
        return (time.perf_counter() - begin) / 200 * 1e6

    times: List[float] = [measure() for _ in range(201)]
    return statistics.median(times)


with gvusb.open() as reader:
    buffer = bytearray(SIZE)
    results: Dict[str, float] = {
        "exchange": microseconds(lambda: reader.transceive(FRAME, SIZE)),
        "exchange-into": microseconds(lambda: reader.transceive_into(FRAME, buffer)),
        "exchange-timeout": microseconds(lambda: reader.transceive(FRAME, SIZE, timeout=0.5)),
    }
print(json.dumps(results))
