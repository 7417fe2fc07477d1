#!/usr/bin/env python3
"""Tests of gvusb --broker monitor with a real service and broker, on virtual readers."""

import re
import signal

import tool
from cases import BULK, TWO, case, check, check_equal, main, started, wait_offline, wait_online
from harness import command, wait_until


def watching(test, broker, client, *arguments, readers=("1A2B3C",)):
    """A monitor that has printed the readers that are present."""
    tool.wait_listed(client, *readers)
    monitor = tool.Running(test, broker, "monitor", "--initial", *arguments)
    present = [monitor.line() for _ in readers]
    check(all("present" in line for line in present), present)
    return monitor


def told(line):
    """A line without its time."""
    return re.sub(r" +", " ", re.sub(r" \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d ", " ", line))


def expect_end(monitor, status, output="", errors=""):
    result = monitor.result()
    check_equal((result.status, result.output, result.errors), (status, output, errors))


@case(*TWO)
def reports_readers_that_come_and_go(test):
    broker, _, client = started(test)
    monitor = watching(test, broker, client, readers=("1A2B3C", "CAFE"))
    command("unplug 2")
    check_equal(told(monitor.line()), "gate disconnect CAFE Desk 1")
    command("plug 2")
    check_equal(told(monitor.line()), "gate connect CAFE Desk 1")
    command("plug id=B2,family=Desk,name=Desk 2")
    check_equal(told(monitor.line()), "gate connect B2 Desk 2")
    monitor.process.send_signal(signal.SIGINT)
    expect_end(monitor, 0)


@case(BULK)
def writes_events_as_json(test):
    broker, _, client = started(test)
    monitor = watching(test, broker, client, "--json")
    command("unplug 1")
    event = monitor.event()
    check(re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d", event["time"]), event["time"])
    check_equal(list(event.items()), [("machine", "gate"), ("time", event["time"]), ("event", "disconnect"),
                                      ("reader", "1A2B3C"), ("id", "1A2B3C"), ("family", "Gate"), ("name", "Gate 7"),
                                      ("code", None), ("text", None)])


@case(BULK)
def reports_machines_that_come_and_go(test):
    broker, service, client = started(test)
    monitor = watching(test, broker, client, "--json")
    service.kill()
    event = monitor.event()
    check_equal((event["machine"], event["event"], event["reader"], event["id"]), ("gate", "offline", None, None))
    service.start()
    check_equal(monitor.event()["event"], "online")
    test.service(broker.port, machine="desk")
    events = [monitor.event() for _ in range(1)]
    while not any(event["event"] == "online" for event in events):
        events.append(monitor.event())
    check({event["machine"] for event in events} == {"desk"}, events)


@case(BULK)
def reports_failures(test):
    command("mute 1 in")
    broker, _, client = started(test)
    monitor = watching(test, broker, client)
    check_equal(tool.run(broker, "set", "gate/1A2B3C", "TIMEOUT", "10").status, 0)
    check_equal(tool.run(broker, "send", "gate/1A2B3C", "02").status, 3)
    check_equal(told(monitor.line()), "gate error 1A2B3C GVUSB: (-1130) timeout")
    monitor = watching(test, broker, client, "--json")
    command("unmute 1 in")
    check_equal(tool.run(broker, "set", "gate/1A2B3C", "RESETPIPE").status, 0)
    check_equal(tool.run(broker, "send", "gate/1A2B3C", "02").status, 0)
    command("mute 1 in")
    check_equal(tool.run(broker, "send", "gate/1A2B3C", "02").status, 3)
    event = monitor.event()
    check_equal((event["event"], event["code"], event["text"]), ("error", -1130, "GVUSB: (-1130) timeout"))


@case(*TWO)
def starts_with_the_readers_that_are_present(test):
    broker, _, client = started(test)
    tool.wait_listed(client, "1A2B3C", "CAFE")
    command("unplug 2")
    wait_until(lambda: not client.document("gate", "CAFE")["connected"], "disconnected")
    result = tool.run(broker, "monitor", "--initial", "--idle-timeout", "0.05")
    check_equal((result.status, told(result.output)), (3, "gate present 1A2B3C Gate 7\n"))
    result = tool.run(broker, "monitor", "--idle-timeout", "0.05")
    check_equal((result.status, result.output, result.errors), (3, "", ""))


@case(BULK)
def ends_after_a_count(test):
    broker, _, client = started(test)
    monitor = watching(test, broker, client, "--count", "2")
    command("replug 1")
    result = monitor.result()
    check_equal((result.status, [told(line) for line in result.output.splitlines()]),
                (0, ["gate disconnect 1A2B3C Gate 7", "gate connect 1A2B3C Gate 7"]))


@case(BULK)
def watches_one_machine(test):
    broker, _, client = started(test)
    monitor = watching(test, broker, client, "--machine", "gate", "--count", "1")
    desk = test.service(broker.port, machine="desk")
    wait_online(client, "desk")
    desk.kill()
    wait_offline(client, "desk")
    command("unplug 1")
    check_equal(told(monitor.result().output), "gate disconnect 1A2B3C Gate 7\n")


@case(*TWO)
def connects_again(test):
    broker, _, client = started(test)
    monitor = watching(test, broker, client, readers=("1A2B3C", "CAFE"))
    broker.kill()
    title = f"gvusb: broker mqtt://127.0.0.1:{broker.port}: "
    check(monitor.error_line().startswith(title + "the connection was lost"), "not lost")
    command("unplug 2")
    broker.start()
    check_equal(monitor.error_line(), title + "connected again")
    # The service may be back after the monitor. The broker may have published its last will before it was killed.
    lines = []
    while "gate disconnect CAFE Desk 1" not in lines:
        lines.append(told(monitor.line()))
    check(set(lines) <= {"gate offline", "gate online", "gate disconnect CAFE Desk 1"}, lines)
    check_equal(lines.count("gate disconnect CAFE Desk 1"), 1)
    monitor.process.send_signal(signal.SIGTERM)
    check_equal(monitor.result().status, 0)


@case(BULK)
def ends_when_its_output_is_closed(test):
    broker, _, client = started(test)
    monitor = watching(test, broker, client)
    monitor.process.stdout.close()
    check_equal((monitor.process.wait(60), monitor.process.stderr.read()), (0, ""))


@case(BULK)
def ends_on_a_signal_without_a_connection(test):
    broker, _, client = started(test)
    monitor = watching(test, broker, client)
    broker.kill()
    check("the connection was lost" in monitor.error_line(), "not lost")
    monitor.process.send_signal(signal.SIGINT)
    check_equal(monitor.result().status, 0)


if __name__ == "__main__":
    main()
