#!/usr/bin/env python3
"""Writes the C++ bindings of the services that the metamodel files describe.

Usage: generate_bindings.py [--list] OUTPUT_DIR METAMODEL_FILE...

One header and one source file per package (a service, or a namespace of shared types) at
OUTPUT_DIR/bindings/PACKAGE/WITH/SLASHES.{h,cpp}: native structures and enumerations with their adapters, and for a
service its asynchronous interface, method constants and binder. Besides, OUTPUT_DIR/bindings/task_results.{h,cpp}.
A file whose content stays the same is not touched. With --list, only prints the paths of the files.
"""
import os
import sys

import metamodel

RESERVED = frozenset("""alignas alignof and auto bool break case catch char class concept const constexpr continue
    decltype default delete do double else enum explicit export extern false float for friend goto if inline int long
    namespace new noexcept not nullptr operator or private protected public register requires return short signed
    sizeof static struct switch template this throw true try typedef typename union unsigned using virtual void
    volatile while xor""".split())

SCALARS = {
    "void": "void", "boolean": "bool", "integer": "std::int64_t", "double": "double", "string": "std::string",
    "secret": "::Orbi::Data::Secret", "binary": "::Orbi::Data::Blob", "date_time": "::Orbi::DateTime",
    "dynamic_structure": "::Orbi::Bindings::DynamicStructure", "any": "::Orbi::Data::Value",
    "error": "::Orbi::Data::ErrorValue",
}
GENERICS = {"list": "std::vector", "optional": "std::optional", "map": "std::map"}
INITIALIZERS = {"boolean": " = false", "integer": " = 0", "double": " = 0",
                "date_time": "{::Orbi::DateTime::Time{}}"}
# Types that the framework has itself.
FRAMEWORK_TYPES = {"com.tessel.orbi.std.localizable_message": "::Orbi::Data::LocalizableMessage"}
STANDARD_HEADERS = {"std::int64_t": "cstdint", "std::string": "string", "std::vector": "vector",
                    "std::optional": "optional", "std::map": "map"}
FRAMEWORK_HEADERS = {"::Orbi::DateTime": "orbi/date_time.h",
                     "::Orbi::Data::LocalizableMessage": "orbi/data/message.h"}

TASK_RESULTS_HEADER = """// Generated from the interface definitions; changes are lost.
#pragma once

#include <string>
#include <string_view>

#include "orbi/data/value.h"

namespace Orbi::Bindings {

/// Marks the maps in the result of a task, as the operation that started it declares them: plain JSON, which results
/// are kept in, does not tell an empty map from an empty list. Callable from any thread.
/// @param operation  with its service, "SERVICE.OPERATION"; of one that is not known nothing is marked
void MarkMapsOfTaskResult(std::string_view operation, Data::Value& result);

}  // namespace Orbi::Bindings
"""

TASK_RESULTS_SOURCE = """// Generated from the interface definitions; changes are lost.
#include "bindings/task_results.h"

#include "orbi/bindings/map_places.h"

namespace Orbi::Bindings {

constexpr struct {
  std::string_view operation;
  std::string_view place;
} kMapsOfTaskResults[] = {
ROWS};

void MarkMapsOfTaskResult(std::string_view operation, Data::Value& result) {
  for (const auto& map : kMapsOfTaskResults)
    if (map.operation == operation) MarkMaps(map.place, result);
}

}  // namespace Orbi::Bindings
"""


def camel(name):
    return "".join(word.capitalize() for word in name.split("_"))


def field_name(name):
    return name + "_" if name in RESERVED else name


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def comment(text, indent=""):
    """The text as documentation lines of at most 100 columns."""
    lines, line = [], indent + "///"
    for word in text.split():
        if len(line) + 1 + len(word) > 100:
            lines.append(line)
            line = indent + "///"
        line += " " + word
    return "\n".join(lines + [line]) + "\n"


class Package:
    """What one header holds: the types and the service of one identifier prefix."""

    def __init__(self, identifier):
        self.identifier = identifier
        self.service = None
        self.enumerations = []
        self.structures = []

    @property
    def header(self):
        return "bindings/" + self.identifier.replace(".", "/") + ".h"

    @property
    def namespace(self):
        return "::".join(camel(word) for word in self.identifier.split(".")) + ("Svc" if self.service else "")


class Generator:
    def __init__(self, model):
        self.model = model
        self.packages = {}
        for service in model.services.values():
            self.package(service.identifier).service = service
        for enumeration in model.enumerations.values():
            self.package(enumeration.package).enumerations.append(enumeration)
        for structure in self.in_order_of_use():
            if structure.identifier not in FRAMEWORK_TYPES:
                self.package(structure.package).structures.append(structure)

    def package(self, identifier):
        return self.packages.setdefault(identifier, Package(identifier))

    def in_order_of_use(self):
        """The structures, each after those that its fields are made of."""
        ordered, open_structures = {}, []

        def visit(identifier):
            structure = self.model.structures.get(identifier)
            if structure is None or identifier in ordered:
                return
            if identifier in open_structures:
                raise metamodel.MetamodelError("structures contain each other: " + ", ".join(open_structures))
            open_structures.append(identifier)
            for field in structure.fields:
                for used in field.type.references():
                    visit(used)
            open_structures.pop()
            ordered[identifier] = structure

        for identifier in self.model.structures:
            visit(identifier)
        return ordered.values()

    def referenced(self, identifier):
        """The package and the native type of a structure or enumeration."""
        entry = self.model.structures.get(identifier) or self.model.enumerations[identifier]
        package = self.packages[entry.package]
        native = getattr(entry, "native", identifier)
        return package, f"::{package.namespace}::{camel(native.rpartition('.')[2])}"

    def native(self, entry):
        """The native type of a metamodel type."""
        if entry.name in SCALARS:
            return SCALARS[entry.name]
        if entry.name in GENERICS:
            return GENERICS[entry.name] + "<" + ", ".join(map(self.native, entry.arguments)) + ">"
        return FRAMEWORK_TYPES.get(entry.name) or self.referenced(entry.name)[1]

    def types(self, package):
        """All metamodel types that the package's header names."""
        for structure in package.structures:
            yield from (field.type for field in structure.fields)
        for operation in package.service.operations if package.service else ():
            yield operation.output.type
            yield from (field.type for field in operation.input or ())

    def headers(self, package):
        standard, own = set(), {"orbi/bindings/adapter.h"}

        def add(entry):
            native = self.native(entry).partition("<")[0]
            if native in STANDARD_HEADERS:
                standard.add(STANDARD_HEADERS[native])
            if native in FRAMEWORK_HEADERS:
                own.add(FRAMEWORK_HEADERS[native])
            for argument in entry.arguments:
                add(argument)
            if entry.name in self.model.structures or entry.name in self.model.enumerations:
                if entry.name not in FRAMEWORK_TYPES and self.referenced(entry.name)[0] is not package:
                    own.add(self.referenced(entry.name)[0].header)

        for entry in self.types(package):
            add(entry)
        if package.service:
            standard.add("memory")
            own |= {"orbi/bindings/async_result.h", "orbi/core/local_provider.h"}
        return standard, own

    def files(self):
        for package in self.packages.values():
            yield package.header, Header(self, package).text()
            yield package.header[:-2] + ".cpp", Source(self, package).text()
        yield "bindings/task_results.h", TASK_RESULTS_HEADER
        yield "bindings/task_results.cpp", self.task_results()

    def map_places(self, entry, place=()):
        """Where the values of a type have maps: names of fields, and "*" for each element of a list or map."""
        if entry.name in ("list", "map"):
            if entry.name == "map":
                yield ".".join(place)
            yield from self.map_places(entry.arguments[-1], (*place, "*"))
        elif entry.name == "optional":
            yield from self.map_places(entry.arguments[0], place)
        elif entry.name in self.model.structures:
            for field in self.model.structures[entry.name].fields:
                yield from self.map_places(field.type, (*place, field.name))

    def task_results(self):
        rows = "".join(f"    {{{quoted(service.identifier + '.' + operation.name)}, {quoted(place)}}},\n"
                       for service in self.model.services.values() for operation in service.operations
                       if operation.task_result for place in self.map_places(operation.task_result.type))
        return TASK_RESULTS_SOURCE.replace("ROWS", rows)


class Writer:
    def __init__(self, generator, package):
        self.generator = generator
        self.package = package
        self.service = package.service
        self.native = generator.native

    def qualified(self, name):
        return f"::{self.package.namespace}::{name}"

    def structures(self):
        """Name on the wire, native name, fields and documentation of every structure, inputs included."""
        for structure in self.package.structures:
            yield (structure.identifier, camel(structure.native.rpartition(".")[2]), structure.fields,
                   structure.documentation)
        for operation in self.service.operations if self.service else ():
            if operation.input is not None:
                yield ("operation-input", camel(operation.plain_name) + "Input", operation.input,
                       f"What {operation.name} takes.")

    def input_type(self, operation):
        return "::Orbi::Data::Value" if operation.input is None else camel(operation.plain_name) + "Input"

    def method(self, operation):
        return (f"{camel(operation.plain_name)}(const ::Orbi::Core::ExecutionContextPtr& context, "
                f"const {self.input_type(operation)}& input, "
                f"::Orbi::Core::AsyncResult<{self.native(operation.output.type)}> result)")


class Header(Writer):
    def text(self):
        standard, own = self.generator.headers(self.package)
        parts = ["// Generated from the interface definitions; changes are lost.\n#pragma once\n\n",
                 "// NOLINTBEGIN(readability-identifier-naming): the definitions name what is here\n\n"]
        parts.append("".join(f"#include <{name}>\n" for name in sorted(standard)) + ("\n" if standard else ""))
        parts.append("".join(f'#include "{name}"\n' for name in sorted(own)))
        parts.append(f"\nnamespace {self.package.namespace} {{\n")
        parts += map(self.enumeration, self.package.enumerations)
        parts += [self.structure(*entry) for entry in self.structures()]
        if self.service:
            parts += map(self.method_constants, self.service.operations)
            parts += [self.interface(), self.binder()]
        parts.append(f"\n}}  // namespace {self.package.namespace}\n\nnamespace Orbi::Bindings {{\n")
        parts += [self.adapter(camel(entry.identifier.rpartition(".")[2])) for entry in self.package.enumerations]
        parts += [self.adapter(name) for _, name, _, _ in self.structures()]
        parts.append("\n}  // namespace Orbi::Bindings\n\n// NOLINTEND(readability-identifier-naming)\n")
        return "".join(parts)

    def enumeration(self, enumeration):
        values = "".join(comment(text, "  ") + f"  {name},\n" for name, text in enumeration.values.items())
        name = camel(enumeration.identifier.rpartition(".")[2])
        return f"\n{comment(enumeration.documentation)}enum class {name} {{\n{values}}};\n"

    def structure(self, _, name, fields, documentation):
        members = "".join(
            comment(field.documentation, "  ") +
            f"  {self.native(field.type)} {field_name(field.name)}{self.initializer(field.type)};\n"
            for field in fields)
        return (f"\n{comment(documentation)}struct {name} {{\n{members}"
                f"  bool operator==(const {name}&) const = default;\n}};\n")

    def initializer(self, entry):
        return "{}" if entry.name in self.generator.model.enumerations else INITIALIZERS.get(entry.name, "")

    def method_constants(self, operation):
        name = camel(operation.plain_name) + "Method"
        task = (f"  static constexpr const char* taskMethodName = "
                f"{quoted(self.service.identifier + '.' + operation.name)};\n" if operation.starts_task else "")
        return (f"\nstruct {name} {{\n"
                f"  static constexpr const char* methodName = {quoted(operation.name)};\n{task}}};\n")

    def interface(self):
        methods = "".join(comment(operation.documentation, "  ") + f"  virtual void {self.method(operation)} = 0;\n"
                          for operation in self.service.operations)
        return (f"\n{comment(self.service.documentation)}"
                "/// Called on request threads, several at once. Methods complete their result exactly once, at any "
                "time.\n"
                "class AsyncServiceInterface {\n public:\n"
                f"  static constexpr const char* interfaceIdentifier = {quoted(self.service.identifier)};\n\n"
                f"  virtual ~AsyncServiceInterface() = default;\n\n{methods}}};\n")

    def binder(self):
        return ("\nstruct AsyncServiceBinder {\n"
                "  /// Registers the implementation under the service's identifier.\n"
                "  /// @throws Orbi::Core::RegistrationError when that is taken\n"
                "  static void BindImplementation(::Orbi::Core::AsyncLocalProvider& provider,\n"
                "                                 const std::shared_ptr<AsyncServiceInterface>& "
                "implementation);\n};\n")

    def adapter(self, name):
        name = self.qualified(name)
        return (f"\ntemplate <>\nstruct Adapter<{name}> {{\n"
                "  static std::string_view TypeName();\n"
                f"  static Data::Value ToValue(const {name}& native);\n"
                f"  static std::optional<{name}> FromValue(const Data::Value& value, AdaptErrors& errors);\n}};\n")


class Source(Writer):
    def text(self):
        parts = ["// Generated from the interface definitions; changes are lost.\n"
                 f'#include "{self.package.header}"\n\n']
        parts.append('#include "orbi/bindings/structure_adapter.h"\n')
        if self.service:
            parts.append('#include "orbi/bindings/service_binding.h"\n')
        parts.append("\nnamespace Orbi::Bindings {\n")
        parts += map(self.enumeration, self.package.enumerations)
        parts += [self.structure(*entry) for entry in self.structures()]
        parts.append("\n}  // namespace Orbi::Bindings\n")
        if self.service:
            parts.append(f"\nnamespace {self.package.namespace} {{\n")
            parts.append(self.binder())
            parts.append(f"\n}}  // namespace {self.package.namespace}\n")
        return "".join(parts)

    def constant(self, name, kind):
        """The name of a constant that no other file has: several files are compiled as one."""
        return "k" + camel(self.package.identifier.replace(".", "_")) + name + kind

    def enumeration(self, enumeration):
        name = camel(enumeration.identifier.rpartition(".")[2])
        native, names = self.qualified(name), self.constant(name, "Names")
        values = ", ".join(map(quoted, enumeration.values))
        return (f"\nconstexpr std::string_view {names}[] = {{{values}}};\n\n"
                f"std::string_view Adapter<{native}>::TypeName() {{ return {quoted(enumeration.identifier)}; }}\n"
                f"Data::Value Adapter<{native}>::ToValue(const {native}& native) {{\n"
                f"  return std::string({names}[static_cast<std::size_t>(native)]);\n}}\n"
                f"std::optional<{native}> Adapter<{native}>::FromValue(const Data::Value& value, "
                "AdaptErrors& errors) {\n"
                f"  const auto index = ReadEnumeration(TypeName(), {names}, value, errors);\n"
                "  if (!index) return std::nullopt;\n"
                f"  return static_cast<{native}>(*index);\n}}\n")

    def structure(self, wire_name, name, fields, _):
        native, list_name = self.qualified(name), self.constant(name, "Fields")
        shown = "".join(f"  field({quoted(field.name)}, native.{field_name(field.name)});\n" for field in fields)
        parameters = "[[maybe_unused]] auto& native, [[maybe_unused]] auto& field"
        return (f"\nconstexpr auto {list_name} = []({parameters}) {{\n{shown}}};\n\n"
                f"std::string_view Adapter<{native}>::TypeName() {{ return {quoted(wire_name)}; }}\n"
                f"Data::Value Adapter<{native}>::ToValue(const {native}& native) {{\n"
                f"  return WriteStructure(TypeName(), native, {list_name});\n}}\n"
                f"std::optional<{native}> Adapter<{native}>::FromValue(const Data::Value& value, "
                "AdaptErrors& errors) {\n"
                f"  return ReadStructure<{native}>(TypeName(), value, errors, {list_name});\n}}\n")

    def binder(self):
        operations = "".join(self.bound_operation(operation) for operation in self.service.operations)
        return ("\nvoid AsyncServiceBinder::BindImplementation(::Orbi::Core::AsyncLocalProvider& provider,\n"
                "    const std::shared_ptr<AsyncServiceInterface>& implementation) {\n"
                "  using ::Orbi::Bindings::BindOperation;\n"
                "  using Interface = AsyncServiceInterface;\n"
                f"  provider.AddInterface({{Interface::interfaceIdentifier, {{\n{operations}  }}}});\n}}\n")

    def bound_operation(self, operation):
        fields = ", ".join(f"{{{quoted(field.name)}, {quoted(str(field.type))}}}" for field in operation.input or ())
        errors = ", ".join(map(quoted, operation.errors))
        return (f"      BindOperation(implementation, &Interface::{camel(operation.plain_name)},\n"
                f"          {{{quoted(operation.name)}, {{{fields}}}, {str(operation.input is None).lower()}, "
                f"{quoted(str(operation.output.type))}, {{{errors}}}}}),\n")


def write_if_changed(path, text):
    try:
        with open(path, encoding="utf-8") as file:
            if file.read() == text:
                return
    except FileNotFoundError:
        os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def main(arguments):
    only_list = arguments[:1] == ["--list"]
    arguments = arguments[only_list:]
    if len(arguments) < 2:
        sys.exit(__doc__)
    directory, *paths = arguments
    try:
        for name, text in Generator(metamodel.load(paths)).files():
            path = os.path.join(directory, name)
            if only_list:
                print(path)
            else:
                write_if_changed(path, text)
    except (metamodel.MetamodelError, OSError) as error:
        sys.exit(f"generate_bindings: {error}")


if __name__ == "__main__":
    main(sys.argv[1:])
