"""The JSON schema of what gvusb-mqtt publishes."""
import json

import jsonschema


class Schema:
    def __init__(self, path):
        self.all = json.loads(path.read_text())
        jsonschema.Draft7Validator.check_schema(self.all)

    def validate(self, kind, value):
        only = {"$defs": self.all["$defs"], "$ref": f"#/$defs/{kind}"}
        jsonschema.Draft7Validator(only).validate(value)
        if kind != "scan" and set(value) != self.members(kind):
            raise jsonschema.ValidationError(f"members of {value} are not those of \"{kind}\"")

    def members(self, kind):
        return set(self.all["$defs"][kind]["properties"])
