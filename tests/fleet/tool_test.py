#!/usr/bin/env python3
"""Tests of list, info, get, set and send of gvusb --broker with a real service and broker, on virtual readers."""

import json
import re
import signal

import tool
from cases import BULK, TWO, case, check, check_equal, main, started, wait_offline, wait_online
from harness import command, frames, wait_until

TYPED = "id=1A2B3C,family=Gate,name=Gate 7,type=G-7"


def expect(result, status, output="", errors=""):
    """Compare a result; `errors` is a pattern, "" for none."""
    check_equal((result.status, result.output), (status, output))
    check(re.search(errors, result.errors) if errors else not result.errors, result.errors)


def expect_problem(result, status, problem):
    expect(result, status, errors="^gvusb: reader gate/1A2B3C: " + problem)


def document(name, **members):
    return json.dumps({"name": name, "id": name.split("@")[0], "family": "Gate", "device": "Gate 7", "interface": "X",
                       "type": None, "path": None, "bus": None, "address": None, "connected": True,
                       "since": "2026-11-23T12:00:00.123Z", **members})


def publish_retained(client, topic, payload):
    """Leave a document at the broker, as a service does, and wait until it is there."""
    client.publish(f"gvusb/{topic}", payload, correlation=b"", response_topic="", retain=True)
    wait_until(lambda: client.last(f"gvusb/{topic}") == payload, topic)


# list


@case(*TWO)
def lists_readers_of_all_machines(test):
    broker, _, client = started(test)
    test.service(broker.port, machine="desk-12")
    wait_online(client, "desk-12")
    for machine in ("gate", "desk-12"):
        tool.wait_listed(client, "1A2B3C", "CAFE", machine=machine)
    expect(tool.run(broker, "list"), 0, """\
MACHINE  INDEX  ID      FAMILY  NAME    INTERFACE  TYPE  PATH     BUS  ADDRESS
desk-12  0      1A2B3C  Gate    Gate 7  TESK-RCI2  100   usb:1-1  1    2
desk-12  1      CAFE    Desk    Desk 1  control    100   usb:1-2  1    3
gate     2      1A2B3C  Gate    Gate 7  TESK-RCI2  100   usb:1-1  1    2
gate     3      CAFE    Desk    Desk 1  control    100   usb:1-2  1    3
""")


@case(TYPED)
def lists_readers_as_json(test):
    broker, _, client = started(test)
    tool.wait_listed(client, "1A2B3C")
    result = tool.run(broker, "list", "--json")
    expect(result, 0, result.output)
    readers = json.loads(result.output)
    check_equal(readers, [{"machine": "gate", "reader": "1A2B3C", "index": 0, "id": "1A2B3C", "family": "Gate",
                           "name": "Gate 7", "interface": "TESK-RCI2", "type": "G-7", "path": "usb:1-1", "bus": 1,
                           "address": 2}])
    check_equal(next(iter(readers[0])), "machine")


@case(*TWO)
def searches(test):
    broker, _, client = started(test)
    tool.wait_listed(client, "1A2B3C", "CAFE")
    publish_retained(client, "desk/status", "online")
    publish_retained(client, "desk/readers/CAFE", document("CAFE", family="Desk"))
    for search, found in ((("--family", "Gate"), "gate/1A2B3C"), (("--name", "Desk 1"), "gate/CAFE"),
                          (("--id", "0xcafe"), "desk/CAFE gate/CAFE"), (("--machine", "desk"), "desk/CAFE"),
                          (("--machine", "gate", "--id", "cafe"), "gate/CAFE")):
        result = tool.run(broker, "list", "--json", *search)
        check_equal(" ".join(f"{each['machine']}/{each['reader']}" for each in json.loads(result.output)), found)
    result = tool.run(broker, "list", "--family", "Door")
    expect(result, 4, errors="\nRun 'list' without a search to see all readers.\n$")


@case(*TWO)
def counts_readers_that_are_not_there(test):
    broker, _, client = started(test)
    tool.wait_listed(client, "1A2B3C", "CAFE")
    publish_retained(client, "desk/status", "offline")
    publish_retained(client, "desk/readers/1", document("1"))
    publish_retained(client, "desk/readers/2", document("2"))
    command("unplug 2")
    wait_until(lambda: not client.document("gate", "CAFE")["connected"], "disconnected")
    result = tool.run(broker, "list", "--json")
    check_equal([each["id"] for each in json.loads(result.output)], ["1A2B3C"])
    check_equal(result.errors, "gvusb: note: 1 machine is offline; not listed: 2 readers\n"
                               "gvusb: note: not listed because disconnected: 1 reader\n")
    check_equal(tool.run(broker, "list", "--json", "--machine", "gate").errors,
                "gvusb: note: not listed because disconnected: 1 reader\n")
    check_equal(tool.run(broker, "list", "--id", "1A2B3C").errors,
                "gvusb: note: 1 machine is offline\n")


@case()
def reports_that_no_reader_is_known(test):
    broker = test.broker()
    expect(tool.run(broker, "list"), 4, errors=r"^gvusb: .*\[GVUSB_ERR_NO_DEVICE_FOUND\]\nDoes gvusb-mqtt run ")
    expect(tool.run(broker, "list", "--json"), 4, "[]\n", r"\[GVUSB_ERR_NO_DEVICE_FOUND\]")


@case()
def lists_more_readers_than_a_broker_queues(test):
    broker = test.broker(lines=["max_inflight_messages 5", "max_queued_messages 20"])
    client = test.client(broker, "gvusb/gate/status")
    count = 300
    for number in range(count):
        client.publish(f"gvusb/gate/readers/{number:X}", document(f"{number:X}"), correlation=b"", response_topic="",
                       retain=True)
    publish_retained(client, "gate/status", "online")
    check_equal(len(json.loads(tool.run(broker, "list", "--json").output)), count)


@case()
def ignores_documents_of_others(test):
    broker = test.broker()
    client = test.client(broker, "gvusb/#")
    publish_retained(client, "gate/status", "online")
    publish_retained(client, "gate/readers/1", document("1", family="\x1b[2J", type="\x07"))
    publish_retained(client, "gate/readers/2", "[")
    publish_retained(client, "gate/readers/3/more", document("3"))
    publish_retained(client, "gate 9/status", "online")
    publish_retained(client, "gate 9/readers/1", document("1"))
    result = tool.run(broker, "list")
    check_equal(result.output.splitlines()[1:], ["gate     0      1   ?[2J    Gate 7  X          ?     -     -    -"])


@case(TYPED)
def uses_another_prefix(test):
    broker = test.broker()
    client = test.client(broker, "site/gvusb/#", prefix="site/gvusb")
    test.service(broker.port, options=["--prefix", "site/gvusb"])
    wait_until(lambda: client.document("gate", "1A2B3C"), "published")
    wait_until(lambda: client.last("site/gvusb/gate/status") == "online", "online")
    options = ("--prefix", "site/gvusb")
    check_equal(tool.run(broker, "list", options=options).status, 0)
    expect(tool.run(broker, "send", "gate/1A2B3C", "02", options=options), 0, "02\n")
    expect(tool.run(broker, "list", options=("--prefix", "a//b")), 2, errors="'a//b' is not the beginning of a topic")


# info, get and set


@case(TYPED)
def shows_one_reader(test):
    broker, _, client = started(test)
    tool.wait_listed(client, "1A2B3C")
    result = tool.run(broker, "info", "gate/1a2b3c")
    check_equal(re.sub(r"(?<=Device handle   )\d+", "N", result.output), """\
Machine         gate
Device ID       1A2B3C
Family          Gate
Name            Gate 7
Interface       TESK-RCI2
Type number     G-7
Device handle   N
Time-out in ms  1000
USB path        usb:1-1
USB bus         1
USB address     2
""")
    result = tool.run(broker, "info", "gate/1A2B3C", "--json")
    found = json.loads(result.output)
    check(isinstance(found.pop("handle"), int), result.output)
    check_equal(list(found.items()), [("machine", "gate"), ("id", "1A2B3C"), ("family", "Gate"), ("name", "Gate 7"),
                                      ("interface", "TESK-RCI2"), ("type", "G-7"), ("timeout", 1000),
                                      ("path", "usb:1-1"), ("bus", 1), ("address", 2)])


@case("id=CAFE,type=left,reply=fixed:01", "id=CAFE,type=right,reply=fixed:02")
def names_readers_with_one_id_by_their_place(test):
    broker, _, client = started(test)
    tool.wait_listed(client, "CAFE@1-1", "CAFE@1-2")
    result = tool.run(broker, "list", "--id", "CAFE")
    check_equal([line.split()[2] for line in result.output.splitlines()], ["ID", "CAFE@1-1", "CAFE@1-2"])
    expect(tool.run(broker, "send", "gate/cafe@1-2", "FF"), 0, "02\n")
    expect(tool.run(broker, "get", "gate/CAFE@1-1", "TYPENUMBER"), 0, "left\n")
    expect(tool.run(broker, "send", "gate/CAFE", "FF"), 4, errors="^gvusb: reader gate/CAFE: ")


@case(TYPED)
def gets_parameters(test):
    broker, _, _ = started(test)
    expect(tool.run(broker, "get", "gate/1A2B3C", "timeout"), 0, "1000\n")
    expect(tool.run(broker, "get", "gate/1A2B3C", "Present", "--json"), 0,
           '{\n  "machine": "gate",\n  "PRESENT": "1"\n}\n')
    result = tool.run(broker, "get", "gate/1A2B3C")
    check_equal(re.sub(r"(?<=DEVICEHND   )\d+", "N", result.output), """\
DEVICE-ID   1A2B3C
FAMILYNAME  Gate
DEVICENAME  Gate 7
INTERFACE   TESK-RCI2
TYPENUMBER  G-7
DEVICEHND   N
TIMEOUT     1000
PRESENT     1
""")
    found = json.loads(tool.run(broker, "get", "gate/1A2B3C", "--json").output)
    check_equal((list(found)[0], found["TYPENUMBER"], len(found)), ("machine", "G-7", 9))
    expect_problem(tool.run(broker, "get", "gate/1A2B3C", "COLOR"), 1, r"COLOR: .*\[GVUSB_ERR_")


@case(TYPED)
def shows_what_the_reader_lacks_as_unknown(test):
    command("remove-string 1 10")
    broker, _, _ = started(test)
    result = tool.run(broker, "get", "gate/1A2B3C")
    check("TYPENUMBER  -\n" in result.output, result.output)
    check_equal(json.loads(tool.run(broker, "info", "gate/1A2B3C", "--json").output)["type"], None)


@case(TYPED)
def sets_parameters(test):
    broker, _, _ = started(test)
    expect(tool.run(broker, "set", "gate/1A2B3C", "timeout", "200"), 0)
    expect(tool.run(broker, "get", "gate/1A2B3C", "TIMEOUT"), 0, "200\n")
    resets = int(re.search(r"\bresets=(\d+)", command("counts 1")).group(1))
    result = tool.run(broker, "set", "gate/1a2b3c", "RESETDEVICE", "--json")
    check_equal(list(json.loads(result.output).items()), [("machine", "gate"), ("target", "gate/1a2b3c"),
                                                          ("key", "RESETDEVICE"), ("value", None),
                                                          ("lasting", True)])
    check_equal(int(re.search(r"\bresets=(\d+)", command("counts 1")).group(1)), resets + 1)
    command("fail-reset 1 on")
    expect_problem(tool.run(broker, "set", "gate/1A2B3C", "RESETDEVICE"), 1, r"RESETDEVICE: .*\[GVUSB_ERR_")


@case(TYPED)
def sets_nothing_that_a_service_would_refuse(test):
    broker, _, client = started(test)
    for arguments, why in ((("TIMEOUT",), "TIMEOUT: '' is not a number"), (("TIMEOUT", "0"), "'0' is not a number"),
                           (("TIMEOUT", "60001"), "'60001'"), (("TIMEOUT", "2s"), "'2s'"),
                           (("RESETPIPE", "1"), "RESETPIPE has no value"), (("COLOR", "1"), "'COLOR' cannot be set")):
        expect(tool.run(broker, "set", "gate/1A2B3C", *arguments), 2, errors=why)
    check(not any("/set" in message.topic for message in client.messages), "sent nevertheless")


@case(BULK)
def ends_the_call_that_is_running(test):
    command("mute 1 in")
    broker, _, _ = started(test)
    expect(tool.run(broker, "set", "gate/1A2B3C", "TIMEOUT", "60000"), 0)
    sending = tool.Running(test, broker, "send", "gate/1A2B3C", "02", "--timeout", "60000")
    wait_until(lambda: frames(1) == 1, "sent")

    def cancels():
        expect(tool.run(broker, "set", "gate/1A2B3C", "CANCEL"), 0)
        return sending.process.poll() is not None

    wait_until(cancels, "canceled")
    expect_problem(sending.result(), 1, r".*\[GVUSB_ERR_CANCELED\]|.*\[GVUSB_ERR_")


# send


@case(TYPED)
def sends_frames(test):
    broker, _, _ = started(test)
    expect(tool.run(broker, "send", "gate/1a2b3c", "02", "00:07", "FF01"), 0, "02 00 07 FF 01\n")
    result = tool.run(broker, "send", "gate/1A2B3C", "0200", "--json")
    check_equal(re.sub(r'"ms":[0-9.]+', '"ms":N', result.output),
                '{"machine":"gate","reader":"1A2B3C","sent":"0200","received":"0200","ms":N,"status":"ok"}\n')
    expect(tool.run(broker, "send", "gate/1A2B3C", stdin="# frames\n01\n\n02 03\n"), 0, "01\n02 03\n")
    expect(tool.run(broker, "send", "gate/1A2B3C", stdin="01\nxyz\n"), 2, "01\n", "line 2: 'xyz' is not a hexadecimal")


@case("id=1A2B3C,reply=pattern:60000")
def sends_for_long_answers(test):
    broker, _, _ = started(test)
    check_equal(len(tool.run(broker, "send", "gate/1A2B3C", "01").output.split()), 60000)


@case(TYPED)
def summarizes_many_exchanges(test):
    broker, _, _ = started(test)
    result = tool.run(broker, "send", "gate/1A2B3C", "02", "--repeat", "50")
    check_equal(re.sub(r"\d+\.\d+ ms", "N ms", result.output), """\
02
answered         50
failed           0
minimum          N ms
median           N ms
99th percentile  N ms
maximum          N ms
""")
    lines = tool.run(broker, "send", "gate/1A2B3C", "02", "--repeat", "3", "--json").output.splitlines()
    summary = json.loads(lines[3])["summary"]
    check_equal((len(lines), summary["answered"], summary["failed"]), (4, 3, 0))


@case(TYPED)
def keeps_going(test):
    command("on 1 0F mute")
    broker, _, _ = started(test)
    expect(tool.run(broker, "set", "gate/1A2B3C", "TIMEOUT", "20"), 0)
    result = tool.run(broker, "send", "gate/1A2B3C", "--keep-going", "--json", stdin="01\n0F\n02\n")
    exchanges = [json.loads(line) for line in result.output.splitlines()]
    check_equal([each.get("received") for each in exchanges], ["01", None, "02"])
    failed = exchanges[1]
    check_equal((result.status, failed["status"], failed["name"]), (3, "failed", "GVUSB_ERR_TIMEOUT"))
    check_equal((failed["code"], failed["error"] in result.errors), (-1130, True))
    result = tool.run(broker, "send", "gate/1A2B3C", stdin="0F\n02\n")
    check_equal((result.status, result.output), (3, ""))


@case(BULK)
def reports_a_time_out_of_the_reader(test):
    command("mute 1 in")
    broker, _, _ = started(test)
    expect(tool.run(broker, "set", "gate/1A2B3C", "TIMEOUT", "20"), 0)
    expect_problem(tool.run(broker, "send", "gate/1A2B3C", "02"), 3, r".*\(-1130\).*\[GVUSB_ERR_TIMEOUT\]$")
    result = tool.run(broker, "send", "gate/1A2B3C", "02", "--json")
    check_equal(json.loads(result.output)["status"], "failed")


@case(BULK)
def reports_that_the_reader_is_absent(test):
    broker, _, _ = started(test)
    result = tool.run(broker, "send", "gate/CAFE", "02", "--keep-going", "--repeat", "9")
    check_equal((result.status, result.output), (4, "answered  0\nfailed    1\n"))
    check(re.search(r"^gvusb: reader gate/CAFE: .*\[GVUSB_ERR_NO_DEVICE_FOUND\]$", result.errors), result.errors)
    for arguments in (("info", "gate/CAFE"), ("get", "gate/CAFE"), ("get", "gate/CAFE", "TIMEOUT"),
                      ("set", "gate/CAFE", "RESETDEVICE")):
        check_equal(tool.run(broker, *arguments).status, 4)


@case(BULK)
def reports_that_the_reader_was_unplugged(test):
    command("on 1 0F unplug")
    broker, _, _ = started(test)
    expect_problem(tool.run(broker, "send", "gate/1A2B3C", "0F"), 4, r".*\[GVUSB_ERR_NOT_PRESENT\]$")


@case()
def reports_that_no_service_is_there(test):
    broker = test.broker()
    expect(tool.run(broker, "send", "desk/1A2B3C", "02", "--timeout", "60000"), 4,
           errors="^gvusb: reader desk/1A2B3C: no service takes requests for machine desk$")
    result = tool.run(broker, "send", "desk/1A2B3C", "02", "--json")
    failed = json.loads(result.output)
    check_equal((failed["code"], failed["name"], failed["status"]), (None, None, None))


@case(BULK)
def reports_that_no_answer_comes(test):
    broker, service, _ = started(test)
    service.child.send(signal.SIGSTOP)
    for arguments in (("send", "gate/1A2B3C", "02"), ("get", "gate/1A2B3C", "TIMEOUT"),
                      ("set", "gate/1A2B3C", "RESETDEVICE")):
        result = tool.run(broker, *arguments, "--timeout", "50")
        expect_problem(result, 3, "(TIMEOUT: |RESETDEVICE: |)no answer within 50 ms; the request may have run or not$")


@case(BULK)
def says_that_the_machine_is_offline(test):
    broker, service, client = started(test)
    service.kill()
    wait_offline(client)
    expect_problem(tool.run(broker, "send", "gate/1A2B3C", "02", "--timeout", "50"), 3,
                   "no answer within 50 ms; machine gate is offline$")


@case(BULK)
def reports_that_the_queue_is_full(test):
    command("mute 1 in")
    broker, _, client = started(test, options=["--queue", "1"])
    expect(tool.run(broker, "set", "gate/1A2B3C", "TIMEOUT", "60000"), 0)
    client.request("gate", "1A2B3C", "transceive", b"\x01")
    wait_until(lambda: frames(1) == 1, "run")
    client.request("gate", "1A2B3C", "transceive", b"\x02")
    wait_until(lambda: len(client.messages) and client.messages[-1].payload == b"\x02", "queued")
    expect_problem(tool.run(broker, "send", "gate/1A2B3C", "03"), 1, "busy: 1 requests? wait.*; try again later$")
    expect_problem(tool.run(broker, "get", "gate/1A2B3C"), 1, "busy: ")


@case(BULK)
def reports_that_the_request_has_expired(test):
    command("mute 1 in")
    broker, _, client = started(test)
    expect(tool.run(broker, "set", "gate/1A2B3C", "TIMEOUT", "1500"), 0)
    for _ in range(10):  # a busy machine may take so long that no answer comes in time
        before = frames(1)
        earlier = client.request("gate", "1A2B3C", "transceive", b"\x01")
        wait_until(lambda before=before: frames(1) > before, "run")
        result = tool.run(broker, "send", "gate/1A2B3C", "02", "--timeout", "1990")
        check_equal(result.status, 3)
        client.answer(earlier)
        client.ask("gate", "1A2B3C", "get", b"TIMEOUT")  # when the reader is free
        if "no answer within" not in result.errors:
            break
    expect_problem(result, 3, "not run: the request waited longer than its message expiry$")


@case(BULK)
def reports_that_the_request_is_refused(test):
    broker, _, _ = started(test, options=["--max-payload", "4"])
    expect_problem(tool.run(broker, "send", "gate/1A2B3C", "0102030405"), 1, "refused: the payload is longer than 4 ")


@case(BULK)
def reports_what_cannot_be_known(test):
    command("mute 1 in")
    broker, service, _ = started(test)
    expect(tool.run(broker, "set", "gate/1A2B3C", "TIMEOUT", "60000"), 0)
    sending = tool.Running(test, broker, "send", "gate/1A2B3C", "02", "--timeout", "60000")
    wait_until(lambda: frames(1) == 1, "run")
    service.kill()
    service.start()
    expect_problem(sending.result(), 1, "result unknown: .*the request may have run$")


@case(BULK)
def prints_the_summary_on_a_signal(test):
    broker, _, _ = started(test)
    sending = tool.Running(test, broker, "send", "gate/1A2B3C", "02", "--repeat", "10000000")
    check_equal(sending.line(), "02")
    sending.process.send_signal(signal.SIGINT)
    result = sending.result()
    check_equal((result.status, result.output.splitlines()[1]), (0, "failed           0"))


@case()
def rejects_invalid_command_lines(test):
    broker = test.broker()
    for arguments in (["send", "1A2B3C", "02"], ["send", "gate/xyz", "02"], ["send", "+/1A2B3C", "02"],
                      ["send", "gate/1A2B3C", "0"], ["send", "gate/1A2B3C", "02", "--timeout", "0"],
                      ["get", "gate/driver"], ["set", "gate/1A2B3C"], ["info"], ["list", "--id", "x"],
                      ["list", "--machine", "a/b"], ["monitor", "--count", "0"], ["record"], ["list", "--color"], []):
        result = tool.run(broker, *arguments)
        expect(result, 2, errors=r"^gvusb: .*\nRun 'gvusb --broker ADDRESS .*--help' for more\.\n$")


if __name__ == "__main__":
    main()
