"""Emits enumerations: the C++ enum, its text form and its record.

A top-level enumeration gets a header and source of its own; one nested in
an entity is declared inside the entity's class and its functions follow the
class in the entity's files.
"""

from .cpp import Lines, cpp_string


def declaration(t):
    lines = [f"// {t.name}: values of the registered table {t.qualified}.",
             f"enum {t.name} {{"]
    lines += [f"  {v.name} = {v.value}," for v in t.values]
    lines.append("};")
    return lines


def functions(t):
    """Declarations of the functions at namespace scope after the type."""
    e = t.cpp_name
    return [f"// The name of e in {t.name}'s registered value table (e's number in decimal",
            "// when the table has none); valueToStrep and operator<< write the same.",
            f"Kiln::String8 stringValue({e} e);",
            f"std::string valueToStrep({e} e);",
            f"std::ostream& operator<<(std::ostream& out, {e} e);",
            "// Reads a value's name; throws Kiln::DeserializationException for a name the",
            "// table has not.",
            f"void sequenceToValue(Kiln::TextReader& in, {e}& e);",
            "// The value with that number or name in the registered table, if any.",
            f"std::optional<{e}> {t.name}Instance(U32 value);",
            f"std::optional<{e}> {t.name}Instance(const Kiln::String8& name);",
            f"// The registered record of {t.qualified}.",
            f"const Kiln::TypeRecord& {t.name}KilnType();"]


def section_name(t):
    return [f"[[gnu::used, gnu::section(\".kiln.type\")]] const char kiln{t.name}TypeName[] = "
            f"{cpp_string(t.qualified)};"]


def record_class(t):
    values = ", ".join(f"{{{cpp_string(v.name)}, {v.value}}}" for v in t.values)
    return [f"class {t.name}TypeRecord : public Kiln::TypeRecord {{",
            " public:",
            f"  {t.name}TypeRecord()",
            f"      : Kiln::TypeRecord({cpp_string(t.qualified)}, Kiln::TypeKind::enumeration, "
            "nullptr, {}, {},",
            f"                         {{{values}}}) {{}}",
            "",
            " protected:",
            "  std::string kilnParseValue(std::string_view text) const override {",
            f"    return valueToStrep(Kiln::reflectParse<{t.cpp_name}>(text));",
            "  }",
            "",
            "  // One argument: the value's name or number.",
            "  std::string kilnConstructValue(const std::vector<std::string>& args) const "
            "override {",
            "    expectArguments(\"constructor\", args, 1);",
            f"    std::optional<{t.cpp_name}> e = {t.name}Instance(args[0]);",
            "    if (!e && !args[0].empty() &&",
            "        args[0].find_first_not_of(\"0123456789\") == std::string::npos) {",
            f"      e = {t.name}Instance(Kiln::reflectParse<U32>(args[0]));",
            "    }",
            "    if (!e) throw Kiln::DeserializationException(\"no value \" + args[0] + \" in \" + name());",
            "    return valueToStrep(*e);",
            "  }",
            "",
            "  U32 kilnHashValue(std::string_view text) const override {",
            f"    return static_cast<U32>(Kiln::reflectParse<{t.cpp_name}>(text));",
            "  }",
            "};"]


def function_bodies(t):
    e, n = t.cpp_name, t.name
    return [f"const Kiln::TypeRecord& {n}KilnType() {{",
            f"  static const {n}TypeRecord record;",
            "  return record;",
            "}",
            "",
            f"Kiln::String8 stringValue({e} e) {{",
            f"  std::optional<Kiln::EnumValueRecord> v = {n}KilnType().enumValue(static_cast<S64>(e));",
            "  return v ? v->name : std::to_string(static_cast<S64>(e));",
            "}",
            "",
            f"std::string valueToStrep({e} e) {{ return stringValue(e); }}",
            "",
            f"std::ostream& operator<<(std::ostream& out, {e} e) {{ return out << stringValue(e); }}",
            "",
            f"void sequenceToValue(Kiln::TextReader& in, {e}& e) {{",
            f"  std::optional<Kiln::EnumValueRecord> v = {n}KilnType().enumValue(in.identifier());",
            f"  if (!v) in.fail(\"a value name of {t.qualified}\");",
            f"  e = static_cast<{e}>(v->value);",
            "}",
            "",
            f"std::optional<{e}> {n}Instance(U32 value) {{",
            f"  std::optional<Kiln::EnumValueRecord> v = {n}KilnType().enumValue(static_cast<S64>(value));",
            f"  if (!v) return std::nullopt;",
            f"  return static_cast<{e}>(v->value);",
            "}",
            "",
            f"std::optional<{e}> {n}Instance(const Kiln::String8& name) {{",
            f"  std::optional<Kiln::EnumValueRecord> v = {n}KilnType().enumValue(name);",
            f"  if (!v) return std::nullopt;",
            f"  return static_cast<{e}>(v->value);",
            "}"]


def header(t, ctx, stamp):
    out = Lines()
    out.extend(stamp(t))
    out("#pragma once", "", "#include <optional>", "#include <ostream>", "#include <string>", "",
        '#include "Kiln/Support.h"')
    for inc in t.schema.includes:
        out(f"#include {inc}")
    out("", f"namespace {t.namespace} {{", "")
    out.extend(declaration(t))
    out("")
    out.extend(functions(t))
    out("", f"}}  // namespace {t.namespace}")
    return out.text()


def source(t, ctx, stamp):
    out = Lines()
    out.extend(stamp(t))
    out(f'#include "{ctx.header_of(t)}"', "", "#include <string>", "#include <string_view>",
        "#include <vector>", "", f"namespace {t.namespace} {{", "", "namespace {", "",
        "// The type's name in the library's \".kiln.type\" section.")
    out.extend(section_name(t))
    out("")
    out.extend(record_class(t))
    out("", "}  // namespace", "")
    out.extend(function_bodies(t))
    out("", f"}}  // namespace {t.namespace}")
    return out.text()
