"""Instruction counts from valgrind's callgrind: exact, and independent of other load on the machine."""

import collections
import os
import re
import subprocess
import tempfile

Cost = collections.namedtuple("Cost", "calls instructions")


def _profile(command, environment):
    with tempfile.TemporaryDirectory() as folder:
        profile = os.path.join(folder, "callgrind.out")
        launcher, program = command
        subprocess.run(launcher + ["valgrind", "-q", "--tool=callgrind", "--callgrind-out-file=" + profile] + program,
                       env=environment, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        with open(profile, encoding="utf-8", errors="replace") as lines:
            return lines.read().splitlines()


def _cost_of(function, lines):
    """The inclusive cost of all calls of a function, given by the start of its name."""
    names = {}
    calls = instructions = 0
    called = None
    expects_cost = False
    for line in lines:
        if match := re.match(r"c?fn=\((\d+)\)(?: (.*))?", line):
            if match[2]:
                names[match[1]] = match[2]
            if line.startswith("cfn="):
                called = names.get(match[1], "")
        elif match := re.match(r"calls=(\d+)", line):
            expects_cost = True
            if called.startswith(function):
                calls += int(match[1])
        elif expects_cost:
            expects_cost = False
            if called.startswith(function):
                instructions += int(line.split()[1])
    return Cost(calls, instructions)


def instructions(functions, command_of, times, environment):
    """Instructions for one call of each function. command_of(times) is a launcher and a program that makes the calls.

    Runs the program once with `times` and once with twice as many, so that the cost of unrepeated work cancels
    out. The same two runs count all functions."""
    once, twice = (_profile(command_of(n), environment) for n in (times, 2 * times))
    result = []
    for function in functions:
        less, more = (_cost_of(function, lines) for lines in (once, twice))
        if more.calls <= less.calls:
            raise RuntimeError(f"{function} is not called more often by {command_of(2 * times)}")
        result.append((more.instructions - less.instructions) / (more.calls - less.calls))
    return result
