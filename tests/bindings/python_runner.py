#!/usr/bin/env python3
"""Runs a case of cases.json in Python. See there.

usage: python_runner.py sync|aio cases.json CASE

"sync" uses gvusb, "aio" uses gvusb.aio.
"""

from __future__ import annotations

import asyncio
import json
import os
import subprocess
import sys
import time
from typing import Any, Callable, Coroutine, Dict, List, Optional, TypeVar, Union

import gvusb
from gvusb import aio, lowlevel

# How late a change may be on a busy machine, in seconds.
LONG_ENOUGH = 10.0

Step = Dict[str, Any]
Result = TypeVar("Result")


class Mismatch(Exception):
    pass


def bytes_of(text: str) -> bytes:
    """Bytes in hexadecimal; AA*100 stands for a hundred of them."""
    parts = []
    for part in text.split():
        digits, _, times = part.partition("*")
        parts.append(bytes.fromhex(digits) * int(times or 1))
    return b"".join(parts)


def is_number(text: str) -> bool:
    return text.removeprefix("-").isdigit()


class Sync:
    """The calls of gvusb."""

    def __init__(self) -> None:
        self.readers: Dict[int, gvusb.Reader] = {}
        self.monitor: Optional[gvusb.Monitor] = None

    def _keep(self, reader: gvusb.Reader) -> int:
        # Closing an older object for the same reader leaves the reader open.
        self.readers.pop(reader.handle, reader)
        self.readers[reader.handle] = reader
        return reader.handle

    def scan(self, **search: Any) -> List[int]:
        return [entry.id for entry in gvusb.scan(**search)]

    def open(self, device_id: int) -> int:
        return self._keep(gvusb.open(device_id))

    def open_first(self, id: Optional[int] = None, **search: Any) -> int:
        return self._keep(gvusb.open(id, **search))

    def open_all(self, **search: Any) -> List[int]:
        return [self._keep(reader) for reader in gvusb.open_all(**search)]

    def _with(self, handle: int, use: Callable[[gvusb.Reader], Result]) -> Result:
        """Use an open reader, or for a handle that is not open a temporary object that does not close it."""
        if handle in self.readers:
            return use(self.readers[handle])
        reader = gvusb.Reader(handle=handle)
        try:
            return use(reader)
        finally:
            reader.release()

    def close(self, handle: int) -> None:
        reader = self.readers.pop(handle, None)
        (reader or gvusb.Reader(handle=handle)).close()

    def transceive(self, handle: int, frame: bytes, size: int) -> bytes:
        return self._with(handle, lambda reader: reader.transceive(frame, size))

    def transmit(self, handle: int, frame: bytes) -> None:
        self._with(handle, lambda reader: reader.transmit(bytearray(frame)))

    def receive(self, handle: int, size: int) -> bytes:
        buffer = bytearray(size)
        count = self._with(handle, lambda reader: reader.receive_into(buffer))
        return bytes(buffer[:count])

    def get(self, handle: int, key: str) -> str:
        """A parameter by its attribute, or by its key if it has none."""
        def value(reader: gvusb.Reader) -> str:
            known: Dict[str, Callable[[], str]] = {
                "DEVICE-ID": lambda: f"{reader.id:X}",
                "DEVICENAME": lambda: reader.name,
                "FAMILYNAME": lambda: reader.family,
                "INTERFACE": lambda: reader.interface_type,
                "TYPENUMBER": reader.type_number,
                "TIMEOUT": lambda: str(round(reader.timeout * 1000)),
            }
            return known[key]() if key in known else reader.get(key)

        return self._with(handle, value)

    def set(self, handle: int, key: str, value: str) -> None:
        def change(reader: gvusb.Reader) -> None:
            if key == "TIMEOUT" and is_number(value):
                reader.timeout = int(value) / 1000
            elif key == "RESETDEVICE":
                reader.reset()
            elif key == "RESETPIPE":
                reader.reset_pipe()
            else:
                reader.set(key, value)

        self._with(handle, change)

    def present(self, handle: int) -> bool:
        return self._with(handle, lambda reader: reader.present())

    def watch(self) -> None:
        self.monitor = gvusb.Monitor()

    def unwatch(self) -> None:
        assert self.monitor is not None
        self.monitor.close()

    def next_event(self, longest: float) -> Optional[gvusb.Event]:
        assert self.monitor is not None
        return self.monitor.read(longest)


class Aio:
    """The calls of gvusb.aio. Each runs to its end in an event loop that stays."""

    def __init__(self) -> None:
        self.loop = asyncio.new_event_loop()
        self.readers: Dict[int, aio.Reader] = {}
        self.monitor: Optional[aio.Monitor] = None
        self.other = Sync()

    def _run(self, call: Coroutine[Any, Any, Result]) -> Result:
        return self.loop.run_until_complete(call)

    def _keep(self, reader: aio.Reader) -> int:
        self.readers[reader.handle] = reader
        return reader.handle

    def scan(self, **search: Any) -> List[int]:
        return [entry.id for entry in self._run(aio.scan(**search))]

    def open(self, device_id: int) -> int:
        return self._keep(self._run(aio.open(device_id)))

    def open_first(self, id: Optional[int] = None, **search: Any) -> int:
        return self._keep(self._run(aio.open(id, **search)))

    def open_all(self, **search: Any) -> List[int]:
        return [self._keep(reader) for reader in self._run(aio.open_all(**search))]

    def close(self, handle: int) -> None:
        if handle in self.readers:
            self._run(self.readers.pop(handle).close())
        else:
            self.other.close(handle)

    def transceive(self, handle: int, frame: bytes, size: int) -> bytes:
        if handle not in self.readers:
            return self.other.transceive(handle, frame, size)
        return self._run(self.readers[handle].transceive(frame, size))

    def transmit(self, handle: int, frame: bytes) -> None:
        if handle not in self.readers:
            return self.other.transmit(handle, frame)
        return self._run(self.readers[handle].transmit(frame))

    def receive(self, handle: int, size: int) -> bytes:
        if handle not in self.readers:
            return self.other.receive(handle, size)
        return self._run(self.readers[handle].receive(size))

    def get(self, handle: int, key: str) -> str:
        if handle not in self.readers:
            return self.other.get(handle, key)
        reader = self.readers[handle]
        if key == "TIMEOUT":
            return str(round(self._run(reader.get_timeout()) * 1000))
        if key == "TYPENUMBER":
            return self._run(reader.type_number())
        known = {"DEVICE-ID": f"{reader.id:X}", "DEVICENAME": reader.name, "FAMILYNAME": reader.family,
                 "INTERFACE": reader.interface_type}
        return known[key] if key in known else self._run(reader.get(key))

    def set(self, handle: int, key: str, value: str) -> None:
        if handle not in self.readers:
            return self.other.set(handle, key, value)
        reader = self.readers[handle]
        if key == "TIMEOUT" and is_number(value):
            return self._run(reader.set_timeout(int(value) / 1000))
        if key == "RESETDEVICE":
            return self._run(reader.reset())
        if key == "RESETPIPE":
            return self._run(reader.reset_pipe())
        return self._run(reader.set(key, value))

    def present(self, handle: int) -> bool:
        if handle not in self.readers:
            return self.other.present(handle)
        return self._run(self.readers[handle].present())

    def watch(self) -> None:
        self.monitor = aio.Monitor()

    def unwatch(self) -> None:
        assert self.monitor is not None
        self.monitor.close()

    def next_event(self, longest: float) -> Optional[gvusb.Event]:
        assert self.monitor is not None
        try:
            return self._run(asyncio.wait_for(self.monitor.read(), longest or 0.001))
        except asyncio.TimeoutError:
            return None


class Runner:
    def __init__(self, calls: Union[Sync, Aio], codes: List[Dict[str, Any]]) -> None:
        self.calls = calls
        self.handles: Dict[str, int] = {"driver": lowlevel.GVUSB_DRIVER}
        self.registrations: Dict[int, lowlevel.GVUSB_EVENT_INIT] = {}
        self.codes = {code["name"]: code["code"] for code in codes}
        for code in codes:
            self._check(code)

    def _check(self, code: Dict[str, Any]) -> None:
        """Check that the language has a code, with its number and text."""
        name, number = code["name"], code["code"]
        if getattr(lowlevel, name) != number:
            raise Mismatch(f"{name} is {getattr(lowlevel, name)}")
        if name == "GVUSB_OK":
            return
        member = gvusb.ErrorCode[name.removeprefix("GVUSB_").removeprefix("ERR_")]
        error = gvusb._errors.error_of(number)
        if member != number or error.code is not member or error.name != name or type(error) is gvusb.Error:
            raise Mismatch(f"{name} is {member!r}, and raises {error!r}")
        if code.get("text", str(error)) != str(error) or error.text != str(error):
            raise Mismatch(f'the text of {name} is "{error}"')

    def run(self, step: Step) -> None:
        start = time.monotonic()
        action: Callable[[Step], Optional[int]] = getattr(self, "do_" + step["do"].replace("-", "_"))
        try:
            result = action(step) or 0
        except gvusb.Error as error:
            result = error.code
        milliseconds = (time.monotonic() - start) * 1000
        if milliseconds < step.get("takes-ms", 0):
            raise Mismatch(f"took only {milliseconds} ms")
        wanted = step.get("fails", step.get("returns", 0))
        if result != self.codes.get(wanted, wanted):
            raise Mismatch(f"the result is {result}")

    def _handle(self, reader: Union[str, int]) -> int:
        return reader if isinstance(reader, int) else self.handles[reader]

    @staticmethod
    def _search(step: Step) -> Dict[str, Any]:
        search = {key: step[key] for key in ("family", "name") if key in step}
        return {**search, "id": int(step["id"], 16)} if "id" in step else search

    def do_bus(self, step: Step) -> None:
        launcher = os.environ["GVUSB_LAUNCHER"]
        subprocess.run([launcher, "--send", step["command"]], check=True, stdout=subprocess.DEVNULL)

    def do_scan(self, step: Step) -> None:
        wanted = [int(id, 16) for id in step["finds"]]
        end = time.monotonic() + LONG_ENOUGH
        while (found := self.calls.scan(**self._search(step))) != wanted:
            if not step.get("until") or time.monotonic() > end:
                raise Mismatch(f"found {found}")

    def do_open(self, step: Step) -> None:
        self.handles[step.get("as", "")] = self.calls.open(int(step["id"], 16))

    def do_open_first(self, step: Step) -> None:
        self.handles[step.get("as", "")] = self.calls.open_first(**self._search(step))

    def do_open_all(self, step: Step) -> None:
        handles = self.calls.open_all(**self._search(step))
        if len(handles) != len(step["as"]):
            raise Mismatch(f"opened {len(handles)}")
        self.handles.update(zip(step["as"], handles))

    def do_close(self, step: Step) -> None:
        self.calls.close(self._handle(step["reader"]))

    @staticmethod
    def _compare(step: Step, answer: bytes) -> None:
        if "answer" in step and answer != bytes_of(step["answer"]):
            raise Mismatch(f"the answer has {len(answer)} bytes: {answer[:16].hex(' ')}")

    def do_transceive(self, step: Step) -> None:
        frame = bytes_of(step["send"])
        self._compare(step, self.calls.transceive(self._handle(step["reader"]), frame, step.get("size", 512)))

    def do_transmit(self, step: Step) -> None:
        self.calls.transmit(self._handle(step["reader"]), bytes_of(step["send"]))

    def do_receive(self, step: Step) -> None:
        self._compare(step, self.calls.receive(self._handle(step["reader"]), step.get("size", 512)))

    def do_get(self, step: Step) -> None:
        handle, key = self._handle(step["reader"]), step["key"]
        if handle != lowlevel.GVUSB_DRIVER:
            value = self.calls.get(handle, key)
        elif key == "HOTPLUG-MODE":
            value = str(int(gvusb.driver.hotplug_mode()))
        elif key == "PARALLEL":
            value = str(int(gvusb.driver.parallel()))
        else:
            value = gvusb.driver.get(key)
        if value != step.get("value", value):
            raise Mismatch(f'the value is "{value}"')

    def do_set(self, step: Step) -> None:
        handle, key, value = self._handle(step["reader"]), step["key"], step["value"]
        if handle != lowlevel.GVUSB_DRIVER:
            self.calls.set(handle, key, value)
        elif key == "HOTPLUG-UPDATERATE" and is_number(value):
            gvusb.driver.set_update_interval(int(value) / 1e6)
        elif key == "HOTPLUG-SUSPEND" and value in ("0", "1"):
            gvusb.driver.suspend_polling(value == "1")
        elif key == "PARALLEL" and value in ("0", "1"):
            gvusb.driver.set_parallel(value == "1")
        else:
            gvusb.driver.set(key, value)

    def do_present(self, step: Step) -> None:
        present = self.calls.present(self._handle(step["reader"]))
        if present is not step.get("is", present):
            raise Mismatch(f"present: {present}")

    def do_watch(self, _step: Step) -> None:
        self.calls.watch()

    def do_unwatch(self, _step: Step) -> None:
        self.calls.unwatch()

    def do_event(self, step: Step) -> None:
        event = self._await_event(step)
        if event is None:
            raise Mismatch("there is no event")
        if (event.kind.name.lower(), event.id) != (step["kind"], int(step["id"], 16)):
            raise Mismatch(f"the event is {event!r}")
        if "handle" in step and event.handle != self._handle(step["handle"]):
            raise Mismatch(f"the event is {event!r}")

    def _await_event(self, step: Step) -> Optional[gvusb.Event]:
        if "exchanging" not in step:
            return self.calls.next_event(LONG_ENOUGH)
        end = time.monotonic() + LONG_ENOUGH
        event = None
        while event is None and time.monotonic() < end:
            self.calls.transceive(self._handle(step["exchanging"]), b"\x01", 512)
            event = self.calls.next_event(0)
        return event

    def do_call(self, step: Step) -> int:
        name, arguments = step["function"], list(step["arguments"])
        if name.endswith("EventHandler") and arguments[1] is not None:
            kind = arguments[1]
            if kind not in self.registrations:
                self.registrations[kind] = lowlevel.GVUSB_EVENT_INIT(
                    lowlevel.GVUSB_EVENT_CONNECT, uiCallbackType=kind, cbFct=lambda handle, id, text: None)
            arguments[1] = self.registrations[kind]
        if name == "GVUSB_Transmit":
            arguments = [arguments[0], arguments[2].encode(), arguments[1]]
        if name == "GVUSB_GetErrorText":
            # The function returns the text, so its code is that of the manager's last error.
            lowlevel.GVUSB_GetErrorText(*arguments)
            return lowlevel.GVUSB_GetLastError(0)[0]
        result = getattr(lowlevel, name)(*arguments)
        return result if isinstance(result, int) else 0


def main() -> int:
    language, table_file, name = sys.argv[1:]
    with open(table_file, encoding="utf-8") as file:
        table = json.load(file)
    gvusb.load()
    runner = Runner(Aio() if language == "aio" else Sync(), table["codes"])
    case = next(known for known in table["cases"] if known["name"] == name)
    for step in case["steps"]:
        try:
            runner.run(step)
        except Mismatch as mismatch:
            print(f"{json.dumps(step)}\n  {mismatch}", file=sys.stderr)
            return 1
    return 0


sys.exit(main())
