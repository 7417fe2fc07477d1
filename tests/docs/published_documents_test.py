#!/usr/bin/env python3
"""Check that what a service publishes fits the JSON schema and has no other members.

usage: published_documents_test.py EMULATOR SERVICE DOCS_FOLDER
"""
import json
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "fleet"))

from harness import Surroundings, command, run_on_readers, wait_until  # noqa: E402
from topics_schema import Schema  # noqa: E402

# Two of the same device ID, one without a type number, and one that cannot be identified at first.
READERS = ("id=1A2B3C", "id=1A2B3C", "id=2B0001,missing=10", "id=3C0001,plugged=no", "id=4D0001,plugged=no")
MACHINE = "gvusb/gate"


def main():
    emulator, service, docs = sys.argv[1:]
    run_on_readers(emulator, READERS)
    schema = Schema(pathlib.Path(docs) / "mqtt-topics.schema.json")
    with Surroundings(service) as test:
        broker = test.broker()
        client = test.client(broker, "gvusb/#")
        test.service(broker.port)
        wait_until(lambda: client.last(f"{MACHINE}/status") == "online", "online")
        wait_until(lambda: client.document("gate", "2B0001"), "published")
        command("plug 4")
        wait_until(lambda: client.document("gate", "3C0001"), "connected")
        command("refuse 5 EACCES")
        command("plug 5")
        wait_until(lambda: [event for event in client.events("gate") if event["event"] == "error"], "reported")
        command("unplug 1")
        wait_until(lambda: [event for event in client.events("gate") if event["event"] == "disconnect"], "disconnected")
        scan = client.answer(client.publish(f"{MACHINE}/scan"))
        check(test, schema, client, scan)


def check(test, schema, client, scan):
    try:
        readers = json.loads(scan.payload)
        schema.validate("scan", readers)
        seen = {"scanned": len(readers), "reader": 0, "connect": 0, "disconnect": 0, "error": 0, "null": 0, "place": 0}
        for message in client.messages:
            if "/readers/" in message.topic and message.payload and message.topic.count("/") == 3:
                document = json.loads(message.payload)
                schema.validate("reader", document)
                if document["name"] != message.topic.split("/")[-1]:
                    raise AssertionError(f"{message.topic} has the document of {document['name']}")
                seen["reader"] += 1
                seen["null"] += document["type"] is None
                seen["place"] += "@" in document["name"]
        for event in client.events("gate"):
            schema.validate("event", event)
            seen[event["event"]] += 1
        print(seen)
        if not all(seen.values()):
            raise AssertionError(f"not all kinds were published: {seen}")
    except BaseException:
        test.show_logs()
        raise


main()
