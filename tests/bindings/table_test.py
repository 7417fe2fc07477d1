#!/usr/bin/env python3
"""Check that cases.json covers every code and every parameter of the header.

usage: table_test.py SOURCE_FOLDER
"""
import json
import pathlib
import re
import sys


def codes_of(header):
    """The number and the comment of each code."""
    body = re.search(r"enum GVUSB_ErrorCode \{(.*?)\n\};", header, re.DOTALL)[1]
    return {name: (int(number), " ".join(comment.split())) for name, number, comment in
            re.findall(r"(GVUSB_\w+) =\s*(-?\d+),?\s*/\*\*<(.*?)\*/", body, re.DOTALL)}


def keys_of(header):
    """The keys that the functions for parameters describe."""
    described = "".join(re.findall(r"/\*\*(?:(?!\*/).)*?\*/\s*int GVUSB_(?:Get|Set)DevicePara\(", header, re.DOTALL))
    lists = re.findall(r'^ \* - ((?:"[A-Z-]+"(?:, )?)+):', described, re.MULTILINE)
    return set(re.findall(r"[A-Z-]+", " ".join(lists)))


def named_in(cases):
    """The codes that a step expects, and the keys that a step reads or writes."""
    codes, keys = set(), set()
    for case in cases:
        for step in case["steps"]:
            codes |= {step.get("fails"), step.get("returns")}
            keys |= {step.get("key", "").upper()} | {value for value in step.get("arguments", []) if isinstance(value, str)}
    return codes, keys


def main():
    source = pathlib.Path(sys.argv[1])
    header = (source / "include/gvusb.h").read_text()
    cxx_header = (source / "include/gvusb.hpp").read_text()
    table = json.loads((source / "tests/bindings/cases.json").read_text())
    mistakes = []

    codes = codes_of(header)
    listed = {code["name"]: code["code"] for code in table["codes"]}
    if listed.pop("GVUSB_NO_SCAN_LIST_ENTRY", None) != 1115:
        mistakes.append("GVUSB_NO_SCAN_LIST_ENTRY is not listed")
    for name in sorted(codes.keys() | listed.keys()):
        if name not in codes or listed.get(name) != codes[name][0]:
            mistakes.append(f"{name} is {codes.get(name)} in the header and {listed.get(name)} in the table")
    for name in codes.keys() - {"GVUSB_OK"}:
        enumerator = name.removeprefix("GVUSB_ERR_").lower()
        if f" {enumerator} = {name}," not in cxx_header:
            mistakes.append(f"gvusb::errc has no {enumerator}")

    tested, read = named_in(table["cases"])
    untested = table["not-provoked"]
    keys = keys_of(header)
    for name, (_, comment) in codes.items():
        if name != "GVUSB_OK" and comment != "published, never returned" and name not in tested | untested.keys():
            mistakes.append(f"no case expects {name}")
    mistakes += [f"no case has the key {key}" for key in keys - read - untested.keys()]
    mistakes += [f"a case has {name}, which is listed as not provoked" for name in untested.keys() & (tested | read)]
    mistakes += [f"{name}, which is not provoked, is unknown" for name in untested.keys() - codes.keys() - keys]
    names = [case["name"] for case in table["cases"]]
    mistakes += [f"two cases are named {name}" for name in set(names) if names.count(name) > 1]
    print(f"{len(codes)} codes, {len(keys)} keys, {len(names)} cases")
    print(*sorted(mistakes), sep="\n", end="\n" if mistakes else "")
    return 1 if mistakes or not codes or not keys else 0


sys.exit(main())
