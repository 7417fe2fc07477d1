#!/usr/bin/env python3
"""Measure gvusb-mqtt with a real broker on this machine and virtual readers. Fail if a bound is exceeded, if a request runs
twice, or if one is lost in silence. usage: fleet.py [--requests N] BUILD"""

import argparse
import asyncio
import collections
import contextlib
import json
import os
import random
import resource
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time

from measure import Bench, Table

# A reader that writes down every frame, so that it is known which requests have run.
NOTING = """
import gvusb_logic, sys
class Noting(gvusb_logic.Reader):
    notes = open(sys.argv[1], "ab", buffering=0)
    def frame(self, data):
        self.notes.write(data + b"\\n")
        return data
Noting().run()
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Fleet(contextlib.ExitStack):
    """A broker and services, in a folder of their own."""

    def __init__(self, bench):
        super().__init__()
        self.bench = bench
        self.folder = self.enter_context(tempfile.TemporaryDirectory())
        self.port = free_port()
        self.configuration = os.path.join(self.folder, "mosquitto.conf")
        with open(self.configuration, "w", encoding="utf-8") as file:
            file.write(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\n"
                       "max_queued_messages 0\n")
        self.start_broker()
        self.callback(lambda: self._end(self.broker))

    def start_broker(self):
        program = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
        while True:
            self.broker = subprocess.Popen([program, "-c", self.configuration], stderr=subprocess.DEVNULL)
            while self.broker.poll() is None:
                with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", self.port), 1):
                    return
                time.sleep(0.01)

    def kill_broker(self):
        self.broker.kill()
        self.broker.wait()

    @staticmethod
    def _end(process):
        if process.poll() is None:
            process.terminate()
        process.wait(60)

    def start(self, command):
        process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.callback(lambda: self._end(process))
        return process

    def service(self, machine, *readers, port=None, options=()):
        state = os.path.join(self.folder, machine)
        os.makedirs(state)
        command = [*self.bench.emulated(*readers), self.bench.path("fleet", "gvusb-mqtt"), "--broker",
                   f"127.0.0.1:{port or self.port}", "--machine", machine, "--state-directory", state, *options]
        return self.start(command)

    def client(self, *arguments, port=None):
        what, *rest = arguments
        done = subprocess.run(self.bench.program("fleet_client", what, port or self.port, *rest), check=True,
                              stdout=subprocess.PIPE, text=True)
        return done.stdout


def child_of(process):
    with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as children:
        return int(children.read().split()[0])


def latencies(bench, table):
    with Fleet(bench) as fleet:
        fleet.service("machine", "id=1A2B3C")
        times = sorted(float(line) for line in fleet.client("latency", 20_000).splitlines())
    table.row("fleet: an exchange takes more than the local call, median", "us", statistics.median(times), most=500)
    table.row("the same, 99 of 100 exchanges", "us", times[len(times) * 99 // 100], most=3000)


def throughput(bench, table, machines=20, readers=10, seconds=5, rounds=5):
    """Requests and answers of all readers together, and of plain clients with the same messages."""
    def measure(start):
        with Fleet(bench) as fleet:
            for number in range(machines):
                start(fleet, f"machine-{number}")
            rate, reached = fleet.client("throughput", seconds, machines * readers).split()
            if int(reached) != machines * readers:
                raise SystemExit(f"only {reached} of {machines * readers} readers answered")
            return float(rate)

    services = []
    plain = []
    for _ in range(rounds):
        services.append(measure(lambda fleet, name: fleet.service(name, f"id=100000,copies={readers}")))
        plain.append(measure(lambda fleet, name: fleet.start(
            bench.program("fleet_client", "echo", fleet.port, name, readers))))
    table.row(f"fleet: {machines} services with {readers} readers each; bare: clients that echo", "a second",
              statistics.median(services), statistics.median(plain), least_ratio=0.5)


def mebibytes(process, figure):
    with open(f"/proc/{process}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith(figure + ":")) / 1024


def memory(bench, table):
    with Fleet(bench) as fleet:
        service = fleet.service("machine", "id=100000,copies=50")
        fleet.client("throughput", 2, 50)
        table.row("fleet: memory of a service with 50 readers, at most", "MiB", mebibytes(child_of(service), "VmHWM"),
                  most=16)


def memory_of_broker(bench, table, machines=1000, readers=10):
    # The client takes four descriptors for each connection, more in total than a process has by default.
    needed = 5 * machines
    before = resource.getrlimit(resource.RLIMIT_NOFILE)
    if before[1] != resource.RLIM_INFINITY and before[1] < needed:
        raise SystemExit(f"a process may have {before[1]} files open, and {machines} connections need {needed}")
    resource.setrlimit(resource.RLIMIT_NOFILE, (needed, before[1]))
    with Fleet(bench) as fleet:
        fleet.callback(resource.setrlimit, resource.RLIMIT_NOFILE, before)
        figures = [mebibytes(fleet.broker.pid, "VmRSS")]
        crowd = fleet.enter_context(subprocess.Popen(
            bench.program("fleet_client", "crowd", fleet.port, machines, readers),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True))
        for expected in ("connected", "published"):
            if crowd.stdout.readline().strip() != expected:
                raise SystemExit(f"the machines are not {expected}")
            figures.append(mebibytes(fleet.broker.pid, "VmRSS"))
    for when, figure in zip(("empty", f"{machines} machines connected", f"with {readers} readers each"), figures):
        table.row(f"fleet: memory of the broker, {when}", "MiB", figure)


class CuttingProxy:
    """Passes connections on to the broker, and cuts them at random."""

    def __init__(self, target, seed):
        self.target = target
        self.random = random.Random(seed)
        self.connections = set()
        self.cuts = 0

    async def start(self):
        server = await asyncio.start_server(self.accept, "127.0.0.1", 0)
        return server.sockets[0].getsockname()[1]

    async def accept(self, reader, writer):
        try:
            onward = await asyncio.open_connection("127.0.0.1", self.target)
        except OSError:
            writer.close()
            return
        pair = (writer, onward[1])
        self.connections.add(pair)
        with contextlib.suppress(asyncio.CancelledError):
            await asyncio.gather(self.copy(reader, onward[1]), self.copy(onward[0], writer))
        self.connections.discard(pair)

    @staticmethod
    async def copy(source, sink):
        with contextlib.suppress(OSError):
            while data := await source.read(65536):
                sink.write(data)
                await sink.drain()
        sink.close()

    async def cut(self):
        while True:
            await asyncio.sleep(self.random.uniform(0.5, 2.5))
            if self.connections:
                for side in self.random.choice(list(self.connections)):
                    side.transport.abort()
                self.cuts += 1


async def disturb(fleet, client, proxy):
    """Kill the broker every 5 s and cut links until the client has ended. Return how often it was killed."""
    kills = 0
    cutting = asyncio.create_task(proxy.cut())
    while client.returncode is None:
        try:
            await asyncio.wait_for(asyncio.shield(asyncio.ensure_future(client.wait())), 5)
        except asyncio.TimeoutError:
            fleet.kill_broker()
            kills += 1
            await asyncio.get_running_loop().run_in_executor(None, fleet.start_broker)
    cutting.cancel()
    return kills


async def run_disturbed(bench, requests):
    machines, readers = 2, 4
    with Fleet(bench) as fleet:
        proxy = CuttingProxy(fleet.port, seed=1)
        port = await proxy.start()
        notes = []
        for machine in range(machines):
            descriptions = []
            for reader in range(readers):
                notes.append(os.path.join(fleet.folder, f"notes-{machine}-{reader}"))
                logic = os.path.join(fleet.folder, "noting.py")
                with open(logic, "w", encoding="utf-8") as file:
                    file.write(NOTING)
                descriptions.append(f"id={0xA0 + reader:X},logic={sys.executable} {logic} {notes[-1]}")
            fleet.service(f"machine-{machine}", *descriptions, port=port)
        client = await asyncio.create_subprocess_exec(
            *bench.program("fleet_client", "count", port, requests, 20, machines * readers),
            stdout=asyncio.subprocess.PIPE)
        kills = await disturb(fleet, client, proxy)
        outcome = json.loads(await client.stdout.read())
        frames = collections.Counter()
        for name in notes:
            with open(name, "rb") as lines:
                frames.update(lines.read().split())
    return outcome, frames, kills, proxy.cuts


def disturbed(bench, table, requests):
    outcome, frames, kills, cuts = asyncio.run(run_disturbed(bench, requests))
    print(f"{requests} requests, broker killed {kills} times, links cut {cuts} times: {json.dumps(outcome)}")
    ended = sum(outcome.get(status, 0) for status in
                ("ok", "failed", "absent", "busy", "expired", "refused", "unknown", "timed_out"))
    table.row("fleet: requests that ran twice", "", sum(count > 1 for count in frames.values()), most=0)
    table.row("fleet: requests with a wrong answer", "", outcome["wrong"], most=0)
    table.row("fleet: requests lost in silence", "", requests - ended, most=0)
    table.row("fleet: answered ok that never ran", "", outcome.get("ok", 0) - min(outcome.get("ok", 0), len(frames)),
              most=0)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--requests", type=int, default=100_000)
    parser.add_argument("build")
    arguments = parser.parse_args()
    bench = Bench(arguments.build)
    table = Table()
    for measure in (latencies, throughput, memory, memory_of_broker):
        measure(bench, table)
    disturbed(bench, table, arguments.requests)
    if table.broken:
        print(f"{table.broken} bounds are exceeded", file=sys.stderr)
    return 1 if table.broken else 0


if __name__ == "__main__":
    sys.exit(main())
