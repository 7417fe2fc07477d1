#!/usr/bin/env python3
"""Send a frame to every reader of a fleet at the same time, over an MQTT broker. Needs paho-mqtt 1.6.

usage: drive_fleet.py HOST PORT HEX

For a broker with TLS and users, set MQTT_CA_FILE, MQTT_USER and MQTT_PASSWORD_FILE in the environment.
"""

from __future__ import annotations

import json
import os
import queue
import sys
import time
import uuid

from paho.mqtt.client import Client, MQTTMessage, MQTTv5
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

LONGEST = 5  # seconds that a request may wait before it runs, and that documents may take to arrive
QUIET = 1  # seconds without a further document after which all have arrived
PAUSE = 0.05  # seconds without an answer after which busy readers are asked again

USER = os.environ.get("MQTT_USER", "anonymous")
ME = uuid.uuid4().hex


class Fleet:
    def __init__(self, host: str, port: int) -> None:
        self.inbox: queue.Queue[MQTTMessage] = queue.Queue()
        self.client = Client(ME, protocol=MQTTv5)
        self.client.on_message = lambda client, data, message: self.inbox.put(message)
        if "MQTT_CA_FILE" in os.environ:
            self.client.tls_set(os.environ["MQTT_CA_FILE"])
        if "MQTT_PASSWORD_FILE" in os.environ:
            with open(os.environ["MQTT_PASSWORD_FILE"], encoding="utf-8") as file:
                self.client.username_pw_set(USER, file.readline().rstrip("\n"))
        connected: queue.Queue[str] = queue.Queue()
        self.client.on_connect = lambda client, data, flags, reason, properties: connected.put(str(reason))
        self.client.connect(host, port)
        self.client.loop_start()
        if (reason := connected.get(timeout=10)) != "Success":
            raise ConnectionError(reason)

    def receive(self, seconds: float) -> MQTTMessage | None:
        try:
            return self.inbox.get(timeout=seconds)
        except queue.Empty:
            return None

    def readers(self) -> list[tuple[str, str]]:
        """Machine and name of each reader that can be reached. The broker keeps what each machine published last."""
        online: dict[str, bool] = {}
        present: dict[tuple[str, str], bool] = {}
        # With QoS 0, because a broker may limit how many messages of a higher QoS wait for a client.
        self.client.subscribe([("gvusb/+/status", 0), ("gvusb/+/readers/+", 0)])
        end = time.monotonic() + LONGEST
        while (message := self.receive(QUIET)) and time.monotonic() < end:
            _, machine, kind, *name = message.topic.split("/")
            if kind == "status":
                online[machine] = message.payload == b"online"
            else:
                present[machine, name[0]] = bool(message.payload) and json.loads(message.payload)["connected"]
        self.client.unsubscribe(["gvusb/+/status", "gvusb/+/readers/+"])
        return sorted(reader for reader in present if present[reader] and online.get(reader[0]))

    def send(self, reader: tuple[str, str], frame: bytes) -> bytes:
        """Send a frame, and return what identifies the answer."""
        machine, name = reader
        request = uuid.uuid4().bytes
        properties = Properties(PacketTypes.PUBLISH)
        properties.ResponseTopic = f"gvusb-answers/{USER}/{machine}/{ME}"
        properties.CorrelationData = request
        properties.MessageExpiryInterval = LONGEST
        self.client.publish(f"gvusb/{machine}/readers/{name}/transceive", frame, qos=1, properties=properties)
        return request

    def drive(self, frame: bytes) -> bool:
        """Send the frame to all readers and print their answers. Return whether all have answered."""
        readers = self.readers()
        self.client.subscribe(f"gvusb-answers/{USER}/+/{ME}", 1)
        waiting = {self.send(reader, frame): reader for reader in readers}
        busy: list[tuple[str, str]] = []
        answered = 0
        end = time.monotonic() + LONGEST + 1
        while (waiting or busy) and time.monotonic() < end:
            message = self.receive(PAUSE)
            if message is None:
                waiting.update({self.send(reader, frame): reader for reader in busy})
                busy = []
                continue
            reader = waiting.pop(getattr(message.properties, "CorrelationData", b""), None)
            if reader is None:
                continue
            result = dict(message.properties.UserProperty)
            if result["status"] == "ok":
                answered += 1
                print(*reader, message.payload.hex(" ").upper())
            elif result["status"] == "busy":  # others use it, too: try again
                busy.append(reader)
            else:  # after "unknown", the frame may have been sent: only the reader can tell
                print(*reader, result["status"] + ":", result["text"])
        for reader in [*waiting.values(), *busy]:
            print(*reader, "no answer")
        print(f"{answered} of {len(readers)} readers answered")
        return answered == len(readers)


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    try:
        sys.exit(0 if Fleet(sys.argv[1], int(sys.argv[2])).drive(bytes.fromhex(sys.argv[3])) else 1)
    except (OSError, ValueError, queue.Empty) as error:
        sys.exit(f"drive_fleet: {error or 'the broker does not answer'}")
