"""The shell blocks of the documents (```sh): each changes the machine or takes long, and yet is run somewhere.

Either tests/package/clean_root.sh runs it, as root in a Debian that is thrown away, straight from a document; or CI
runs its commands; or a command is one of those below.
"""

import os
import re

PROJECT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)

# What nothing runs as the documents show it, with the reason.
NOT_RUN = {
    "docker run": "takes Docker, the kernel's USB devices and somebody's image",
    "gvusb-emulate --usbip": "ends when it is interrupted; tests/emulator does that",
    "gvusb list": "shows what the lines before it have attached",
    "gvusb doctor": "shows what the lines before it have attached",
    "ssh ": "takes two machines",
    "sudo modprobe": "loads modules into the kernel of this very machine",
    "sudo usbip": "takes these modules, or readers to lend",
    "ctest --preset": "chooses among the very tests that this is one of",
    "GVUSB_STRESS_CALLS=": "takes minutes; tests/stress makes fewer calls",
    "scripts/fuzz": "takes an hour; what it has collected is replayed by tests/fuzz",
    "scripts/soak": "takes an hour; tests/emulated does the same for seconds",
    "scripts/coverage": "builds everything once more, to measure: no result of it is wrong",
    "scripts/test-architectures": "fetches another architecture's Debian",
}


def content(*path):
    with open(os.path.join(PROJECT, *path), encoding="utf-8") as file:
        return file.read()


def run_in_clean_root():
    """The blocks that clean_root.sh says it runs, as "shown GUIDE NUMBER"."""
    blocks = []
    for guide, number in re.findall(r"\bshown (\S+) (\d+)\b", content("tests/package/clean_root.sh")):
        document = content("README.md") if guide == "README" else content("docs", f"{guide}.md")
        shell = [text for language, text in BLOCK.findall(document) if language == "sh"]
        blocks.append(shell[int(number) - 1])
    return blocks


def run_nowhere(text):
    """The commands of a block that nothing runs and that are not excused."""
    if text in run_in_clean_root():
        return []
    by_ci = content(".ci", "run").split()
    return [command for command in text.replace("\\\n", " ").splitlines()
            if command.split()[0].removeprefix("./") not in by_ci and not command.startswith(tuple(NOT_RUN))]
