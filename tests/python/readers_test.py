"""Tests of what gvusb.Reader does beyond the table of behaviors."""

from __future__ import annotations

import array
import copy
import pickle
import signal
import threading
import time
import unittest
import warnings
from typing import Any, Callable, Dict, List

import gvusb
from gvusb import lowlevel
from support import BULK, CONTROL, FRAME, LONG_ENOUGH, BusTest, bus, forget, start


class FramesTest(BusTest):
    def setUp(self) -> None:
        self.reader = gvusb.open(BULK)
        self.addCleanup(self.reader.close)

    def test_a_frame_is_any_contiguous_buffer(self) -> None:
        frames: List[Any] = [FRAME, bytearray(FRAME), memoryview(FRAME), memoryview(bytearray(b"xx" + FRAME))[2:],
                             array.array("B", FRAME)]
        for frame in frames:
            self.assertEqual(self.reader.transceive(frame), FRAME)
            self.reader.transmit(frame)
            self.assertEqual(self.reader.receive(), FRAME)

    def test_elements_of_several_bytes_are_sent_as_in_memory(self) -> None:
        numbers = array.array("H", [1, 2, 3])
        self.assertEqual(self.reader.transceive(memoryview(numbers)), numbers.tobytes())

    def test_what_is_not_contiguous_is_refused(self) -> None:
        with self.assertRaisesRegex(BufferError, "a frame must be contiguous"):
            self.reader.transceive(memoryview(FRAME)[::2])
        with self.assertRaisesRegex(BufferError, "a buffer must be contiguous"):
            self.reader.receive_into(memoryview(bytearray(1024))[::2])

    def test_what_is_not_bytes_is_refused(self) -> None:
        wrong: List[Any] = ["02 00", 5, None, [2, 0]]
        for frame in wrong:
            with self.assertRaisesRegex(TypeError, "a frame must be a bytes-like object, not"):
                self.reader.transceive(frame)
            with self.assertRaisesRegex(TypeError, "a buffer must be a bytes-like object, not"):
                self.reader.transceive_into(FRAME, frame)

    def test_a_buffer_must_be_writable(self) -> None:
        wrong: List[Any] = [bytes(512), memoryview(bytes(512))]
        for buffer in wrong:
            with self.assertRaisesRegex(TypeError, "a buffer must be writable"):
                self.reader.transceive_into(FRAME, buffer)

    def test_an_answer_is_received_into_a_buffer(self) -> None:
        buffer = bytearray(b"\xff" * 1024)
        self.assertEqual(self.reader.transceive_into(FRAME, memoryview(buffer)[512:]), len(FRAME))
        self.assertEqual(buffer, b"\xff" * 512 + FRAME + bytes(512 - len(FRAME)))
        buffer.clear()  # the buffer is free again

    def test_a_buffer_cannot_be_resized_while_it_is_used(self) -> None:
        self.mute()
        buffer = bytearray(512)
        entered = threading.Event()

        def receive() -> None:
            entered.set()
            with self.assertRaises(gvusb.TimeoutError):
                self.reader.receive_into(buffer, timeout=0.5)

        thread = threading.Thread(target=receive)
        thread.start()
        entered.wait()
        refused = 0
        while thread.is_alive():
            try:
                buffer.append(0)
            except BufferError:
                refused += 1
            else:
                del buffer[-1]
            time.sleep(0.01)
        self.assertGreater(refused, 0)

    def test_sizes_out_of_range_are_refused(self) -> None:
        for size in (-1, 1 << 31, 1 << 32, (1 << 32) + 512):
            with self.assertRaises(ValueError):
                self.reader.transceive(FRAME, size)
        with self.assertRaises(gvusb.ParameterError) as failure:
            self.reader.receive_into(bytearray())
        self.assertEqual(failure.exception.code, gvusb.ErrorCode.RECEIVE_BUFFER_TOO_SMALL)


class TimeoutTest(BusTest):
    def setUp(self) -> None:
        self.reader = gvusb.open(BULK)
        self.reader.timeout = 1
        self.addCleanup(self.reader.close)

    def test_a_call_has_a_time_out_of_its_own(self) -> None:
        self.reader.timeout = 20
        self.assertEqual(self.reader.transceive(FRAME, timeout=0.5), FRAME)
        self.mute()
        begin = time.monotonic()
        with self.assertRaises(gvusb.TimeoutError):
            self.reader.transceive(FRAME, timeout=0.05)
        self.assertLess(0.05, time.monotonic() - begin)
        self.assertLess(time.monotonic() - begin, 15)
        self.assertEqual(self.reader.timeout, 20)

    def test_another_thread_does_not_get_it(self) -> None:
        # Each call must end in its own time, although the reader has one time-out.
        self.mute()
        took: Dict[float, float] = {}

        def receive(seconds: float) -> None:
            with self.assertRaises(gvusb.TimeoutError):
                with record.lock:
                    begin = time.monotonic()
                    self.reader.receive(timeout=seconds)
            took[seconds] = time.monotonic() - begin

        record = self.reader._checked()
        threads = [threading.Thread(target=receive, args=(seconds,)) for seconds in (0.05, 0.15, 0.1)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(len(took), 3)
        for seconds, time_taken in took.items():
            self.assertGreaterEqual(time_taken, seconds)

    def test_it_is_rounded_up_to_milliseconds(self) -> None:
        for seconds, value in ((0.0001, "1"), (0.001, "1"), (0.0011, "2"), (1.1, "1100"), (0.29, "290"), (2, "2000"),
                               (4294967.295, "4294967295")):
            self.reader.timeout = seconds
            self.assertEqual(self.reader.get("TIMEOUT"), value)
        self.assertEqual(self.reader.timeout, 4294967.295)

    def test_it_must_be_in_range(self) -> None:
        for seconds in (0, -1, 4294967.296, float("inf"), float("nan")):
            with self.assertRaises(gvusb.ParameterError) as failure:
                self.reader.timeout = seconds
            self.assertEqual(failure.exception.code, gvusb.ErrorCode.OUT_OF_RANGE)
            with self.assertRaises(gvusb.ParameterError):
                self.reader.transceive(FRAME, timeout=seconds)
        self.assertEqual(self.reader.timeout, 1)


class ErrorTest(BusTest):
    def test_families_are_built_in_classes_too(self) -> None:
        for code, family, built_in in (
                (-1130, gvusb.TimeoutError, TimeoutError), (-1143, gvusb.PermissionError, PermissionError),
                (-1137, gvusb.NotPresentError, OSError), (-1139, gvusb.TransferError, OSError),
                (-1145, gvusb.BusyError, OSError), (-1166, gvusb.DescriptorError, OSError),
                (-1140, gvusb.NotFoundError, LookupError), (1115, gvusb.IndexError, IndexError),
                (-1123, gvusb.NotOpenError, ValueError), (-1150, gvusb.ParameterError, ValueError),
                (-1107, gvusb.UnsupportedError, NotImplementedError), (-1103, gvusb.MemoryError, MemoryError),
                (-1199, gvusb.InternalError, RuntimeError)):
            error = gvusb._errors.error_of(code)
            self.assertIs(type(error), family)
            self.assertIsInstance(error, built_in)
            self.assertIsInstance(error, gvusb.Error)
            self.assertEqual(error.code, code)

    def test_an_error_has_code_name_and_text(self) -> None:
        with self.assertRaises(TimeoutError) as failure, gvusb.open(BULK) as reader:
            reader.receive(timeout=0.001)
        error = failure.exception
        assert isinstance(error, gvusb.Error)
        self.assertIs(error.code, gvusb.ErrorCode.TIMEOUT)
        self.assertEqual((error.name, error.text, str(error), repr(error)),
                         ("GVUSB_ERR_TIMEOUT", "GVUSB: (-1130) timeout", "GVUSB: (-1130) timeout",
                          "TimeoutError(GVUSB_ERR_TIMEOUT)"))
        self.assertEqual(error.errno, 110)

    def test_an_unknown_code_is_an_error_too(self) -> None:
        error = gvusb._errors.error_of(-1)
        self.assertIs(type(error), gvusb.Error)
        self.assertEqual((error.code, error.name), (-1, "-1"))
        self.assertIn("Unknown Error", str(error))

    def test_errors_can_be_pickled_and_copied(self) -> None:
        for code in gvusb.ErrorCode:
            error = gvusb._errors.error_of(code)
            for other in (pickle.loads(pickle.dumps(error)), copy.copy(error)):
                self.assertEqual((type(other), other.code, str(other)), (type(error), error.code, str(error)))

    def test_an_exception_leaves_the_last_error(self) -> None:
        with self.assertRaises(gvusb.NotFoundError):
            gvusb.open(0xDECAF)
        self.assertEqual(lowlevel.GVUSB_GetLastError(0)[0], gvusb.ErrorCode.NOT_SCANNED)


class OwningTest(BusTest):
    def test_a_closed_reader_refuses_everything(self) -> None:
        reader = gvusb.open(BULK)
        reader.close()
        reader.close()  # has no effect
        self.assertTrue(reader.closed)
        self.assertEqual(repr(reader), "<gvusb.Reader, closed>")
        uses: List[Callable[[], object]] = [
            lambda: reader.transceive(FRAME), lambda: reader.transmit(FRAME), reader.receive,
            lambda: reader.receive_into(bytearray(512)), lambda: reader.transceive(FRAME, timeout=1), reader.present,
            reader.reset, reader.reset_pipe, reader.type_number, reader.cancel, reader.release,
            lambda: reader.get("TIMEOUT"), lambda: reader.set("TIMEOUT", 1), lambda: reader.id, lambda: reader.handle,
            lambda: setattr(reader, "timeout", 1), reader.__enter__]
        for use in uses:
            with self.assertRaises(gvusb.NotOpenError) as failure:
                use()
            self.assertEqual(failure.exception.code, gvusb.ErrorCode.NOT_OPENED)

    def test_the_last_object_closes_the_reader(self) -> None:
        first, second = gvusb.open(BULK), gvusb.open(BULK)
        self.assertEqual(first.handle, second.handle)
        first.close()
        self.assertEqual(second.transceive(FRAME), FRAME)
        second.close()
        self.assertEqual(lowlevel.GVUSB_GetDeviceList(0), 0)

    def test_a_with_block_closes(self) -> None:
        with self.assertRaises(ZeroDivisionError), gvusb.open(CONTROL):
            print(1 / 0)
        self.assertEqual(lowlevel.GVUSB_GetDeviceList(0), 0)

    def test_a_forgotten_reader_is_closed_with_a_warning(self) -> None:
        reader = gvusb.open(BULK)
        with self.assertWarnsRegex(ResourceWarning, "was not closed"):
            del reader
        self.assertEqual(lowlevel.GVUSB_GetDeviceList(0), 0)

    def test_a_reader_can_be_given_up_and_owned_again(self) -> None:
        handle = gvusb.open(BULK).release()
        self.assertEqual(lowlevel.GVUSB_Transceive(handle, FRAME), FRAME)
        with gvusb.Reader(handle=handle) as reader:
            self.assertEqual(reader.transceive(FRAME), FRAME)
        self.assertEqual(lowlevel.GVUSB_GetDeviceList(0), 0)

    def test_readers_cannot_be_copied(self) -> None:
        with gvusb.open(BULK) as reader:
            copies: List[Callable[[object], object]] = [copy.copy, copy.deepcopy, pickle.dumps]
            for copying in copies:
                with self.assertRaises(TypeError):
                    copying(reader)

    def test_presence_is_not_read_as_a_parameter(self) -> None:
        with gvusb.open(BULK) as reader:
            with self.assertRaises(gvusb.ParameterError):
                reader.get("present")  # would block forever

    def test_a_search_has_one_criterion(self) -> None:
        for use in (lambda: gvusb.scan(family="Desk", name="Desk"), lambda: gvusb.open_all(family="Desk", id=1),
                    lambda: gvusb.open(1, name="Desk")):
            with self.assertRaises(TypeError):
                use()  # type: ignore[no-untyped-call]
        for search in ({"family": "F" * 26}, {"name": "N" * 51}, {"name": "a\0b"}, {"id": -1}, {"id": 1 << 32}):
            with self.assertRaises(gvusb.ParameterError):
                gvusb.scan(**search)  # type: ignore[arg-type]

    def test_an_entry_of_a_scan_opens_its_reader(self) -> None:
        entries = {entry.id: entry for entry in gvusb.scan()}
        self.assertEqual(set(entries), {BULK, CONTROL})
        self.assertEqual(entries[CONTROL], (CONTROL, "Gate reader", "Gate", "TESK-RCI2"))
        with entries[CONTROL].open() as reader:
            self.assertEqual(reader.name, "Gate reader")

    def test_if_one_of_all_cannot_be_opened_none_is(self) -> None:
        number = bus("plug id=77,configuration=2+1")
        self.addCleanup(forget, number)
        while len(gvusb.scan()) < 3:
            pass
        bus(f"fail-configuration {number} on")
        with self.assertRaises(gvusb.DescriptorError) as failure:
            gvusb.open_all()
        self.assertEqual(failure.exception.code, gvusb.ErrorCode.SET_CONFIGURATION)
        self.assertEqual(lowlevel.GVUSB_GetDeviceList(0), 0)


class ThreadsTest(BusTest):
    def test_closing_waits_for_a_call_and_refuses_the_next(self) -> None:
        self.mute()
        reader = gvusb.open(BULK)
        results: List[Exception] = []

        def receive() -> None:
            try:
                reader.receive(timeout=0.3)
            except Exception as error:
                results.append(error)

        threads = [threading.Thread(target=receive) for _ in range(4)]
        for thread in threads:
            thread.start()
        time.sleep(0.1)
        reader.close()
        for thread in threads:
            thread.join(LONG_ENOUGH)
        # Who was in a call got its result; who waited for the reader did not get one that was closed.
        self.assertEqual(len(results), 4)
        self.assertTrue({type(result) for result in results} <= {gvusb.TimeoutError, gvusb.NotOpenError,
                                                                 gvusb.TransferError}, results)
        self.assertEqual(lowlevel.GVUSB_GetDeviceList(0), 0)

    def test_many_threads_open_use_and_close_one_reader(self) -> None:
        for parallel in (False, True):
            gvusb.driver.set_parallel(parallel)
            self.addCleanup(gvusb.driver.set_parallel, False)
            failures: List[BaseException] = []

            def use() -> None:
                try:
                    for _ in range(40):
                        with gvusb.open(BULK) as reader:
                            self.assertEqual(reader.transceive(FRAME, timeout=30), FRAME)
                            reader.name
                except BaseException as failure:
                    failures.append(failure)

            threads = [threading.Thread(target=use) for _ in range(8)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join(LONG_ENOUGH)
            self.assertEqual(failures, [])
            self.assertEqual(lowlevel.GVUSB_GetDeviceList(0), 0)

    def test_interrupting_ends_a_call_when_its_time_is_over(self) -> None:
        self.mute()
        process = start(f"""
            import gvusb, time
            with gvusb.open({BULK}) as reader:
                print("waiting", flush=True)
                begin = time.monotonic()
                try:
                    reader.receive(timeout=2)
                except KeyboardInterrupt:
                    print(time.monotonic() - begin)
                print(reader.timeout)
        """)
        assert process.stdout is not None
        self.assertEqual(process.stdout.readline(), "waiting\n")
        time.sleep(0.3)
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=LONG_ENOUGH)
        self.assertEqual((process.returncode, errors), (0, ""))
        took, timeout = map(float, output.split())
        # Not before the library has returned, and not after another call.
        self.assertLess(took, 20)
        self.assertEqual(timeout, 1.0)

    def test_a_cancelled_call_ends(self) -> None:
        with gvusb.open(BULK) as reader:
            self.assertFalse(reader.cancel())  # parallel mode is off
            gvusb.driver.set_parallel(True)
            self.addCleanup(gvusb.driver.set_parallel, False)
            self.mute()
            raised: List[Exception] = []

            def receive() -> None:
                try:
                    reader.receive(timeout=600)
                except gvusb.Error as error:
                    raised.append(error)

            thread = threading.Thread(target=receive)
            thread.start()
            while thread.is_alive():
                self.assertTrue(reader.cancel())  # at first, the call may not have begun
                thread.join(0.02)
            self.assertEqual([type(error) for error in raised], [gvusb.TransferError])


class DriverTest(BusTest):
    def test_parallel_mode_is_switched(self) -> None:
        self.assertFalse(gvusb.driver.parallel())
        gvusb.driver.set_parallel(True)
        self.assertTrue(gvusb.driver.parallel())
        gvusb.driver.set_parallel(False)
        self.assertFalse(gvusb.driver.parallel())

    def test_the_update_interval_must_be_in_range(self) -> None:
        for seconds in (0, -1, 4294.967296, 0.000009, float("nan")):
            with self.assertRaises(gvusb.ParameterError):
                gvusb.driver.set_update_interval(seconds)
        gvusb.driver.set_update_interval(4294.967295)
        gvusb.driver.set_update_interval(0.01)
        self.assertEqual(gvusb.driver.hotplug_mode(), gvusb.driver.HotplugMode.POLLING)


if __name__ == "__main__":
    warnings.simplefilter("default")
    unittest.main()
