"""What the test programs of a fleet share: their cases, and how one is run.

usage of each program: NAME_test.py EMULATOR SERVICE CASE
"""

import sys

from harness import Surroundings, run_on_readers, wait_until

CASES = {}
BULK = "id=1A2B3C,family=Gate,name=Gate 7"
TWO = (BULK, "id=CAFE,family=Desk,name=Desk 1,interface=control")


def case(*readers):
    """Make a function a case that runs on these virtual readers."""

    def add(function):
        CASES[function.__name__] = (readers, function)
        return function

    return add


def check(condition, what):
    if not condition:
        raise AssertionError(what)


def check_equal(actual, expected):
    check(actual == expected, f"{actual!r} instead of {expected!r}")


def started(test, broker=None, options=(), machine="gate"):
    """A broker, a service and a client that has seen the service come online."""
    broker = broker or test.broker()
    client = test.client(broker, "gvusb/#")
    service = test.service(broker.port, machine=machine, options=options)
    wait_online(client, machine)
    return broker, service, client


def wait_online(client, machine="gate"):
    wait_until(lambda: client.last(f"gvusb/{machine}/status") == "online", "online")


def wait_offline(client, machine="gate", patience=60):
    wait_until(lambda: client.last(f"gvusb/{machine}/status") == "offline", "offline", patience)


def main():
    """Run the case that the command line names."""
    emulator, service, name = sys.argv[1:]
    readers, function = CASES[name]
    if readers:
        run_on_readers(emulator, readers)
    with Surroundings(service) as test:
        try:
            function(test)
        except BaseException:
            test.show_logs()
            raise

