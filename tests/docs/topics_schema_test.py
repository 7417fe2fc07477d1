#!/usr/bin/python3
"""Check the JSON schema of what gvusb-mqtt publishes: that it is one, and that docs/mqtt-topics.md describes the same.

usage: topics_schema_test.py DOCS_FOLDER
"""
import json
import pathlib
import re
import sys

import jsonschema
from topics_schema import Schema

MEMBER_ROW = re.compile(r"^\| ((?:`\w+`(?:, )?)+) \| ((?:text|texts|number|numbers|true|`connect`).*) \|$", re.MULTILINE)


def rejects(schema, kind, value):
    try:
        schema.validate(kind, value)
    except jsonschema.ValidationError:
        return True
    return False


def check_page(page, schema):
    examples = {"reader": None, "event": None}
    for heading, kind in [("### The document of a reader", "reader"), ("### Events", "event")]:
        section = page.split(heading)[1].split("\n##")[0]
        examples[kind] = json.loads(re.search(r"```json\n(.*?)```", section, re.DOTALL).group(1))
        schema.validate(kind, examples[kind])
        described = {name for row in MEMBER_ROW.finditer(section) for name in re.findall(r"`(\w+)`", row.group(1))}
        if described != schema.members(kind):
            sys.exit(f"{heading}: the table and the schema differ: {sorted(described ^ schema.members(kind))}")
    schema.validate("scan", [examples["reader"]])
    return examples


def check_rejections(schema, reader, event):
    """The schema must tell a document from a wrong one."""
    wrong = [("reader", {**reader, "name": "1a2b3c"}), ("reader", {**reader, "name": "1A2B3C@1"}),
             ("reader", {**reader, "bus": "1"}), ("reader", {**reader, "since": "2026-11-23T12:00:00Z"}),
             ("reader", {**reader, "path": "1-1"}), ("reader", {key: reader[key] for key in reader if key != "type"}),
             ("event", {**event, "event": "gone"}), ("event", {**event, "event": "connect"}),
             ("event", {**event, "code": None, "text": None, "event": "connect", "reader": None}),
             ("scan", [{**reader, "connected": False}])]
    for kind, value in wrong:
        if not rejects(schema, kind, value):
            sys.exit(f"The schema accepts this as \"{kind}\": {value}")


def main():
    docs = pathlib.Path(sys.argv[1])
    schema = Schema(docs / "mqtt-topics.schema.json")
    examples = check_page((docs / "mqtt-topics.md").read_text(), schema)
    check_rejections(schema, examples["reader"], examples["event"])


main()
