"""A broker, services and clients on this machine, for the tests of a fleet.

A test program runs itself on virtual readers (run_on_readers), so that it can end services and start them again on the same
bus. Everything that a test starts is ended with it, by its process ID.
"""

import contextlib
import itertools
import json
import os
import queue
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import uuid

import paho.mqtt.client as paho
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

# How long to wait for what is sure to happen: only a hang takes this long.
PATIENCE = float(os.environ.get("GVUSB_TEST_PATIENCE", "60"))


def wait_until(condition, what, patience=PATIENCE):
    """Return the condition's value once it is true."""
    end = time.monotonic() + patience
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"after {patience} s: not {what}")
        time.sleep(0.01)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Child:
    """A process of the test."""

    def __init__(self, command, log, **options):
        self.log_name = log
        with open(log, "ab") as output:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output, **options)

    @property
    def pid(self):
        return self.process.pid

    def is_running(self):
        return self.process.poll() is None

    def send(self, number):
        self.process.send_signal(number)

    def end(self, number=signal.SIGTERM):
        if self.is_running():
            self.process.send_signal(signal.SIGCONT)
            self.process.send_signal(number)
        return self.process.wait(PATIENCE)

    def log(self):
        with open(self.log_name, encoding="utf-8", errors="replace") as lines:
            return lines.read()


class Broker:
    """A mosquitto of the test. It keeps its sessions over restarts."""

    def __init__(self, folder, lines=(), port=None, listener_lines=()):
        self.folder = folder
        self.port = port or free_port()
        self.child = None
        self.log_name = os.path.join(folder, "broker.log")
        self.configuration = os.path.join(folder, "mosquitto.conf")
        with open(self.configuration, "w", encoding="utf-8") as file:
            settings = [f"listener {self.port} 127.0.0.1", *listener_lines]
            if not any(line.startswith("allow_anonymous") for line in [*lines, *listener_lines]):
                settings.append("allow_anonymous true")
            settings += ["persistence true", f"persistence_location {folder}/", "autosave_on_changes true",
                         "autosave_interval 1", *lines]
            if os.getuid() == 0:
                settings.append("user root")
            file.write("\n".join(settings) + "\n")
        self.start()

    def start(self):
        mosquitto = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
        for _ in range(100):
            self.child = Child([mosquitto, "-v", "-c", self.configuration], self.log_name)
            if self._accepts_connections():
                return
            time.sleep(0.1)  # the port of a killed broker may be in use for a moment
        raise AssertionError("mosquitto does not start:\n" + self.child.log())

    def _accepts_connections(self):
        while self.child.is_running():
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", self.port), 1):
                return True
            time.sleep(0.01)
        return False

    def kill(self):
        self.child.end(signal.SIGKILL)

    def close(self):
        if self.child is not None:
            self.child.end()


class Link:
    """The only way to the broker, which can be cut."""

    def __init__(self, port):
        self._target = port
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._lock = threading.Lock()
        self._ends = []
        self._start(self._accept)

    @staticmethod
    def _start(function, *arguments):
        threading.Thread(target=function, args=arguments, daemon=True).start()

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                near, _ = self._listener.accept()
                far = socket.create_connection(("127.0.0.1", self._target))
                with self._lock:
                    self._ends += [near, far]
                self._start(self._pass_on, near, far)
                self._start(self._pass_on, far, near)

    @staticmethod
    def _pass_on(source, sink):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                sink.sendall(data)
        with contextlib.suppress(OSError):
            sink.shutdown(socket.SHUT_RDWR)

    def cut(self):
        """End the connections in the middle of whatever they carry."""
        with self._lock:
            for end in self._ends:
                with contextlib.suppress(OSError):
                    end.shutdown(socket.SHUT_RDWR)
            self._ends.clear()

    def close(self):
        self._listener.close()
        self.cut()


class Answer:
    def __init__(self, message):
        self.payload = message.payload
        self.correlation = getattr(message.properties, "CorrelationData", b"")
        self.properties = dict(getattr(message.properties, "UserProperty", []))
        self.status = self.properties.get("status")
        self.code = self.properties.get("code")
        self.text = self.properties.get("text")
        self.duration = self.properties.get("duration")


class Client:
    """A client that publishes requests and collects everything that it receives."""

    def __init__(self, broker, prefix="gvusb", **connection):
        self.prefix = prefix
        self.messages = []  # all but answers
        self._numbers = itertools.count(1)
        self.answers_by_correlation = {}
        self.name = uuid.uuid4().hex
        self.response_topic = f"gvusb-answers/anonymous/all/{self.name}"
        self.client = paho.Client(self.name, protocol=paho.MQTTv5)
        self.client.on_message = self._received
        self.client.on_subscribe = lambda *_: self._subscribed.put(True)
        self.client.on_connect = self._reconnected
        self._subscribed = queue.Queue()
        self._connected = queue.Queue()
        self._topics = []
        self.connections = 0
        port = connection.pop("port", broker.port)
        self._session = Properties(PacketTypes.CONNECT)
        self._session.SessionExpiryInterval = 300
        self.client.reconnect_delay_set(1, 1)
        if "user" in connection:
            self.client.username_pw_set(connection["user"], connection["password"])
        if "ca" in connection:
            self.client.tls_set(ca_certs=connection["ca"])
        self.client.connect("127.0.0.1", port, keepalive=60, clean_start=paho.MQTT_CLEAN_START_FIRST_ONLY,
                            properties=self._session)
        self.client.loop_start()
        self._connected.get(timeout=PATIENCE)
        self.subscribe(self.response_topic, 1)

    def _reconnected(self, *_):
        for topic, qos in self._topics:
            self.client.subscribe(topic, qos)
        self.connections += 1
        self._connected.put(True)

    def subscribe(self, topic, qos=1):
        self._topics.append((topic, qos))
        self.client.subscribe(topic, qos)
        self._subscribed.get(timeout=PATIENCE)

    def _received(self, _client, _data, message):
        if message.topic != self.response_topic:
            self.messages.append(message)
            return
        answer = Answer(message)
        self.answers_by_correlation.setdefault(answer.correlation, []).append(answer)

    def publish(self, topic, payload=b"", correlation=None, response_topic=None, expiry=None, qos=1, retain=False):
        """Publish a request. Return its correlation data."""
        properties = Properties(PacketTypes.PUBLISH)
        if correlation is None:
            correlation = f"{self.name}-{next(self._numbers)}".encode()
        if correlation:
            properties.CorrelationData = correlation
        if response_topic is None:
            response_topic = self.response_topic
        if response_topic:
            properties.ResponseTopic = response_topic
        if expiry is not None:
            properties.MessageExpiryInterval = expiry
        self.client.publish(topic, payload, qos, retain, properties)
        return correlation

    def request(self, machine, reader, operation, payload=b"", **options):
        return self.publish(f"{self.prefix}/{machine}/readers/{reader}/{operation}", payload, **options)

    def answer(self, correlation, patience=PATIENCE):
        """Wait for the first answer to a request."""
        return wait_until(lambda: self.answers_by_correlation.get(correlation), "answered", patience)[0]

    def ask(self, machine, reader, operation, payload=b"", **options):
        return self.answer(self.request(machine, reader, operation, payload, **options))

    def last(self, topic):
        """The payload of the last message on a topic as text, or None."""
        found = [message.payload.decode() for message in list(self.messages) if message.topic == topic]
        return found[-1] if found else None

    def document(self, machine, reader):
        text = self.last(f"{self.prefix}/{machine}/readers/{reader}")
        return json.loads(text) if text else None

    def events(self, machine):
        topic = f"{self.prefix}/{machine}/events"
        return [json.loads(message.payload) for message in list(self.messages) if message.topic == topic]

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()


class Service:
    """A gvusb-mqtt of the test."""

    def __init__(self, program, folder, port, machine="gate", options=(), environment=None, state=None, scheme="mqtt",
                 host="127.0.0.1"):
        self.machine = machine
        self.state = os.path.join(folder, state or "state-" + machine)
        self._command = [program, "--broker", f"{scheme}://{host}:{port}", "--machine", machine,
                         "--state-directory", self.state, *options]
        self._log = os.path.join(folder, machine + ".log")
        self._environment = {**os.environ, **(environment or {})}
        self.start()

    def start(self):
        self.child = Child(self._command, self._log, env=self._environment)

    def kill(self):
        self.child.end(signal.SIGKILL)

    def log(self):
        return self.child.log()


def command(line):
    """Send a command to the virtual readers. Return its data."""
    with socket.socket(socket.AF_UNIX) as bus:
        bus.connect(os.environ["GVUSB_EMULATE_SOCKET"])
        bus.sendall(line.encode() + b"\n")
        answer = bus.makefile().readline().rstrip("\n")
    if not answer.startswith("ok"):
        raise AssertionError(f"{line}: {answer}")
    return answer[3:]


def frames(reader):
    """How many frames the reader with this number has received."""
    return int(command(f"frames {reader}").split()[0])


def run_on_readers(emulator, readers):
    """Run this program again, on these virtual readers, unless it already runs there."""
    if "GVUSB_EMULATE_SOCKET" in os.environ:
        return
    arguments = [argument for reader in readers for argument in ("--reader", reader)]
    os.execv(emulator, [emulator, "--no-config", *arguments, "--", sys.executable, "-B", *sys.argv])


class Surroundings(contextlib.ExitStack):
    """What a test starts, in a folder of its own. It is ended with the test; the logs are shown if it fails."""

    def __init__(self, service_program):
        super().__init__()
        self.program = service_program
        self._children = []
        self.folder = self.enter_context(tempfile.TemporaryDirectory(prefix="gvusb-fleet-"))

    def broker(self, **options):
        broker = Broker(self.folder, **options)
        self.callback(broker.close)
        self._children.append(broker)
        return broker

    def link(self, broker):
        link = Link(broker.port)
        self.callback(link.close)
        return link

    def client(self, broker, *topics, **options):
        client = Client(broker, **options)
        self.callback(client.close)
        for topic in topics:
            client.subscribe(topic)
        return client

    def service(self, port, **options):
        service = Service(self.program, self.folder, port, **options)
        self.callback(lambda: service.child.end(signal.SIGKILL))
        self._children.append(service)
        return service

    def show_logs(self):
        for child in self._children:
            print(f"--- {child.__class__.__name__}:\n{child.child.log()}", file=sys.stderr)
