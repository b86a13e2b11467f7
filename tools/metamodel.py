"""The interface definitions of metadata/*_orbi_metamodel.json as checked Python objects.

Every tool that makes something from the definitions reads them through load(), which refuses what it does not
understand: an unknown member, a type that is not described, a name that breaks the naming rules.
"""
import dataclasses
import json
import re

SCALARS = ("void", "boolean", "integer", "double", "string", "secret", "binary", "date_time",
           "dynamic_structure", "any", "error")
GENERICS = {"list": 1, "map": 2, "optional": 1}
NAME = re.compile(r"[a-z][a-z0-9_]*")
IDENTIFIER = re.compile(r"[a-z][a-z0-9_]*(\.[a-z][a-z0-9_]*)+")


class MetamodelError(Exception):
    """Says in which file and where a definition is wrong."""


@dataclasses.dataclass(frozen=True)
class Type:
    name: str  # a scalar, a generic, or the identifier of a structure or enumeration
    arguments: tuple = ()

    def references(self):
        if self.name not in SCALARS and self.name not in GENERICS:
            yield self.name
        for argument in self.arguments:
            yield from argument.references()

    def __str__(self):
        return self.name + ("<" + ", ".join(map(str, self.arguments)) + ">" if self.arguments else "")


@dataclasses.dataclass
class Field:
    name: str
    type: Type
    documentation: str


@dataclasses.dataclass
class Result:
    type: Type
    documentation: str


@dataclasses.dataclass
class Operation:
    name: str
    documentation: str
    input: list  # of Field; None when any input is taken
    output: Result
    task_result: Result  # None when the operation starts no task
    errors: dict  # identifier -> when

    @property
    def starts_task(self):
        return self.name.endswith("$task")

    @property
    def plain_name(self):
        return self.name.removesuffix("$task")


@dataclasses.dataclass
class Service:
    identifier: str
    component: str
    documentation: str
    operations: list


@dataclasses.dataclass
class Structure:
    identifier: str
    component: str
    documentation: str
    fields: list
    native: str  # the identifier that the native type's name follows

    @property
    def package(self):
        return self.native.rpartition(".")[0]


@dataclasses.dataclass
class Enumeration:
    identifier: str
    component: str
    documentation: str
    values: dict  # name -> documentation

    @property
    def package(self):
        return self.identifier.rpartition(".")[0]


@dataclasses.dataclass
class Error:
    identifier: str
    component: str
    documentation: str
    fields: list


@dataclasses.dataclass
class Model:
    components: dict = dataclasses.field(default_factory=dict)  # name -> documentation
    services: dict = dataclasses.field(default_factory=dict)
    structures: dict = dataclasses.field(default_factory=dict)
    enumerations: dict = dataclasses.field(default_factory=dict)
    errors: dict = dataclasses.field(default_factory=dict)


def parse_type(text):
    """Reads a type: a scalar, an identifier, list<T>, map<K, V> or optional<T>."""
    tokens = re.findall(r"[a-z][a-z0-9_.]*|[<>,]|\S", text)
    position = 0

    def take(expected=None):
        nonlocal position
        token = tokens[position] if position < len(tokens) else ""
        if expected and token != expected:
            raise ValueError(f"type '{text}': expected '{expected}', found '{token or 'the end'}'")
        position += 1
        return token

    def read():
        name = take()
        if name in GENERICS:
            take("<")
            arguments = [read()]
            for _ in range(GENERICS[name] - 1):
                take(",")
                arguments.append(read())
            take(">")
            return Type(name, tuple(arguments))
        if name not in SCALARS and not IDENTIFIER.fullmatch(name):
            raise ValueError(f"type '{text}': '{name}' is no type")
        return Type(name)

    result = read()
    if position != len(tokens):
        raise ValueError(f"type '{text}': '{tokens[position]}' after its end")
    return result


def load(paths):
    """Reads the files and checks each, and all together."""
    model = Model()
    for path in paths:
        with open(path, encoding="utf-8") as file:
            try:
                document = json.load(file, object_pairs_hook=_no_duplicates)
                _Reader(model).read(document)
            except ValueError as error:
                raise MetamodelError(f"{path}: {error}") from error
    _check_references(model)
    return model


def _no_duplicates(pairs):
    members = {}
    for name, value in pairs:
        if name in members:
            raise ValueError(f"member '{name}' is given twice")
        members[name] = value
    return members


class _Reader:
    def __init__(self, model):
        self.model = model
        self.component = None

    def read(self, document):
        known = ("format", "component", "documentation", "services", "structures", "enumerations", "errors",
                 "error_fields")
        _only(document, "document", known[:3], known[3:])
        if document["format"] != 1:
            raise ValueError(f"format {document['format']} is not known")
        self.component = document["component"]
        self.model.components[self.component] = document["documentation"]
        error_fields = self.fields(document.get("error_fields", {}), "error_fields")
        for kind, read in (("services", self.service), ("structures", self.structure),
                           ("enumerations", self.enumeration),
                           ("errors", lambda *entry: self.error(*entry, error_fields))):
            table = getattr(self.model, kind)
            for identifier, entry in document.get(kind, {}).items():
                if identifier in table or not IDENTIFIER.fullmatch(identifier):
                    raise ValueError(f"{kind}: '{identifier}' is described twice or is no identifier")
                table[identifier] = read(identifier, entry)

    def service(self, identifier, entry):
        _only(entry, identifier, ("documentation", "operations"))
        operations = [self.operation(f"{identifier}.{name}", name, operation)
                      for name, operation in entry["operations"].items()]
        return Service(identifier, self.component, entry["documentation"], operations)

    def operation(self, where, name, entry):
        _only(entry, where, ("documentation", "input", "output"), ("task_result", "errors"))
        operation = Operation(
            name, entry["documentation"],
            None if entry["input"] == "any" else self.fields(entry["input"], where),
            self.result(entry["output"], where),
            self.result(entry["task_result"], where) if "task_result" in entry else None,
            entry.get("errors", {}))
        if not NAME.fullmatch(operation.plain_name):
            raise ValueError(f"{where} is not a name")
        if operation.starts_task != (operation.task_result is not None):
            raise ValueError(f"{where}: exactly the operations that start a task have a task_result")
        if operation.starts_task and operation.output.type != Type("string"):
            raise ValueError(f"{where}: an operation that starts a task answers its identifier, a string")
        return operation

    def result(self, entry, where):
        _only(entry, where, ("type", "documentation"))
        return Result(parse_type(entry["type"]), entry["documentation"])

    def structure(self, identifier, entry):
        _only(entry, identifier, ("documentation", "fields"), ("native",))
        return Structure(identifier, self.component, entry["documentation"],
                         self.fields(entry["fields"], identifier), entry.get("native", identifier))

    def enumeration(self, identifier, entry):
        _only(entry, identifier, ("documentation", "values"))
        return Enumeration(identifier, self.component, entry["documentation"], entry["values"])

    def error(self, identifier, entry, fields):
        _only(entry, identifier, ("documentation",))
        return Error(identifier, self.component, entry["documentation"], fields)

    def fields(self, entries, where):
        fields = []
        for name, entry in entries.items():
            _only(entry, f"{where}.{name}", ("type", "documentation"))
            if not NAME.fullmatch(name):
                raise ValueError(f"{where}: '{name}' is not a name")
            fields.append(Field(name, parse_type(entry["type"]), entry["documentation"]))
        return fields


def _only(entry, where, required, optional=()):
    if not isinstance(entry, dict):
        raise ValueError(f"{where} is not an object")
    for name in required:
        if name not in entry:
            raise ValueError(f"{where} lacks '{name}'")
    for name in entry:
        if name not in required and name not in optional:
            raise ValueError(f"{where} has an unknown member '{name}'")


def _check_references(model):
    known = set(model.structures) | set(model.enumerations)
    used = {}
    for service in model.services.values():
        for operation in service.operations:
            where = f"{service.identifier}.{operation.name}"
            results = [result for result in (operation.output, operation.task_result) if result]
            used[where] = [entry.type for entry in (operation.input or []) + results]
            for identifier in operation.errors:
                if identifier not in model.errors:
                    raise MetamodelError(f"{where} names the unknown error '{identifier}'")
    for table in (model.structures, model.errors):
        for identifier, entry in table.items():
            used[identifier] = [field.type for field in entry.fields]
    for where, types in used.items():
        for identifier in (name for entry in types for name in entry.references()):
            if identifier not in known:
                raise MetamodelError(f"{where} uses the unknown type '{identifier}'")
