#!/usr/bin/env python3
"""Print the cost of the library's operations next to that of the same libusb calls made directly. Fail if a bound is
exceeded. usage: measure.py [--counted] BUILD

The counts of instructions, allocations, system calls and libusb calls are the same on any machine at any load.
--counted leaves out the times."""

import argparse
import collections
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

import callgrind

RECORD_SIZE = 904  # of a reader's record on a 64-bit machine, for comparison with the heap used for a scanned reader


class Bench:
    def __init__(self, build):
        self.build = os.path.abspath(build)
        self.launcher = self.path("emulator", "gvusb-emulate")
        self.library = self.path("libgvusb.so.7")

    def path(self, *parts):
        return os.path.join(self.build, *parts)

    def on_nothing(self, readers=1, **more):
        """The environment that loads the stub libusb."""
        return os.environ | {"LD_LIBRARY_PATH": self.path("bench", "do_nothing"),
                             "GVUSB_BENCH_READERS": str(readers)} | more

    def program(self, name, *arguments):
        return [self.path("bench", "gvusb_bench_" + name), *map(str, arguments)]

    def emulated(self, *readers, configuration=None):
        options = ["--config", configuration] if configuration else ["--no-config"]
        for reader in readers:
            options += ["--reader", reader]
        return [self.launcher, *options, "--"]

    # Counting.

    def instructions(self, operation, function, times=1000, readers=1, launcher=(), **more):
        """Instructions for one call of a function during an operation, with the stub libusb."""
        return callgrind.instructions([function], self._command(operation, launcher), times,
                                      self.on_nothing(readers, **more))[0]

    def instructions_on_bus(self, operation, functions, times, launcher):
        """The same for several functions, with the real libusb on an emulated bus."""
        return callgrind.instructions(functions, self._command(operation, launcher), times, os.environ)

    def _command(self, operation, launcher):
        return lambda times: (list(launcher), self.program("count", operation, times))

    def memory(self, operation, times, readers=1, launcher=(), **more):
        done = subprocess.run([*launcher, *self.program("count", operation, times)], env=self.on_nothing(readers, **more),
                              check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        return json.loads(done.stderr) | {"lines": done.stdout.count("\n")}

    def allocations(self, operation, times=1000, readers=1, **more):
        return self.memory(operation, times, readers, **more)["allocations"] / times

    def system_calls(self, operation, times=1000):
        def count(n):
            with tempfile.NamedTemporaryFile("r") as trace:
                subprocess.run(["strace", "-f", "-o", trace.name, *self.program("count", operation, n)],
                               env=self.on_nothing(), check=True, stderr=subprocess.DEVNULL)
                return len(trace.readlines())
        return round((count(2 * times) - count(times)) / times)

    def libusb_calls(self, operation, readers):
        """How often one operation calls each function of libusb."""
        def count(n):
            with tempfile.NamedTemporaryFile("r") as calls:
                subprocess.run(self.program("count", operation, n), check=True, stderr=subprocess.DEVNULL,
                               env=self.on_nothing(readers, GVUSB_BENCH_CALLS=calls.name))
                return collections.Counter(calls.read().split())
        return count(2) - count(1)

    def idle_system_calls(self, mode):
        """The names of the system calls of an idle process."""
        with tempfile.NamedTemporaryFile("r") as trace, configuration(f"gvusb_hotplug={mode}") as path:
            subprocess.run([*self.emulated("id=1", configuration=path), "strace", "-f", "-o", trace.name,
                            *self.program("idle", 2)], check=True, stdout=subprocess.DEVNULL)
            lines = trace.read().splitlines()
        marks = [i for i, line in enumerate(lines) if "getppid()" in line]
        between = lines[marks[0] + 1:marks[1]]
        return {match[1] for line in between if (match := re.match(r"\d+ +(?:<\.\.\. )?(\w+)", line))}


class configuration:
    """A context manager with a configuration file of these lines."""

    def __init__(self, *lines):
        self.lines = lines

    def __enter__(self):
        self.file = tempfile.NamedTemporaryFile("w", suffix=".conf")
        self.file.write("\n".join(self.lines) + "\n")
        self.file.flush()
        return self.file.name

    def __exit__(self, *error):
        self.file.close()


class Table:
    COLUMNS = ("operation", "unit", "library", "bare libusb", "ratio", "bound", "")
    WIDTHS = (64, 13, 10, 12, 7, 9, 6)

    def __init__(self):
        self.broken = 0
        self._print(self.COLUMNS)

    def _print(self, cells):
        print("  ".join(cell.ljust(width) if i < 2 else cell.rjust(width)
                        for i, (cell, width) in enumerate(zip(cells, self.WIDTHS))).rstrip(), flush=True)

    @staticmethod
    def _number(value):
        return "" if value is None else f"{value:,.0f}" if abs(value) >= 100 or value == int(value) else f"{value:.3g}"

    def row(self, operation, unit, ours, bare=None, *, most=None, most_ratio=None, least=None, least_ratio=None):
        """A row. `most` bounds the library's cost, `most_ratio` its ratio to that of bare libusb; `least` and `least_ratio`
        bound a rate."""
        ratio = ours / bare if bare else None
        holds = ((most is None or ours <= most) and (most_ratio is None or ratio <= most_ratio) and
                 (least is None or ours >= least) and (least_ratio is None or ratio >= least_ratio))
        bound_ratio = most_ratio if least_ratio is None else least_ratio
        bound = f"{bound_ratio:g} x" if bound_ratio is not None else self._number(most if least is None else least)
        self._print((operation, unit, self._number(ours), self._number(bare),
                     "" if ratio is None else f"{ratio:.3f}", bound,
                     "" if not bound else "ok" if holds else "FAIL"))
        self.broken += not holds


def exchanges(bench, table):
    exchange = bench.instructions("exchange", "GVUSB_Transceive")
    bare = bench.instructions("exchange.bare", "BareReader::exchange")
    table.row("exchange of 16 bytes, stub libusb", "instructions", exchange, bare, most=350)
    for readers in (64, 1000):
        table.row(f"the same on the last of {readers} open readers", "instructions",
                  bench.instructions("exchange", "GVUSB_Transceive", readers=readers), bare, most=exchange + 40)
    with configuration("gvusb_parallel=1") as path:
        parallel = {"GVUSB_CONFIG": path}
        alone = bench.instructions("exchange", "GVUSB_Transceive", **parallel)
        table.row("exchange of 16 bytes, parallel mode", "instructions", alone, bare, most=420)
        for readers in (64, 1000):
            table.row(f"the same on the last of {readers} open readers", "instructions",
                      bench.instructions("exchange", "GVUSB_Transceive", readers=readers, **parallel), bare,
                      most=alone + 40)
        table.row("exchange, parallel mode", "allocations", bench.allocations("exchange", **parallel), 0, most=0)
    table.row("exchange", "allocations", bench.allocations("exchange"), 0, most=0)
    table.row("exchange", "system calls", bench.system_calls("exchange"), 0, most=0)
    table.row("extra cost of sending 4,080 more bytes", "instructions",
              bench.instructions("exchange-long-frame", "GVUSB_Transceive") - exchange, 0, most=0)
    fill = bench.instructions("zero-fill-large-buffer", "zeroFill(") - bench.instructions("zero-fill", "zeroFill(")
    table.row("extra cost of a 64 KiB buffer; bare: filling it with zeros", "instructions",
              bench.instructions("exchange-large-buffer", "GVUSB_Transceive") - exchange, fill, most=fill + 16)
    # Compare within one run: how often libusb checks for the end of a transfer varies between runs.
    ours, transfer = bench.instructions_on_bus("exchange", ["GVUSB_Transceive", "libusb_bulk_transfer"], 100,
                                               bench.emulated("id=1"))
    table.row("exchange of 16 bytes, emulated bus; bare: its two transfers", "instructions", ours, 2 * transfer,
              most_ratio=1.05)


def cxx_exchanges(bench, table):
    """The same exchange through gvusb.hpp, compared with a function that makes the C call."""
    plain = bench.instructions("exchange-c", "(anonymous namespace)::exchangeByC")
    for operation, function, name in (("exchange-cxx", "exchangeThrowing", "ranges"),
                                      ("exchange-cxx-error-code", "exchangeWithErrorCode", "ranges and error code"),
                                      ("exchange-cxx-pointers", "exchangeByPointers", "pointers and sizes of run time")):
        table.row(f"exchange in C++, {name}: extra cost over C", "instructions",
                  bench.instructions(operation, "(anonymous namespace)::" + function) - plain, 0, most=20)
        table.row(f"exchange in C++, {name}", "allocations", bench.allocations(operation), 0, most=0)


def parameters(bench, table):
    table.row('reading "TIMEOUT"', "instructions", bench.instructions("read-timeout", "GVUSB_GetDevicePara"), most=600)
    table.row('reading "TIMEOUT"', "allocations", bench.allocations("read-timeout"), most=0)


def scans(bench, table):
    for readers in (1, 32, 120):
        ours = bench.libusb_calls("scan", readers)
        bare = bench.libusb_calls("scan.bare", readers)
        table.row(f"scan of {readers}", "libusb calls", ours.total(), bare.total(), most=bare.total())
        if ours != bare:
            print(f"  the calls differ: {ours - bare} only in the library, {bare - ours} only in bare libusb")
            table.broken += 1
    kept = [bench.memory("scan", 1, readers)["bytes"] for readers in (1, 120)]
    table.row("heap kept for a scanned reader; bare: its record", "bytes", (kept[1] - kept[0]) / 119, RECORD_SIZE,
              most=RECORD_SIZE + 64)


def polls(bench, table):
    for readers in (1, 32, 120):
        launcher = bench.emulated(f"id=1,copies={readers}", "vendor=0x046d,bus=2,copies=120")
        ours = bench.instructions_on_bus("poll", ["GVDrvHnd::UpdateDevices"], 20, launcher)[0]
        bare = bench.instructions_on_bus("list-devices.bare", ["listDevices"], 20, launcher)[0]
        table.row(f"poll, {readers} known readers and 120 other devices", "instructions", ours, bare, most_ratio=2)


def logging(bench, table):
    with configuration("gvusb_hotplug=0", "gvusb_debuglevel=2") as path:
        logged = {"launcher": bench.emulated(configuration=path)}
        for operation in ("exchange", "scan"):
            few, many = (bench.memory(operation, times, **logged) for times in (100, 200))
            table.row(f"one log line, level 2, {operation}", "allocations",
                      (many["allocations"] - few["allocations"]) / (many["lines"] - few["lines"]), most=6)
        long, longer = (bench.instructions(operation, "GVUSB_Transceive", times=100, **logged)
                        for operation in ("exchange-long-frame", "exchange-longer-frame"))
        # The digits of the times vary, but by less than one instruction per byte.
        table.row("exchange, level 2: extra cost of 4 KiB after a full dump", "instructions", longer - long, most=1000)


def sizes(bench, table):
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(["strip", "-o", stripped.name, bench.library], check=True)
        table.row("stripped library", "bytes", os.path.getsize(stripped.name), most=128 * 1024 - 1)
    table.row("own heap after loading", "bytes", load(bench, 1, 300_000)["heap"], most=8 * 1024 - 1)


def load(bench, samples, update_rate):
    done = subprocess.run([*bench.emulated("id=1"), *bench.program("load", bench.library, samples, update_rate)],
                          check=True, stdout=subprocess.PIPE, text=True)
    return json.loads(done.stdout)


def idling(bench, table):
    for mode in (0, 2):
        others = bench.idle_system_calls(mode) - {"clock_nanosleep", "restart_syscall"}
        table.row(f"idle, hot-plug mode {mode}, except wake-ups", "system calls", len(others), most=0)
        if others:
            print("  " + ", ".join(sorted(others)))


def processor_time(bench, table):
    for mode in (1, 0, 2):
        with configuration(f"gvusb_hotplug={mode}") as path:
            done = subprocess.run([*bench.emulated("id=1", configuration=path), *bench.program("idle", 20)],
                                  check=True, stdout=subprocess.PIPE, text=True)
        table.row(f"idle, hot-plug mode {mode}, 300 ms", "% of a core", 100 * json.loads(done.stdout)["core"], most=0.05)


def scan_times(bench, table):
    for readers in (1, 32, 120):
        done = subprocess.run(
            [*bench.emulated(f"id=1,copies={readers}"), *bench.program(
                "times", "--benchmark_filter=^scan", "--benchmark_repetitions=15", "--benchmark_enable_random_interleaving=true",
                "--benchmark_format=json")],
            check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        times = {result["run_name"]: result["real_time"] / 1000 for result in json.loads(done.stdout)["benchmarks"]
                 if result.get("aggregate_name") == "median"}
        table.row(f"scan of {readers}, emulated bus", "us", times["scan"], times["scan.bare"], most_ratio=1.05)


def load_times(bench, table):
    for update_rate, name in ((300_000, "300 ms"), (10, "10 us"), (3_600_000_000, "1 hour")):
        times = load(bench, 50, update_rate)
        if update_rate == 300_000:
            table.row("loading; bare: libusb_init", "us", times["load"], times["init"], most_ratio=1.3)
        table.row(f"unloading, update rate {name}; bare: libusb_exit", "us", times["unload"], times["exit"],
                  most=times["exit"] + 5000)


def python_exchanges(bench, table):
    """An exchange by the Python package; bare: the C function."""
    done = subprocess.run(bench.program("times", "--benchmark_filter=^exchange$", "--benchmark_repetitions=15",
                                        "--benchmark_format=json"),
                          check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=bench.on_nothing())
    plain = next(result["real_time"] / 1000 for result in json.loads(done.stdout)["benchmarks"]
                 if result.get("aggregate_name") == "median")
    source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python")
    done = subprocess.run([sys.executable, os.path.join(os.path.dirname(os.path.abspath(__file__)), "python_exchange.py")],
                          check=True, stdout=subprocess.PIPE, text=True,
                          env=bench.on_nothing(PYTHONPATH=source, PYTHONDONTWRITEBYTECODE="1", GVUSB_LIBRARY=bench.library))
    for name, time_taken in json.loads(done.stdout).items():
        table.row(f"{name} in Python, stub libusb; bare: by C", "us", time_taken, plain, most=plain + 30)


def threads(bench, table):
    """Readers that answer after 10 ms, with a thread for each: parallel mode and bare libusb in turns."""
    with tempfile.NamedTemporaryFile("w") as script:
        script.write("at 0 delay all in 10\n")
        script.flush()
        for readers in (1, 4, 16, 48):
            runs = collections.defaultdict(list)
            for mode in ("parallel", "bare") * 5:
                runs[mode].append(on_emulated_bus(bench, [f"id=1,copies={readers}"], mode, script=script.name,
                                                  program="threads", seconds=1))
            ours, bare = ({name: statistics.median(run[name] for run in runs[mode]) for name in runs[mode][0]}
                          for mode in ("parallel", "bare"))
            name = f"{readers} readers that answer after 10 ms"
            table.row(name, "a second", ours["exchanges_per_second"], bare["exchanges_per_second"], least_ratio=0.95)
            table.row(f"{name}: the slowest", "a second", ours["slowest_per_second"], bare["slowest_per_second"],
                      least_ratio=0.9)


def troubles(bench, table):
    """What a silent reader, a scan and a poll cost the calls of other threads in parallel mode. Phases in turns."""
    silent = measured_trouble(bench, "silent", ["id=1,copies=8"], "at 0 reply 1 none")
    name = "7 readers beside a silent one; bare: the library without it"
    table.row(name, "a second", silent["with_per_second"], silent["without_per_second"], least_ratio=0.95)
    table.row("the same: 99 % of the exchanges", "ms", silent["with_99_percent_ms"], silent["without_99_percent_ms"],
              most_ratio=1.2)
    look_ups = measured_trouble(bench, "look-ups", ["id=1,copies=8"], "at 0 reply 1 none")
    for key, function in (("scan_list_size", "GVUSB_GetScanListSize"), ("device_handle", "GVUSB_GetDeviceHnd"),
                          ("timeout", '"TIMEOUT" of another')):
        table.row(f"{function} beside a silent reader: 99.9 %", "us", look_ups[key + "_99.9_percent_us"], most=1000)
    scans = measured_trouble(bench, "scans", ["id=1,copies=104"])
    table.row("4 readers beside scans of 100 closed ones; bare: without", "a second", scans["with_per_second"],
              scans["without_per_second"], least_ratio=0.9)
    with configuration("gvusb_hotplug=1", "gvusb_updaterate=10") as path:
        polls = measured_trouble(bench, "polls", ["id=1,copies=4", "id=5,plugged=no"], "at 0 mute 5 control", path)
    table.row("4 readers beside polls that meet a hung one; bare: without", "a second", polls["with_per_second"],
              polls["without_per_second"], least_ratio=0.9)


def measured_trouble(bench, trouble, readers, line="", file=None):
    """The medians of what gvusb_bench_troubles prints for all phases, on readers that answer after 10 ms."""
    values = collections.defaultdict(list)
    with tempfile.NamedTemporaryFile("w") as script:
        script.write(f"at 0 delay all in 10\n{line}\n")
        script.flush()
        launcher = bench.emulated(*readers, configuration=file)
        done = subprocess.run([*launcher[:-1], "--script", script.name, "--",
                               *bench.program("troubles", "parallel", trouble, 2)], check=True, stdout=subprocess.PIPE,
                              text=True)
    for name, value in (printed.split() for printed in done.stdout.splitlines()):
        values[name].append(float(value))
    return {name: statistics.median(each) for name, each in values.items()}


def ends_of_waits(bench, table):
    """How long it takes to end a call that waits for a reader."""
    with tempfile.NamedTemporaryFile("w") as script:
        script.write("at 0 mute all in\n")
        script.flush()
        values = {mode: on_emulated_bus(bench, ["id=1,copies=2"], mode, 300, script=script.name, program="ending_waits")
                  for mode in ("close", "cancel", "close-other")}
    table.row("close of a reader while its own transfer waits", "us", values["close"]["ending_us"], most=5000)
    table.row("the same: until the call has returned", "us", values["close"]["call_us"], most=5000)
    table.row("close of a reader while another's transfer waits", "us", values["close-other"]["ending_us"], most=5000)
    table.row('"CANCEL": until the call has returned', "us", values["cancel"]["call_us"], most=5000)


def on_emulated_bus(bench, readers, mode, seconds=2, script=None, program="emulated_bus", through=()):
    """The values that a program prints, which runs on the emulated bus, perhaps through a command that runs it."""
    options = ["--script", script] if script else []
    launcher = bench.emulated(*readers)
    done = subprocess.run([*launcher[:-1], *options, "--", *through, *bench.program(program, mode, seconds)], check=True,
                          stdout=subprocess.PIPE, text=True)
    return {name: float(value) for name, value in (line.split() for line in done.stdout.splitlines())}


def recording(bench, table):
    """What `gvusb record` costs the recorded program, with and without it in turns."""
    with tempfile.NamedTemporaryFile() as file:
        recorder = [bench.path("tools", "gvusb"), "record", "-o", file.name, "--"]
        runs = collections.defaultdict(list)
        for through in (recorder, [], [], recorder) * 20:
            runs[bool(through)].append(
                on_emulated_bus(bench, ["id=1"], "exchanges", 0.3, through=through)["exchanges_per_second"])
    table.row("exchanges while recorded; bare: not recorded", "a second", statistics.median(runs[True]),
              statistics.median(runs[False]), least_ratio=0.95)


def start_time(bench, readers):
    times = []
    for _ in range(21):
        begin = time.monotonic()
        subprocess.run([*bench.emulated(readers), "true"], check=True)
        times.append((time.monotonic() - begin) * 1000)
    return statistics.median(times)


# Plays a reader that answers a frame by sending it back.
ECHO = "import gvusb_logic; gvusb_logic.Reader.frame = lambda self, data: data; gvusb_logic.Reader().run()"


def emulated_bus(bench, table):
    """The emulated bus itself: column "library" is the value."""
    one = on_emulated_bus(bench, ["id=1"], "exchanges")
    table.row("emulated bus: exchanges with 1 reader", "a second", one["exchanges_per_second"], least=15000)
    table.row("the same, program and launcher", "CPU us each", one["processor_us_per_exchange"], most=80)
    turn = on_emulated_bus(bench, ["id=1,copies=50"], "exchanges")
    table.row("emulated bus: exchanges with 50 readers in turn", "a second", turn["exchanges_per_second"], least=12000)
    python = on_emulated_bus(bench, [f"id=1,logic=python3 -c '{ECHO}'"], "exchanges")
    table.row("emulated bus: exchanges with a reader in Python", "a second", python["exchanges_per_second"])
    with tempfile.NamedTemporaryFile("w") as script:
        script.write("at 0 delay all in 10\n")
        script.flush()
        late = on_emulated_bus(bench, ["id=1,copies=16"], "late", script=script.name)
    table.row("emulated bus: 16 readers that answer after 10 ms", "a second", late["exchanges_per_second"], least=1500)
    deep = on_emulated_bus(bench, ["id=1"], "deep")
    table.row("emulated bus: asynchronous transfers, 16 deep", "a second", deep["transfers_per_second"], least=40000)
    many = on_emulated_bus(bench, ["id=1,copies=1000"], "openings", 0)
    table.row("emulated bus: readers open at once", "readers", many["open"], least=1000)
    table.row("emulated bus: replugs", "a second",
              on_emulated_bus(bench, ["id=1"], "replugs")["replugs_per_second"], least=1000)
    table.row("emulated bus: start with 1 reader", "ms", start_time(bench, "id=1"), most=25)
    table.row("emulated bus: start with 50 readers", "ms", start_time(bench, "id=1,copies=50"), most=100)


def beside_usbip_server(bench, mode, seconds=2):
    """The values that a program prints, which is a client of the USB/IP server that runs it."""
    done = subprocess.run([bench.launcher, "--usbip", "--listen", "127.0.0.1:0", "--reader", "copies=2", "--",
                           *bench.program("usbip_server", mode, seconds)], check=True, stdout=subprocess.PIPE, text=True)
    return {name: float(value) for name, value in (line.split() for line in done.stdout.splitlines())}


def usbip_server(bench, table):
    """The USB/IP server: column "library" is the value."""
    table.row("USB/IP: exchanges with 1 reader", "a second",
              beside_usbip_server(bench, "exchanges")["exchanges_per_second"], least=15000)
    table.row("USB/IP: transfers, 16 deep", "a second",
              beside_usbip_server(bench, "deep")["transfers_per_second"], least=40000)
    table.row("USB/IP: frames of 1 MiB", "MiB/s", beside_usbip_server(bench, "long")["mebibytes_per_second"])
    storm = beside_usbip_server(bench, "storm")
    table.row("USB/IP: exchange beside an unlink storm; bare: without it", "us", storm["storm_us"], storm["quiet_us"],
              most=1000)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--counted", action="store_true")
    parser.add_argument("build")
    arguments = parser.parse_args()
    bench = Bench(arguments.build)
    table = Table()
    for measure in (exchanges, cxx_exchanges, parameters, scans, polls, logging, sizes, idling):
        measure(bench, table)
    if not arguments.counted:
        for measure in (processor_time, scan_times, load_times, python_exchanges, threads, troubles, ends_of_waits,
                        emulated_bus, recording, usbip_server):
            measure(bench, table)
    if table.broken:
        print(f"{table.broken} bounds are exceeded", file=sys.stderr)
    return 1 if table.broken else 0


if __name__ == "__main__":
    sys.exit(main())
