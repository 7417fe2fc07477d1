#!/usr/bin/env python3
"""usage: run_blocks.py [--own-network] DOCUMENT [NAME=PATH...]

Run the code blocks of a document in order, in a folder that contains only links with these names. With --own-network, the
commands see only a loopback interface of their own, so any port is free. What they leave running is ended.

  c        a program must compile without warnings and is stored as program.c; code without main is compiled inside a
           function
  cpp      the same in C++17, stored as program.cpp
  cmake    stored as CMakeLists.txt
  python   stored as program.py
  conf     stored as gvusb.conf
  console  each line with "$ " is run in a shell; the lines after it must be its output, where "..." stands for any
           text in a line and, alone, for any lines. "# exit status N" at the end of a command is its status (0).
  udev     each line is a comment or has the form of a rule
  json     is JSON
  sh       not run here, because it changes the machine or takes long; see shell_blocks.py for where it is run

Other languages are an error. The environment says where to find the compilers (CC, CXX), the programs (PATH), the header
(CPATH), the library (LIBRARY_PATH, LD_LIBRARY_PATH) and CMake packages (CMAKE_PREFIX_PATH).
"""

import ctypes
import fcntl
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

import shell_blocks

WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror"]
RULE = re.compile(r'[A-Z]+(\{\w+\})?(==|!=|\+=|=)"[^"]*"(, [A-Z]+(\{\w+\})?(==|!=|\+=|=)"[^"]*")*')
STATUS = re.compile(r"\s+# exit status (\d+)$")

# Surrounds code without main.
FRAME = """#include <gvusb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
int part(int handle, int code, const unsigned char* request, unsigned int length);
int part(int handle, int code, const unsigned char* request, unsigned int length) {
    unsigned char answer[256];
    char value[GVUSB_PARAMETER_SIZE] = "";
    (void)handle, (void)code, (void)request, (void)length, (void)answer, (void)value;
#line 1 "part"
%s
    return 0;
}
"""


CXX_FRAME = """#include <gvusb.hpp>
#include <array>
#include <iostream>
int drop_late_answers(gvusb::reader& reader);
int part(gvusb::reader& reader, const std::vector<unsigned char>& frame, std::array<std::byte, 512>& answer);
int part(gvusb::reader& reader, const std::vector<unsigned char>& frame, std::array<std::byte, 512>& answer) {
    (void)reader, (void)frame, (void)answer;
#line 1 "part"
%s
    return 0;
}
"""


class Mismatch(Exception):
    pass


def compiles(compiler, extension, frame):
    """A function that compiles a block without warnings, and keeps a program."""
    def compile_block(text, folder):
        source = os.path.join(folder, ("program" if "int main(" in text else "part") + extension)
        with open(source, "w", encoding="utf-8") as file:
            file.write(text if "int main(" in text else frame % text)
        result = subprocess.run([*compiler, *WARNINGS, "-fsyntax-only", source],
                                capture_output=True, text=True, check=False)
        if result.returncode != 0:
            raise Mismatch(f"does not compile:\n{text}\n{result.stderr}")
    return compile_block


def keep(name):
    def write(text, folder):
        with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
            file.write(text)
    return write


def check_rules(text, _):
    for line in text.splitlines():
        if not line.startswith("#") and not RULE.fullmatch(line):
            raise Mismatch(f"not a udev rule: {line}")


def check_json(text, _):
    try:
        json.loads(text)
    except ValueError as error:
        raise Mismatch(f"not JSON: {error}\n{text}") from error


def pattern_of(lines):
    """Convert the expected lines to a regular expression."""
    parts = []
    for line in lines:
        if line.strip() == "...":
            parts.append(r"(?:.*\n)*")
        else:
            parts.append(".*".join(re.escape(piece) for piece in line.split("...")) + r"\n")
    return "".join(parts)


def run_command(command, expected, folder):
    status = STATUS.search(command)
    wanted = int(status.group(1)) if status else 0
    try:
        result = subprocess.run(["bash", "-c", STATUS.sub("", command)], cwd=folder, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, text=True, timeout=60, check=False)
    except subprocess.TimeoutExpired as expired:
        raise Mismatch(f"{command}\ndoes not end:\n{expired.stdout}") from expired
    output = "".join(line.rstrip() + "\n" for line in result.stdout.splitlines())
    print(f"$ {command}\n{output}", end="")
    if result.returncode != wanted:
        raise Mismatch(f"{command}\nexits with {result.returncode} instead of {wanted}:\n{output}")
    if not re.fullmatch(pattern_of(expected), output):
        shown = "".join(line + "\n" for line in expected)
        raise Mismatch(f"{command}\nshould print\n{shown}but prints\n{output}")


def run_console(text, folder):
    command, expected = None, []
    for line in text.splitlines():
        if command is not None and command.endswith("\\"):
            command = command[:-1] + line.strip()
        elif line.startswith("$ "):
            if command is not None:
                run_command(command, expected, folder)
            command, expected = line[2:], []
        else:
            expected.append(line.rstrip())
    run_command(command, expected, folder)


RUNNERS = {"c": compiles([os.environ.get("CC", "cc"), "-std=c11"], ".c", FRAME),
           "cpp": compiles([os.environ.get("CXX", "c++"), "-std=c++17"], ".cpp", CXX_FRAME), "cmake": keep("CMakeLists.txt"), "python": keep("program.py"), "conf": keep("gvusb.conf"),
           "udev": check_rules, "json": check_json, "console": run_console}


def call_system(name, *arguments):
    library = ctypes.CDLL(None, use_errno=True)
    if getattr(library, name)(*arguments) != 0:
        raise OSError(ctypes.get_errno(), f"{name}: {os.strerror(ctypes.get_errno())}")


def enter_own_network():
    """Move to a new network namespace, as the same user, and bring its loopback interface up."""
    new_user, new_network = 0x10000000, 0x40000000
    user, group = os.geteuid(), os.getegid()
    if user == 0:
        call_system("unshare", new_network)
    else:
        call_system("unshare", new_user | new_network)
        for file, text in [("setgroups", "deny"), ("uid_map", f"{user} {user} 1"), ("gid_map", f"{group} {group} 1")]:
            with open(f"/proc/self/{file}", "w", encoding="ascii") as map_file:
                map_file.write(text)
    get_flags, set_flags, is_up = 0x8913, 0x8914, 1
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        request = fcntl.ioctl(control, get_flags, struct.pack("16sh14x", b"lo", 0))
        flags = struct.unpack("16sh14x", request)[1]
        fcntl.ioctl(control, set_flags, struct.pack("16sh14x", b"lo", flags | is_up))


def adopt_orphans():
    """Become the parent of what the commands leave running."""
    set_child_subreaper = 36
    call_system("prctl", set_child_subreaper, 1, 0, 0, 0)


def end_orphans():
    def children():
        with open(f"/proc/self/task/{os.getpid()}/children", encoding="ascii") as file:
            return [int(process) for process in file.read().split()]

    for number in [signal.SIGTERM] * 100 + [signal.SIGKILL] * 100:
        left = children()
        if not left:
            return
        for process in left:
            os.kill(process, number)
        try:
            while os.waitpid(-1, os.WNOHANG)[0] != 0:
                pass
        except ChildProcessError:
            return
        time.sleep(0.1)


def main():
    arguments = sys.argv[1:]
    if arguments[0] == "--own-network":
        arguments.pop(0)
        enter_own_network()
    adopt_orphans()
    try:
        return run(*arguments)
    finally:
        end_orphans()


def run(path, *links):
    with open(path, encoding="utf-8") as file:
        document = file.read()
    done = elsewhere = failed = 0
    with tempfile.TemporaryDirectory() as folder:
        for link in links:
            name, target = link.split("=", 1)
            os.symlink(target, os.path.join(folder, name))
        for block in shell_blocks.BLOCK.finditer(document):
            language, text = block.groups()
            try:
                if language == "sh":
                    elsewhere += 1
                    nowhere = shell_blocks.run_nowhere(text)
                    if nowhere:
                        raise Mismatch("not run anywhere, see shell_blocks.py:\n" + "\n".join(nowhere))
                elif language not in RUNNERS:
                    raise Mismatch(f"unknown language of a block: \"{language}\"")
                else:
                    RUNNERS[language](text, folder)
                    done += 1
            except Mismatch as mismatch:
                failed += 1
                line = document.count("\n", 0, block.start()) + 1
                print(f"{path}:{line}: {mismatch}", file=sys.stderr)
    print(f"{done} blocks passed, {failed} failed, {elsewhere} are run elsewhere")
    return 1 if failed or done + elsewhere == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
