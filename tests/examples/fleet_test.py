#!/usr/bin/env python3
"""Tests of the examples that drive a fleet, with a real broker and services that have their own virtual readers.

usage: fleet_test.py EMULATOR SERVICE CASE EXAMPLE...
"""

import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "fleet"))

from harness import PATIENCE, Client, Service, Surroundings, wait_until  # noqa: E402

SLOW_ANSWERS = "at 0 delay 1 in {}\n"


class Machine(Service):
    """A service on a bus of its own."""

    def __init__(self, test, broker, name, readers, options=(), script=""):
        self.test = test
        self.broker = broker
        self._script = os.path.join(test.folder, f"{name}.script")
        with open(self._script, "w", encoding="utf-8") as file:
            file.write(script)
        self._readers = readers
        super().__init__(PROGRAMS["service"], test.folder, broker.port, machine=name, options=options)
        test.callback(lambda: self.child.end())

    def start(self):
        if self._command[0] == PROGRAMS["service"]:
            readers = [argument for reader in self._readers for argument in ("--reader", reader)]
            self._command = [PROGRAMS["emulator"], "--no-config", *readers, "--script", self._script, "--", *self._command]
        super().start()
        client = Client(self.broker)
        try:
            for topic in ("status", "readers/+"):
                client.subscribe(f"gvusb/{self.machine}/{topic}")
            wait_until(lambda: self._is_ready(client), f"{self.machine} online", PATIENCE)
        finally:
            client.close()

    def _is_ready(self, client):
        documents = {message.topic: json.loads(message.payload) for message in list(client.messages)
                     if "/readers/" in message.topic}
        connected = sum(document["connected"] for document in documents.values())
        return client.last(f"gvusb/{self.machine}/status") == "online" and connected == len(self._readers)

    @property
    def service_pid(self):
        """The process of the service, which is a child of the launcher."""
        with open(f"/proc/{self.child.pid}/task/{self.child.pid}/children", encoding="ascii") as file:
            return int(file.read().split()[0])

    def kill_service(self):
        os.kill(self.service_pid, signal.SIGKILL)
        self.child.process.wait(PATIENCE)

    def unplug(self, reader):
        with open(f"/proc/{self.service_pid}/environ", "rb") as file:
            bus = re.search(rb"GVUSB_EMULATE_SOCKET=([^\0]*)", file.read()).group(1)
        subprocess.run([PROGRAMS["emulator"], "--send", f"unplug {reader}"], check=True, stdout=subprocess.DEVNULL,
                       env={**os.environ, "GVUSB_EMULATE_SOCKET": bus.decode()})


class Example:
    """A run of the example."""

    def __init__(self, port, frame):
        self._process = subprocess.Popen([*PROGRAMS["example"], "localhost", str(port), frame], text=True,
                                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def result(self):
        """The lines that it printed, sorted, and its exit status."""
        output = self._process.communicate(timeout=PATIENCE)[0]
        return sorted(output.splitlines()), self._process.returncode


def check_equal(actual, expected):
    if actual != expected:
        raise AssertionError(f"{actual!r} instead of {expected!r}")


def watch(test, broker, *topics):
    client = Client(broker)
    test.callback(client.close)
    for topic in topics:
        client.subscribe(topic)
    return client


def sends_to_every_reader(test):
    broker = test.broker()
    Machine(test, broker, "gate-1", ["id=1A2B3C"])
    Machine(test, broker, "gate-2", ["id=2B0001,reply=fixed:0A0B", "id=2B0002,reply=reverse"])
    check_equal(Example(broker.port, "0200ff").result(),
                (["3 of 3 readers answered", "gate-1 1A2B3C 02 00 FF", "gate-2 2B0001 0A 0B", "gate-2 2B0002 FF 00 02"], 0))


def leaves_out_who_cannot_be_reached(test):
    broker = test.broker()
    client = watch(test, broker, "gvusb/#")
    gate_1 = Machine(test, broker, "gate-1", ["id=1A2B3C", "id=2B0001"])
    gate_2 = Machine(test, broker, "gate-2", ["id=3C0001"])
    gate_2.kill_service()
    wait_until(lambda: client.last("gvusb/gate-2/status") == "offline", "offline")
    gate_1.unplug(2)
    wait_until(lambda: not client.document("gate-1", "2B0001")["connected"], "unplugged")
    check_equal(Example(broker.port, "01").result(), (["1 of 1 readers answered", "gate-1 1A2B3C 01"], 0))


def tells_why_a_reader_does_not_answer(test):
    broker = test.broker()
    client = watch(test, broker)
    Machine(test, broker, "gate-1", ["id=1A2B3C,reply=none", "id=2B0001"])
    client.publish("gvusb/gate-1/readers/77", b'{"connected": true}', retain=True)
    lines, status = Example(broker.port, "01").result()
    absent = lines.pop()
    if not re.fullmatch(r"gate-1 77 absent: \w.*", absent):
        raise AssertionError(absent)
    check_equal((lines, status), (["1 of 3 readers answered", "gate-1 1A2B3C failed: GVUSB: (-1130) timeout",
                                   "gate-1 2B0001 01"], 1))


def gives_up_on_a_service_that_does_not_respond(test):
    broker = test.broker()
    gate_1 = Machine(test, broker, "gate-1", ["id=1A2B3C"])
    Machine(test, broker, "gate-2", ["id=2B0001"])
    stopped = gate_1.service_pid
    os.kill(stopped, signal.SIGSTOP)
    try:
        result = Example(broker.port, "01").result()
    finally:
        os.kill(stopped, signal.SIGCONT)
    check_equal(result, (["1 of 2 readers answered", "gate-1 1A2B3C no answer", "gate-2 2B0001 01"], 1))


def asks_busy_readers_again(test):
    broker = test.broker()
    client = watch(test, broker, "gvusb-answers/#")
    Machine(test, broker, "gate-1", ["id=1A2B3C"], ["--queue", "1"], SLOW_ANSWERS.format(300))
    runs = [(frame, Example(broker.port, frame)) for frame in ("01", "02", "03", "04", "05")]
    for frame, run in runs:
        check_equal(run.result(), (["1 of 1 readers answered", f"gate-1 1A2B3C {frame}"], 0))
    statuses = [dict(message.properties.UserProperty)["status"] for message in client.messages]
    if "busy" not in statuses:
        raise AssertionError(f"the reader was never busy: {statuses}")


def does_not_repeat_what_may_have_run(test):
    broker = test.broker()
    client = watch(test, broker, "gvusb/gate-1/readers/1A2B3C/transceive")
    gate_1 = Machine(test, broker, "gate-1", ["id=1A2B3C"], (), SLOW_ANSWERS.format(900))
    run = Example(broker.port, "01")
    wait_until(lambda: client.messages, "requested")
    time.sleep(0.4)  # the request runs for 0.9 s
    gate_1.kill_service()
    gate_1.start()
    lines, status = run.result()
    check_equal((lines[0], status), ("0 of 1 readers answered", 1))
    if not re.fullmatch(r"gate-1 1A2B3C unknown: \w.*", lines[1]):
        raise AssertionError(lines)
    check_equal(len(client.messages), 1)


def uses_tls_and_a_password(test):
    folder = test.folder

    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], check=True, cwd=folder, capture_output=True)

    openssl("req", "-x509", "-newkey", "rsa:2048", "-noenc", "-subj", "/CN=localhost", "-addext",
            "subjectAltName=DNS:localhost,IP:127.0.0.1", "-keyout", "key", "-out", "certificate")
    pathlib.Path(folder, "password").write_text("right\n", encoding="utf-8")
    pathlib.Path(folder, "wrong").write_text("wrong\n", encoding="utf-8")
    subprocess.run(["mosquitto_passwd", "-c", "-b", f"{folder}/users", "shop", "right"], check=True)
    broker = test.broker(lines=["allow_anonymous false", f"password_file {folder}/users"],
                         listener_lines=[f"certfile {folder}/certificate", f"keyfile {folder}/key"])
    environment = {"MQTT_CA_FILE": f"{folder}/certificate", "MQTT_USER": "shop", "MQTT_PASSWORD_FILE": f"{folder}/password"}
    os.environ.update(environment)
    check_equal(Example(broker.port, "01").result(), (["0 of 0 readers answered"], 0))
    os.environ["MQTT_PASSWORD_FILE"] = f"{folder}/wrong"
    lines, status = Example(broker.port, "01").result()
    check_equal(status, 1)
    if not re.match(r"(?i)drive_fleet: .*not authori[sz]ed", lines[-1]):
        raise AssertionError(lines)


def says_what_is_wrong(test):
    broker = test.broker()
    lines, status = Example(broker.port, "0x").result()
    check_equal((lines[-1].startswith("drive_fleet: "), status), (True, 1))
    broker.close()
    lines, status = Example(broker.port, "01").result()
    check_equal(("refused" in lines[-1] and lines[-1].startswith("drive_fleet: "), status), (True, 1))


CASES = [sends_to_every_reader, leaves_out_who_cannot_be_reached, tells_why_a_reader_does_not_answer,
         gives_up_on_a_service_that_does_not_respond, asks_busy_readers_again, does_not_repeat_what_may_have_run,
         uses_tls_and_a_password, says_what_is_wrong]

PROGRAMS = {"emulator": sys.argv[1], "service": sys.argv[2], "example": sys.argv[4:]}


def main():
    for name in ("MQTT_CA_FILE", "MQTT_USER", "MQTT_PASSWORD_FILE"):
        os.environ.pop(name, None)
    os.environ["PYTHONDONTWRITEBYTECODE"] = "1"
    case = {function.__name__: function for function in CASES}[sys.argv[3]]
    with Surroundings(PROGRAMS["service"]) as test:
        try:
            case(test)
        except BaseException:
            test.show_logs()
            raise


main()
