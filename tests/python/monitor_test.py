"""Tests of gvusb.Monitor."""

from __future__ import annotations

import os
import selectors
import threading
import time
import unittest
from typing import List, Optional

import gvusb
from support import LONG_ENOUGH, BusTest, bus, forget


class MonitorTest(BusTest):
    def setUp(self) -> None:
        gvusb.driver.set_update_interval(0.01)
        gvusb.scan()
        self.monitor = gvusb.Monitor()
        self.addCleanup(self.monitor.close)

    def plug(self) -> None:
        """Plug in a third reader, and scan so that its disconnection is reported."""
        self.number = bus("plug id=77")
        self.addCleanup(forget, self.number)
        event = self.monitor.read(LONG_ENOUGH)
        self.assertEqual(event, gvusb.Event(gvusb.EventKind.CONNECT, 0x77, 0))
        self.assertEqual(str(event), "connect 77")
        gvusb.scan()

    def test_events_are_iterated_over(self) -> None:
        self.plug()
        bus(f"unplug {self.number}")
        seen = []
        for event in self.monitor:
            seen.append((event.kind, event.id))
            self.monitor.close()  # ends the loop
        self.assertEqual(seen, [(gvusb.EventKind.DISCONNECT, 0x77)])
        self.assertIsNone(self.monitor.read())
        bus(f"plug {self.number}")

    def test_each_monitor_gets_each_event(self) -> None:
        with gvusb.Monitor() as other:
            self.plug()
            self.assertEqual(getattr(other.read(LONG_ENOUGH), "id"), 0x77)
        self.assertTrue(other.closed)

    def test_reading_takes_no_longer_than_its_time(self) -> None:
        begin = time.monotonic()
        self.assertIsNone(self.monitor.read(0.05))
        self.assertGreaterEqual(time.monotonic() - begin, 0.05)
        self.assertIsNone(self.monitor.read(0))
        self.assertIsNone(self.monitor.read(-1))
        self.assertFalse(self.monitor.wait(0))

    def test_its_descriptor_is_readable_as_long_as_an_event_waits(self) -> None:
        with selectors.DefaultSelector() as selector, gvusb.Monitor() as other:
            selector.register(other, selectors.EVENT_READ)
            self.assertEqual(selector.select(0), [])
            self.plug()
            self.assertEqual(len(selector.select(LONG_ENOUGH)), 1)
            self.assertTrue(other.wait(0))
            other.read()
            self.assertEqual(selector.select(0), [])

    def test_closing_ends_waiting_in_another_thread(self) -> None:
        results: List[Optional[gvusb.Event]] = []
        threads = [threading.Thread(target=lambda: results.append(self.monitor.read())) for _ in range(3)]
        for thread in threads:
            thread.start()
        time.sleep(0.05)
        self.monitor.close()
        for thread in threads:
            thread.join(LONG_ENOUGH)
        self.assertEqual(results, [None, None, None])

    def test_monitors_leave_no_descriptor(self) -> None:
        before = os.listdir("/proc/self/fd")
        for _ in range(10):
            gvusb.Monitor().close()
            gvusb.Monitor()  # forgotten
        self.assertEqual(len(os.listdir("/proc/self/fd")), len(before))
        self.assertEqual(len(gvusb._monitor._queues), 1)


if __name__ == "__main__":
    unittest.main()
