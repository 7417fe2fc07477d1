"""The shell blocks (```sh) of the documents. They change the machine or take long, but each must be run somewhere.

Either tests/package/clean_root.sh runs the block as root in a temporary Debian, or CI runs its commands, or a command
is listed below.
"""

import os
import re

PROJECT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)

# Commands that nothing runs as shown, each with the reason.
NOT_RUN = {
    "docker run": "needs Docker, USB devices and an image",
    "gvusb-emulate --usbip": "runs until interrupted; tests/emulator does that",
    "gvusb list": "shows what the lines before it have attached",
    "gvusb doctor": "shows what the lines before it have attached",
    "gvusb --broker mqtts://": "needs a broker; tests/package/clean_root_fleet.sh does the same with one",
    "gvusb-mqtt --check": "needs a configuration; tests/package/clean_root_fleet.sh checks that of the guide",
    "ssh ": "needs two machines",
    "sudo systemctl": "needs systemd as the first process; tests/package/clean_root_fleet.sh does what it would do",
    "systemctl": "see the line before it",
    "sudo modprobe": "loads kernel modules on this machine",
    "sudo usbip": "needs these modules, or readers to export",
    "ctest --preset": "runs a selection of the tests, this one included",
    "GVUSB_TEST_LOADS=": "takes minutes; tests/end_to_end loads less often",
    "GVUSB_STRESS_CALLS=": "takes minutes; tests/stress makes fewer calls",
    "python3 -m venv": "tests/python installs the package in this way, in a copy of the sources",
    "environment/bin/pip install": "see the line before it",
    "scripts/fuzz": "takes an hour; tests/fuzz replays the corpus",
    "scripts/explore": "takes as long as it is told; tests/schedules explores for a minute",
    "build/tests/schedules/gvusb_schedules": "takes hours; tests/schedules explores for a minute",
    "scripts/soak": "takes an hour; tests/end_to_end does the same for seconds",
    "scripts/coverage": "builds everything again; only measures",
    "scripts/test-architectures": "downloads packages of other architectures",
}


def content(*path):
    with open(os.path.join(PROJECT, *path), encoding="utf-8") as file:
        return file.read()


def run_in_clean_root():
    """The blocks that clean_root.sh runs by "shown GUIDE NUMBER"."""
    blocks = []
    for guide, number in re.findall(r"\bshown (\S+) (\d+)\b", content("tests/package/clean_root.sh")):
        document = content("README.md") if guide == "README" else content("docs", f"{guide}.md")
        shell = [text for language, text in BLOCK.findall(document) if language == "sh"]
        blocks.append(shell[int(number) - 1])
    return blocks


def run_nowhere(text):
    """The commands of a block that are neither run nor listed in NOT_RUN."""
    if text in run_in_clean_root():
        return []
    by_ci = content(".ci", "run").split()
    return [command for command in text.replace("\\\n", " ").splitlines()
            if command.split()[0].removeprefix("./") not in by_ci and not command.startswith(tuple(NOT_RUN))]
