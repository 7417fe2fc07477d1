#!/usr/bin/env python3
"""Talk to all readers at the same time, with asyncio. usage: many_readers.py [FRAMES]"""

import asyncio
import sys

import gvusb
from gvusb import aio

REQUEST = bytes.fromhex("02 00 07 FF 01")


async def exchange(reader: aio.Reader, frames: int) -> None:
    answered = 0
    for _ in range(frames):
        try:
            await reader.transceive(REQUEST, timeout=0.5)
            answered += 1
        except gvusb.TimeoutError:
            pass  # the others do not wait for it
    print(f"{reader.id:X} {reader.name}: {answered} of {frames} frames answered")


async def main() -> None:
    gvusb.driver.set_parallel(True)
    frames = int(sys.argv[1]) if len(sys.argv) > 1 else 10
    readers = await aio.open_all()
    try:
        await asyncio.gather(*(exchange(reader, frames) for reader in readers))
    finally:
        for reader in readers:
            await reader.close()


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except gvusb.Error as error:
        sys.exit(str(error))
