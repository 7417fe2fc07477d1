"""Tests of gvusb.aio beyond the table of behaviors."""

from __future__ import annotations

import asyncio
import gc
import threading
import time
import unittest
import warnings
from typing import List

import gvusb
from gvusb import aio, lowlevel
from support import BULK, CONTROL, FRAME, LONG_ENOUGH, BusTest, bus, forget


class AioTest(BusTest, unittest.IsolatedAsyncioTestCase):
    def tearDown(self) -> None:
        gvusb.driver.set_parallel(False)

    async def test_a_frame_is_exchanged(self) -> None:
        async with await aio.open(BULK) as reader:
            self.assertEqual((reader.id, reader.name, reader.family), (BULK, "Desk reader", "Desk"))
            self.assertEqual(await reader.transceive(FRAME, timeout=5), FRAME)
            buffer = bytearray(512)
            self.assertEqual(await reader.transceive_into(memoryview(FRAME), buffer), len(FRAME))
            self.assertEqual(buffer[:len(FRAME)], FRAME)
        self.assertTrue(reader.closed)
        with self.assertRaises(gvusb.NotOpenError):
            await reader.transceive(FRAME)
        await reader.close()

    async def test_readers_are_scanned_and_opened(self) -> None:
        self.assertEqual({entry.id for entry in await aio.scan()}, {BULK, CONTROL})
        readers = await aio.open_all()
        self.assertEqual({reader.id for reader in readers}, {BULK, CONTROL})
        answers = await asyncio.gather(*(reader.transceive(FRAME) for reader in readers))
        self.assertEqual(answers, [FRAME, FRAME])
        for reader in readers:
            await reader.close()
        self.assertEqual(lowlevel.GVUSB_GetDeviceList(0), 0)

    async def test_the_event_loop_runs_while_a_reader_is_silent(self) -> None:
        self.mute()
        async with await aio.open(BULK) as reader:
            waiting = asyncio.ensure_future(reader.receive(timeout=0.5))
            steps = 0
            while not waiting.done():
                await asyncio.sleep(0.01)
                steps += 1
            with self.assertRaises(TimeoutError):
                await waiting
        self.assertGreater(steps, 1)

    async def test_one_reader_does_not_wait_for_another_in_parallel_mode(self) -> None:
        gvusb.driver.set_parallel(True)
        self.mute()
        async with await aio.open(BULK) as silent, await aio.open(CONTROL) as other:
            waiting = asyncio.ensure_future(silent.receive(timeout=5))
            await asyncio.sleep(0.1)
            self.assertEqual(await other.transceive(FRAME), FRAME)
            self.assertFalse(waiting.done())
            waiting.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await waiting

    async def check_cancelling(self, timeout: float) -> None:
        """After the end of a cancelled await, no thread is in a call."""
        self.mute()
        async with await aio.open(BULK) as reader:
            with self.assertRaises(asyncio.TimeoutError):
                await asyncio.wait_for(reader.receive(timeout=timeout), 0.1)
            self.assertEqual(gvusb._library._calls, [])
            self.assertEqual(await reader.get_timeout(), 1.0)

    async def test_cancelling_leaves_no_thread_in_a_call(self) -> None:
        await self.check_cancelling(0.6)

    async def test_cancelling_ends_the_call_in_parallel_mode(self) -> None:
        gvusb.driver.set_parallel(True)
        await self.check_cancelling(600)

    async def test_cancelling_a_call_does_not_end_the_next_one(self) -> None:
        gvusb.driver.set_parallel(True)
        self.mute()
        async with await aio.open(BULK) as reader:
            waiting = asyncio.ensure_future(reader.receive(timeout=600))
            while reader._current is None:
                await asyncio.sleep(0.001)
            ended_call = object()
            for _ in range(20):
                self.assertTrue(reader._cancel_call(ended_call))
                await asyncio.sleep(0.005)
            self.assertFalse(waiting.done())
            waiting.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await waiting

    async def test_cancelling_twice_does_not_end_the_wait(self) -> None:
        self.mute()
        async with await aio.open(BULK) as reader:
            waiting = asyncio.ensure_future(reader.receive(timeout=0.4))
            for _ in range(3):
                await asyncio.sleep(0.05)
                waiting.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await waiting
            self.assertEqual(gvusb._library._calls, [])

    async def test_a_cancelled_call_that_has_not_begun_is_not_made(self) -> None:
        self.mute()
        async with await aio.open(BULK) as reader:
            first = asyncio.ensure_future(reader.receive(timeout=2))
            await asyncio.sleep(0.05)
            second = asyncio.ensure_future(reader.transmit(b"never sent"))
            await asyncio.sleep(0.05)
            second.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await second
            self.assertFalse(first.done())
            with self.assertRaises(TimeoutError):
                await first
            bus("unmute 1 in")
            with self.assertRaises(TimeoutError):
                await reader.receive(timeout=0.1)

    async def test_a_cancelled_opening_leaves_no_reader_open(self) -> None:
        for delay in (0, 0.001, 0.005):
            opening = asyncio.ensure_future(aio.open(BULK))
            await asyncio.sleep(delay)
            opening.cancel()
            try:
                await (await opening).close()
            except asyncio.CancelledError:
                pass
            self.assertEqual(lowlevel.GVUSB_GetDeviceList(0), 0)

    async def test_threads_end_with_their_readers(self) -> None:
        before = threading.active_count()
        for _ in range(3):
            async with await aio.open(BULK) as reader:
                await reader.transceive(FRAME)
        reader = await aio.open(BULK)
        await reader.transceive(FRAME)
        with self.assertWarns(ResourceWarning):
            del reader
            gc.collect()
            end = time.monotonic() + LONG_ENOUGH
            while lowlevel.GVUSB_GetDeviceList(0) != 0 and time.monotonic() < end:
                await asyncio.sleep(0.01)
        while threading.active_count() > before and time.monotonic() < end:
            await asyncio.sleep(0.01)
        self.assertEqual(threading.active_count(), before)

    async def test_closing_refuses_calls_that_wait(self) -> None:
        self.mute()
        reader = await aio.open(BULK)
        calls = [asyncio.ensure_future(reader.receive(timeout=0.3)) for _ in range(3)]
        await asyncio.sleep(0.1)
        await reader.close()
        results = await asyncio.gather(*calls, return_exceptions=True)
        self.assertIn(gvusb.NotOpenError, [type(result) for result in results])
        self.assertTrue(all(isinstance(result, gvusb.Error) for result in results), results)

    async def test_events_are_iterated_over(self) -> None:
        gvusb.driver.set_update_interval(0.01)
        await aio.scan()
        seen: List[int] = []
        with aio.Monitor() as monitor:
            for _ in range(3):  # cancelling a read loses no event
                with self.assertRaises(asyncio.TimeoutError):
                    await asyncio.wait_for(monitor.read(), 0.01)
            number = bus("plug id=77")
            async for event in monitor:
                seen.append(event.id)
                monitor.close()
            self.assertIsNone(await monitor.read())
        self.assertEqual(seen, [0x77])
        forget(number)

    async def test_several_tasks_read_one_monitor(self) -> None:
        gvusb.driver.set_update_interval(0.01)
        await aio.scan()
        monitor = aio.Monitor()
        tasks = [asyncio.ensure_future(monitor.read()) for _ in range(3)]
        await asyncio.sleep(0.05)
        number = bus("plug id=77")
        done, _ = await asyncio.wait(tasks, timeout=LONG_ENOUGH, return_when=asyncio.FIRST_COMPLETED)
        self.assertEqual([getattr(task.result(), "id") for task in done], [0x77])
        monitor.close()
        results = [getattr(event, "id", None) for event in await asyncio.gather(*tasks)]
        self.assertEqual(sorted(results, key=str), [119, None, None])
        forget(number)


if __name__ == "__main__":
    warnings.simplefilter("default")
    unittest.main()
