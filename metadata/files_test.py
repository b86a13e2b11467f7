"""What the metadata files say about each other, and what their reader refuses."""
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(ROOT, "tools"))
sys.dont_write_bytecode = True

import generate_bindings
import metamodel

METAMODELS = [os.path.join(HERE, name) for name in ("kestreld_orbi_metamodel.json", "orbi_common_metamodel.json")]


def read(name):
    with open(os.path.join(HERE, name), encoding="utf-8") as file:
        return json.load(file)


class FilesTest(unittest.TestCase):
    def setUp(self):
        self.model = metamodel.load(METAMODELS)
        self.operations = {(service.identifier, operation.name): operation
                           for service in self.model.services.values() for operation in service.operations}

    def fields_of(self, entry):
        """The fields of the structure that a type holds, be it in a list, a map or an optional."""
        while entry.arguments:
            entry = entry.arguments[-1]
        structure = self.model.structures.get(entry.name)
        return {field.name: field for field in structure.fields} if structure else {}

    def find_field(self, operation, path):
        fields, field = {field.name: field for field in operation.input}, None
        for name in path.split("."):
            self.assertIn(name, fields, path)
            field = fields[name]
            fields = self.fields_of(field.type)
        return field

    def test_commands_call_what_is_there_and_reach_everything(self):
        called = set()
        for file in ("kestreld_orbi_cli.json", "orbi_common_cli.json"):
            for name, command in read(file)["commands"].items():
                method = (command["service"], command["operation"])
                with self.subTest(command=name):
                    self.assertIn(method, self.operations)
                    called.add(method)
                    operation = self.operations[method]
                    given = set()
                    for option in command.get("options", {}).values():
                        field = self.find_field(operation, option["field"])
                        given.add(option["field"].partition(".")[0])
                        self.assertEqual(option["form"] == "FLAG", str(field.type).endswith("boolean>"))
                    needed = {field.name for field in operation.input if field.type.name != "optional"}
                    self.assertLessEqual(needed, given)
                    columns = set(command.get("columns", []))
                    self.assertLessEqual(columns - {"key"}, set(self.fields_of(operation.output.type)))
        described = {method for method, operation in self.operations.items() if operation.input is not None}
        self.assertEqual(called, described)

    def test_authentication_rules_name_what_is_there(self):
        rules = read("kestreld_orbi_authentication.json")
        self.assertLessEqual(set(rules["services"]), set(self.model.services))
        self.assertLessEqual(set(rules["operations"]), {".".join(method) for method in self.operations})

    def test_messages_named_in_words_exist(self):
        known = ""
        for folder, suffix in (("configuration/messages", ".cpp"), ("platform/orbi/l10n", ".cpp"),
                               ("metadata", ".json")):
            for name in os.listdir(os.path.join(ROOT, folder)):
                if name.endswith(suffix):
                    with open(os.path.join(ROOT, folder, name), encoding="utf-8") as file:
                        known += file.read()
        quoted = set(re.findall(r'"((?:com\.tessel|orbi)\.[A-Za-z_.-]+)"', known))
        for (service, name), operation in self.operations.items():
            for words in operation.errors.values():
                for identifier in re.findall(r"(?:com\.tessel|orbi)\.[A-Za-z_.]+[A-Za-z_]", words):
                    self.assertTrue(identifier in quoted, f"{service}.{name} names the unknown {identifier}")

    def test_committed_documents_are_current(self):
        check = subprocess.run([sys.executable, "-B", os.path.join(ROOT, "tools/generate_api_docs.py"), "--check",
                                os.path.join(ROOT, "docs"), *METAMODELS], capture_output=True, text=True, check=False)
        self.assertEqual(check.returncode, 0, check.stderr)


class ReaderTest(unittest.TestCase):
    """A mistake in the definitions ends the build with its place."""

    OPERATION = {"documentation": "", "input": {}, "output": {"type": "void", "documentation": ""}}

    def load(self, **members):
        document = {"format": 1, "component": "test", "documentation": ""} | members
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "model.json")
            with open(path, "w", encoding="utf-8") as file:
                file.write(members.get("text") or json.dumps(document))
            return metamodel.load([path])

    def service(self, **operations):
        return {"services": {"a.s": {"documentation": "", "operations": operations}}}

    def structures(self, **types):
        return {"structures": {f"a.{name}": {"documentation": "", "fields": {"f": {"type": text, "documentation": ""}}}
                               for name, text in types.items()}}

    def test_mistakes_are_told(self):
        task = self.OPERATION | {"task_result": {"type": "void", "documentation": ""}}
        cases = (
            (self.structures(x="a.y"), "a.x uses the unknown type 'a.y'"),
            (self.structures(x="list<string"), "expected '>', found 'the end'"),
            (self.structures(x="list<string>>"), "'>' after its end"),
            (self.structures(x="map<string>"), "expected ',', found '>'"),
            (self.structures(x="text"), "'text' is no type"),
            (self.service(get=self.OPERATION | {"inputs": {}}), "a.s.get has an unknown member 'inputs'"),
            (self.service(get={"documentation": "", "input": {}}), "a.s.get lacks 'output'"),
            (self.service(Get=self.OPERATION), "a.s.Get is not a name"),
            (self.service(get=self.OPERATION | {"errors": {"a.e": ""}}), "names the unknown error 'a.e'"),
            (self.service(**{"get$task": self.OPERATION}), "exactly the operations that start a task"),
            (self.service(**{"get$task": task}), "answers its identifier, a string"),
            ({"format": 2}, "format 2 is not known"),
            ({"text": '{"format": 1, "format": 1}'}, "'format' is given twice"),
            ({"text": "{"}, "model.json"),
        )
        for members, reason in cases:
            with self.subTest(reason=reason), self.assertRaises(metamodel.MetamodelError) as caught:
                self.load(**members)
            self.assertIn(reason, str(caught.exception))

    def test_structures_that_contain_each_other_cannot_be_generated(self):
        model = self.load(**self.structures(x="optional<a.y>", y="list<a.x>"))
        with self.assertRaisesRegex(metamodel.MetamodelError, "contain each other: a.x, a.y"):
            generate_bindings.Generator(model)

    def test_names_reserved_in_cpp_get_an_underscore(self):
        structure = {"structures": {"a.x": {"documentation": "", "fields": {
            "default": {"type": "string", "documentation": ""}}}}}
        files = dict(generate_bindings.Generator(self.load(**structure)).files())
        self.assertIn("std::string default_;", files["bindings/a.h"])
        self.assertIn('field("default", native.default_);', files["bindings/a.cpp"])


if __name__ == "__main__":
    unittest.main()
