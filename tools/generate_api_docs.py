#!/usr/bin/env python3
"""Writes the API reference (api.md) and the OpenRPC document (openrpc.json) from the metamodel files.

Usage: generate_api_docs.py [--check] OUTPUT_DIR METAMODEL_FILE...

With --check nothing is written; the exit status tells whether the files are what would be written.
"""
import json
import os
import re
import sys

import metamodel

INTRODUCTION = """\
# API reference

Made by `tools/generate_api_docs.py` from the interface definitions in `metadata/`; edit those. The same as a document
for tools is [openrpc.json](openrpc.json), and a running server tells it through `com.tessel.orbi.metadata.*`.

A call is a JSON-RPC 2.0 request, `POST`ed with `Content-Type: application/json`, whose method is always `invoke`:

```json
{"jsonrpc": "2.0", "id": "1", "method": "invoke",
 "params": {"serviceId": "com.tessel.ryx.host_settings.depots", "operationId": "create",
            "ctx": {"securityCtx": {"schemeId": "com.tessel.orbi.std.security.user_pass",
                                    "userName": "root", "password": "secret"}},
            "input": {"spec": {"name": "main", "url": "http://depot.example/ryx"}}}}
```

The answer's `result` has either `output` or `error`. With `Accept: application/vnd.tessel.orbi.cleanjson` values come
as the JSON that one would expect: structures as objects, optional fields left out when unset, maps as objects. Without,
they name their types: `{"STRUCTURE": {"NAME": {...}}}`, `{"OPTIONAL": ...}`, maps as lists of entries. Input may be
written either way.

An operation whose name ends in `$task` answers with a task's identifier at once; `com.tessel.cis.tasks` tells how the
task stands and, in the end, its result. Any call can end with `unauthenticated`, `unauthorized`, `operation_not_found`,
`invalid_argument` (the input does not fit), `service_unavailable` (too many calls wait for their turn: try again) or
`internal_server_error`; operations list what they say beyond that.

Messages tell people what happened: `default_message` in English, `localized` in the language that `Accept-Language`
prefers among those that the server has catalogues of, else in English. Catalogues are files
`/usr/lib/tessel/lifecycle/messages/LANGUAGE/NAME.zmsg`, for `de`, `es`, `fr`, `ja`, `ko`, `zh_CN` and `zh_TW`, with
lines of the form `id = "text"`; they are read when the server starts. A message's `id` and `args` are for programs.
Where an error has several messages, the first is the one that its operation names below, and the others tell what
exactly was wrong, where, and what to do.

Types: `integer` has 64 bits and a sign; `date_time` is UTC in the form `2026-11-21T02:12:52.123Z`; `dynamic_structure`
is a structure of any fields, `any` any value, `error` any error; `void` is null.
"""

PROTOCOL_FAILURES = {
    -32700: "The body is not JSON.",
    -32600: "The body is not a JSON-RPC 2.0 call.",
    -32601: "The method is not \"invoke\".",
    -32602: "The parameters name no operation or carry no value, or disagree with the HTTP headers.",
}
STANDARD_ERROR = "com.tessel.orbi.std.errors."
SCHEMAS = {
    "void": {"type": "null"}, "boolean": {"type": "boolean"}, "double": {"type": "number"},
    "integer": {"type": "integer", "format": "int64"}, "string": {"type": "string"},
    "secret": {"type": "string", "format": "password"}, "binary": {"type": "string", "contentEncoding": "base64"},
    "date_time": {"type": "string", "format": "date-time"}, "dynamic_structure": {"type": "object"}, "any": {},
    "error": {"type": "object", "minProperties": 1, "maxProperties": 1},
}


class Reference:
    """The reference for people."""

    def __init__(self, model):
        self.model = model

    def text(self):
        parts = [INTRODUCTION, "\n## Services\n\n"]
        parts += [f"- {self.link(identifier)}: {service.documentation}\n"
                  for identifier, service in sorted(self.model.services.items())]
        parts += [self.service(service) for _, service in sorted(self.model.services.items())]
        parts += ["\n## Structures\n"]
        parts += [self.structure(entry) for _, entry in sorted(self.model.structures.items())]
        parts += ["\n## Enumerations\n"]
        parts += [self.enumeration(entry) for _, entry in sorted(self.model.enumerations.items())]
        parts += ["\n## Errors\n\n", self.table(("error", "meaning"), (
            (f"`{identifier}`", error.documentation) for identifier, error in self.model.errors.items()))]
        fields = next(iter(self.model.errors.values())).fields
        parts += ["\nEach has these fields:\n\n", self.fields(fields)]
        return "".join(parts)

    @staticmethod
    def link(identifier):
        return f"[`{identifier}`](#{re.sub(r'[^a-z0-9_-]', '', identifier)})"

    def type(self, entry):
        names = [self.type(argument) for argument in entry.arguments]
        if names:
            return f"{entry.name} of " + " to ".join(names)
        return entry.name if entry.name in metamodel.SCALARS else self.link(entry.name)

    @staticmethod
    def table(head, rows):
        rows = [[cell.replace("|", "\\|") for cell in row] for row in rows]
        lines = [head, ["---"] * len(head), *rows]
        return "".join("| " + " | ".join(line) + " |\n" for line in lines)

    def fields(self, fields):
        return self.table(("field", "type", "meaning"),
                          ((f"`{field.name}`", self.type(field.type), field.documentation) for field in fields))

    def service(self, service):
        return f"\n## {service.identifier}\n\n{service.documentation}\n" + "".join(
            self.operation(operation) for operation in service.operations)

    def operation(self, operation):
        parts = [f"\n### {operation.name}\n\n{operation.documentation}\n\n"]
        if operation.input is None:
            parts.append("Input: anything.\n\n")
        elif operation.input:
            parts += [self.fields(operation.input), "\n"]
        parts.append(f"Output: {self.type(operation.output.type)}. {operation.output.documentation}\n")
        if operation.task_result:
            parts.append(f"\nResult of the task: {self.type(operation.task_result.type)}. "
                         f"{operation.task_result.documentation}\n")
        if operation.errors:
            parts += ["\n", self.table(("error", "when"), (
                (f"`{identifier.removeprefix(STANDARD_ERROR)}`", when)
                for identifier, when in operation.errors.items()))]
        return "".join(parts)

    def structure(self, structure):
        return f"\n### {structure.identifier}\n\n{structure.documentation}\n\n" + self.fields(structure.fields)

    def enumeration(self, enumeration):
        values = self.table(("value", "meaning"), ((f"`{name}`", text) for name, text in enumeration.values.items()))
        return f"\n### {enumeration.identifier}\n\n{enumeration.documentation}\n\n" + values


class OpenRpc:
    """The document for tools: one method per operation, types in clean JSON."""

    def __init__(self, model):
        self.model = model

    def text(self):
        schemas = {}
        for identifier, entry in sorted(self.model.structures.items()):
            schemas[identifier] = self.fields_schema(entry.fields) | {"description": entry.documentation}
        for identifier, entry in sorted(self.model.enumerations.items()):
            schemas[identifier] = {"type": "string", "enum": list(entry.values), "description": entry.documentation}
        for identifier, entry in self.model.errors.items():
            schemas[identifier] = self.fields_schema(entry.fields) | {"description": entry.documentation}
        document = {
            "openrpc": "1.2.6",
            "info": {
                "title": "kestreld", "version": "1.0.0",
                "description": "Each method is an operation, named SERVICE.OPERATION. On the wire the method is always "
                               "\"invoke\", with the params serviceId, operationId, ctx and input: an object of the "
                               "params told here. An answer's result has either output, the result told here, or "
                               "error. Values are told in the form of application/vnd.tessel.orbi.cleanjson."},
            "methods": [self.method(service, operation)
                        for _, service in sorted(self.model.services.items()) for operation in service.operations],
            "components": {
                "schemas": schemas,
                "errors": {f"Failure{-code}": {"code": code, "message": message}
                           for code, message in PROTOCOL_FAILURES.items()}},
        }
        return json.dumps(document, indent=1, ensure_ascii=False) + "\n"

    def schema(self, entry):
        if entry.name in SCHEMAS:
            return dict(SCHEMAS[entry.name])
        if entry.name == "list":
            return {"type": "array", "items": self.schema(entry.arguments[0])}
        if entry.name == "map":
            return {"type": "object", "additionalProperties": self.schema(entry.arguments[1])}
        if entry.name == "optional":
            return {"anyOf": [self.schema(entry.arguments[0]), {"type": "null"}]}
        return {"$ref": f"#/components/schemas/{entry.name}"}

    def field_schema(self, field):
        """An optional field is left out when it is unset."""
        return self.schema(field.type.arguments[0] if field.type.name == "optional" else field.type)

    def property_schema(self, field):
        schema = self.field_schema(field)
        # What stands beside a reference is ignored.
        schema = {"allOf": [schema]} if "$ref" in schema else schema
        return {"description": field.documentation} | schema

    def fields_schema(self, fields):
        required = [field.name for field in fields if field.type.name != "optional"]
        properties = {field.name: self.property_schema(field) for field in fields}
        return {"type": "object", "additionalProperties": False, "properties": properties} | (
            {"required": required} if required else {})

    def method(self, service, operation):
        method = {
            "name": f"{service.identifier}.{operation.name}",
            "description": operation.documentation,
            "paramStructure": "by-name",
            "params": [{"name": field.name, "description": field.documentation,
                        "required": field.type.name != "optional", "schema": self.field_schema(field)}
                       for field in operation.input or ()],
            "result": {"name": "output", "description": operation.output.documentation,
                       "schema": self.schema(operation.output.type)},
            "x-orbi-serviceId": service.identifier,
            "x-orbi-operationId": operation.name,
        }
        if operation.task_result:
            method["x-orbi-taskResult"] = {"description": operation.task_result.documentation,
                                           "schema": self.schema(operation.task_result.type)}
        if operation.errors:
            method["x-orbi-errors"] = operation.errors
        return method


def main(arguments):
    only_check = arguments[:1] == ["--check"]
    arguments = arguments[only_check:]
    if len(arguments) < 2:
        sys.exit(__doc__)
    directory, *paths = arguments
    stale = []
    try:
        model = metamodel.load(paths)
        for name, text in (("api.md", Reference(model).text()), ("openrpc.json", OpenRpc(model).text())):
            path = os.path.join(directory, name)
            if not only_check:
                with open(path, "w", encoding="utf-8") as file:
                    file.write(text)
            elif not os.path.exists(path) or open(path, encoding="utf-8").read() != text:
                stale.append(path)
    except (metamodel.MetamodelError, OSError) as error:
        sys.exit(f"generate_api_docs: {error}")
    if stale:
        sys.exit(f"generate_api_docs: not up to date, run it again: {' '.join(stale)}")


if __name__ == "__main__":
    main(sys.argv[1:])
