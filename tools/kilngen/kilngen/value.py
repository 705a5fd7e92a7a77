"""Emits the header and source of a value type."""

from .attributes import Collection, Emitter, Scalar
from .cpp import Lines, cpp_string, open_namespace


class Field(Scalar):
    """A value type's field: accessor, plain setter, constructor parameter."""

    record_kind = "field"

    def operations(self):
        x, T = self.x, self.T
        return [f"{self.ret(T)} {x}() const {{ return {x}_; }}",
                f"void {x}Is({self.p(T)} {x}) {{ {x}_ = {x}; }}"]

    def handlers(self):
        return []

    def ctor_param(self):
        return (f"{self.p(self.T)} {self.x}", f"{self.x}_({self.x})")

    def strep_piece(self):
        return f"Kiln::strep(v.{self.x}())"


class Derived(Emitter):
    """A read-only attribute computed from the fields by a hand-written function."""

    record_kind = "derived"

    def operations(self):
        return [f"{self.T} {self.x}() const;  // hand-written"]


class ValueCollection(Collection):
    """The collection a value type holds; it notifies nobody."""

    def strep_piece(self):
        return f"Kiln::collectionToStrep(v.{self.x}())"


def value_emitter(owner, attr, ordinal, ctx):
    kinds = {"field": Field, "derived": Derived, "coll": ValueCollection}
    return kinds[attr.kind](owner, attr, ordinal, ctx)


class ValueEmitter:
    def __init__(self, t, ctx):
        self.t = t
        self.ctx = ctx
        self.attrs = []
        ordinal = 0
        for a in t.attributes:
            e = value_emitter(t, a, ordinal, ctx)
            self.attrs.append(e)
            ordinal += 1
        self.fields = [e for e in self.attrs if isinstance(e, Field)]
        self.collection = next((e for e in self.attrs if isinstance(e, ValueCollection)), None)
        self.hash = next((e for e in self.attrs if isinstance(e, Derived) and e.x == "hash"), None)

    @property
    def name(self):
        return self.t.name

    def header(self, stamp):
        t, n = self.t, self.name
        out = Lines()
        out.extend(stamp(t))
        out("#pragma once", "", "#include <concepts>", "#include <ostream>", "#include <string>",
            "#include <string_view>", "")
        kiln = ["Kiln/Support.h"] + (["Kiln/HashMap.h"] if self.collection else [])
        if any(a.direct for a in t.attributes):
            kiln.append("Kiln/DirectHashMap.h")
        for h in sorted(kiln):
            out(f'#include "{h}"')
        extra = list(t.schema.includes + t.includes)
        for e in self.attrs:
            for h in e.headers():
                if f'"{h}"' not in extra:
                    extra.append(f'"{h}"')
        open_namespace(out, t, extra)
        out(f"class {n} {{", " public:")
        out.indent()
        out("// Indexes of the type record's attributes.",
            "static constexpr U32 kilnAttributeStart = 2;")
        for e in self.attrs:
            out.extend(e.index_decls(2))
        for c, v in zip(t.constants, t.constant_values):
            out(f"static constexpr {c.type} {c.name} = {v};")
        if self.collection:
            out("")
            out.extend(self.collection.member_types())
        out("", f"{n}() = default;")
        if self.fields:
            # Trailing fields with a default may be left out (never the first:
            # the type already has its default constructor).
            params = [e.ctor_param()[0] for e in self.fields]
            for i in range(len(self.fields) - 1, 0, -1):
                if self.fields[i].a.default is None:
                    break
                params[i] += f" = {self.fields[i].a.default}"
            params = ", ".join(params)
            inits = ", ".join(e.ctor_param()[1] for e in self.fields)
            explicit = "explicit " if len(self.fields) == 1 else ""
            out(f"{explicit}{n}({params}) : {inits} {{}}")
        out("// Parses the text form (see valueToStrep); throws Kiln::DeserializationException",
            "// on any other text.",
            "template <std::same_as<Kiln::TextIterator> I>",
            f"{n}(I begin, I end) : {n}(fromStrep(std::string_view(begin, end))) {{}}",
            f"static {n} fromStrep(std::string_view text);")
        for e in self.attrs:
            out.blank()
            out.extend(e.operations())
        out.blank()
        out.extend(self.comparisons())
        out.blank()
        out(f"// The registered record of {t.qualified}.",
            "static const Kiln::TypeRecord& kilnType();")
        if t.members:
            out.blank()
            out("// Hand-written members.")
            for m in t.members:
                out(m)
        if t.operations:
            out.blank()
            out("// Hand-written operations.")
            for op in t.operations:
                params = ", ".join(f"{q.type} {q.name}" for q in op.params)
                prefix = "static " if op.static else ""
                out(f"{prefix}{op.return_type} {op.name}({params}){' const' if op.const else ''};")
        out.dedent()
        out("", " private:")
        out.indent()
        for e in self.attrs:
            out.extend(e.storage())
        out.dedent()
        out("};", "")
        what = "None" if self.collection else (
            "the field's own text" if t.bare else f"Value('{t.qualified}', ** {{...}})")
        out(f"// The text form: {what}.",
            f"std::string valueToStrep(const {n}& v);",
            f"std::ostream& operator<<(std::ostream& out, const {n}& v);",
            f"void sequenceToValue(Kiln::TextReader& in, {n}& v);")
        if self.hash:
            out("// The key hash of a collection keyed by the type: its hash attribute.",
                f"inline U32 kilnHash(const {n}& v) {{ return v.hash(); }}")
        out("", f"}}  // namespace {t.namespace}")
        return out.text()

    def comparisons(self):
        n = self.name
        stored = [e.x for e in self.fields] + ([self.collection.x] if self.collection else [])
        same = " && ".join(f"a.{x}_ == b.{x}_" for x in stored) or "true"
        lines = ["// Equal when every field is equal.",
                 f"friend bool operator==(const {n}& a, const {n}& b) {{ return {same}; }}",
                 f"friend bool operator!=(const {n}& a, const {n}& b) {{ return !(a == b); }}"]
        if self.t.ordered:
            lines += ["// Lexicographic order on the fields in declaration order.",
                      f"friend bool operator<(const {n}& a, const {n}& b) {{"]
            for x in stored[:-1]:
                lines += [f"  if (a.{x}_ < b.{x}_) return true;",
                          f"  if (b.{x}_ < a.{x}_) return false;"]
            lines += [f"  return a.{stored[-1]}_ < b.{stored[-1]}_;", "}",
                      f"friend bool operator<=(const {n}& a, const {n}& b) {{ return !(b < a); }}",
                      f"friend bool operator>(const {n}& a, const {n}& b) {{ return !(a <= b); }}",
                      f"friend bool operator>=(const {n}& a, const {n}& b) {{ return !(a < b); }}"]
        return lines

    def source(self, stamp):
        t, n = self.t, self.name
        out = Lines()
        out.extend(stamp(t))
        out(f'#include "{self.ctx.header_of(t)}"', "", "#include <string>",
            "#include <string_view>", "#include <vector>", "",
            f"namespace {t.namespace} {{", "", "namespace {", "",
            "// The type's name in the library's \".kiln.type\" section.",
            f"[[gnu::used, gnu::section(\".kiln.type\")]] const char kilnTypeName[] = "
            f"{cpp_string(t.qualified)};", "")
        self.emit_record(out)
        out("", "}  // namespace", "")
        out(f"const Kiln::TypeRecord& {n}::kilnType() {{",
            f"  static const {n}TypeRecord record;",
            "  return record;",
            "}", "")
        out(f"{n} {n}::fromStrep(std::string_view text) {{",
            "  Kiln::TextReader in(text);",
            f"  {n} v;",
            "  sequenceToValue(in, v);",
            "  in.expectEnd();",
            "  return v;",
            "}", "")
        self.emit_strep(out)
        out("", f"std::ostream& operator<<(std::ostream& out, const {n}& v) {{",
            "  return out << valueToStrep(v);", "}", "")
        self.emit_parse(out)
        out("", f"}}  // namespace {t.namespace}")
        return out.text()

    def emit_strep(self, out):
        t, n = self.t, self.name
        out(f"std::string valueToStrep(const {n}& v) {{")
        if self.collection:
            out("  static_cast<void>(v);", "  // A value holding a collection has no text form.",
                "  return \"None\";")
        elif t.bare:
            out(f"  return {self.fields[0].strep_piece()};")
        else:
            pieces = []
            for i, e in enumerate(self.fields):
                sep = ", " if i else ""
                pieces.append((f"{sep}'{e.x}': ", e.strep_piece()))
            out(f"  return std::string({cpp_string(f'Value({chr(39)}{t.qualified}{chr(39)}, ** {{')})")
            for label, piece in pieces:
                out(f"         + {cpp_string(label)} + {piece}")
            out("         + \"})\";")
        out("}")

    def emit_parse(self, out):
        t, n = self.t, self.name
        out(f"void sequenceToValue(Kiln::TextReader& in, {n}& v) {{")
        if self.collection:
            c = self.collection
            out(f"  // The collection's text form: {{key: value, ...}}.",
                f"  {n} parsed;",
                f"  Kiln::readCollection<{c.K}, {c.V}>(in, [&]({c.p(c.K)} key, {c.p(c.V)} value) {{",
                f"    parsed.{c.x}Is(key, value);",
                "  });",
                "  v = parsed;")
        elif t.bare:
            e = self.fields[0]
            out(f"  {e.T} {e.x}{{}};", f"  Kiln::readValue(in, {e.x});", f"  v = {n}({e.x});")
        else:
            out(f"  in.expect({cpp_string(f'Value({chr(39)}{t.qualified}{chr(39)}, ** {{')});")
            for i, e in enumerate(self.fields):
                sep = ", " if i else ""
                out(f"  {e.T} {e.x}{{}};",
                    f"  in.expect({cpp_string(f'{sep}{chr(39)}{e.x}{chr(39)}: ')});",
                    f"  Kiln::readValue(in, {e.x});")
            out("  in.expect(\"})\");",
                f"  v = {n}({', '.join(e.x for e in self.fields)});")
        out("}")

    def emit_record(self, out):
        t, n = self.t, self.name
        records = [r for e in self.attrs for r in e.records()]
        out(f"class {n}TypeRecord : public Kiln::TypeRecord {{", " public:")
        out(f"  {n}TypeRecord()",
            f"      : Kiln::TypeRecord({cpp_string(t.qualified)}, Kiln::TypeKind::value, nullptr,",
            "                         {")
        for r in records:
            out(f"                             {r},")
        out("                         }) {}", "", " protected:")
        out.indent()
        stored = self.fields + ([self.collection] if self.collection else [])
        out("// Arguments: the fields' texts in declaration order; missing ones keep their",
            "// defaults.",
            "std::string kilnConstructValue(const std::vector<std::string>& args) const override {",
            f"  if (args.size() > {len(stored)}) expectArguments(\"constructor\", args, {len(stored)});",
            f"  {n} v;")
        for i, e in enumerate(stored):
            if e is self.collection:
                out(f"  if (args.size() > {i}) v = Kiln::reflectParse<{n}>(args[{i}]);")
            else:
                out(f"  if (args.size() > {i}) v.{e.x}Is(Kiln::reflectParse<{e.T}>(args[{i}]));")
        out("  return Kiln::reflectText(v);", "}", "")
        out("std::string kilnParseValue(std::string_view text) const override {",
            f"  return Kiln::reflectText({n}::fromStrep(text));", "}", "")
        out("std::string kilnGetValue(std::string_view text, U32 index) const override {",
            f"  const {n} v = {n}::fromStrep(text);",
            "  switch (index) {")
        for e in self.attrs:
            getter = (f"Kiln::collectionToStrep(v.{e.x}())" if e is self.collection
                      else f"Kiln::reflectText(v.{e.x}())")
            out(f"    case {n}::{e.index}: return {getter};")
        out("  }", "  return TypeRecord::kilnGetValue(text, index);", "}", "")
        out("U32 kilnHashValue(std::string_view text) const override {")
        if self.hash:
            out(f"  return {n}::fromStrep(text).hash();")
        else:
            out("  static_cast<void>(text);",
                f"  throw Kiln::UnhashableTypeException({cpp_string(t.qualified + ' is not hashable')});")
        out("}")
        out.dedent()
        out("};")
