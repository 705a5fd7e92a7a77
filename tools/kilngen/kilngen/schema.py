"""Parser of schema files.

A schema is a line-oriented, indented text; '#' starts a comment. See
docs/schema.md for the format.
"""

import json
import re

from .model import Attribute, EnumValue, Operation, Param, Schema, TypeDecl


class SchemaError(Exception):
    pass


IDENT = r"[A-Za-z_][A-Za-z0-9_]*"
NAME_RE = re.compile(rf"^{IDENT}$")
TYPE_LINE_RE = re.compile(rf"^(entity|value|enum)\s+({IDENT})\s*(?::\s*(.+))?$")
ATTR_RE = re.compile(rf"^({IDENT})\s*:\s*(.+)$")
OP_RE = re.compile(rf"^((?:(?:virtual|static)\s+)*)(.+?)\s*\b({IDENT})\s*\((.*)\)\s*(const)?$")
ENTITY_VALUE_RE = re.compile(r"^([A-Za-z_][A-Za-z0-9_:]*)\s*\((.*)\)$")
# The key types of a 'direct' collection: an array holds a place for each key.
DIRECT_KEY_TYPES = ("U8", "U16", "S8", "S16")
NULLTEXT_RE = re.compile(r'\s+nulltext\s+("(?:[^"\\]|\\.)*")\s*$')

ENTITY_ATTRIBUTE_KINDS = {"attr", "counter", "key", "ctor", "coll", "ordered", "queue",
                          "singleton", "ref", "recordonly"}
VALUE_ATTRIBUTE_KINDS = {"field", "derived", "coll"}


def _strip_comment(line):
    # '#' inside a quoted text is not a comment.
    quoted = False
    escaped = False
    for i, c in enumerate(line):
        if escaped:
            escaped = False
        elif c == "\\":
            escaped = True
        elif c == '"':
            quoted = not quoted
        elif c == "#" and not quoted:
            return line[:i]
    return line


class _Parser:
    def __init__(self, path, text):
        self.schema = Schema(path=path)
        self.path = path
        self.raw = text.splitlines()
        self.lines = []
        for number, raw in enumerate(text.splitlines(), 1):
            line = _strip_comment(raw).rstrip()
            if line.strip():
                if "\t" in line[: len(line) - len(line.lstrip())]:
                    self.fail(number, "indent with blanks, not tabs")
                self.lines.append((number, len(line) - len(line.lstrip()), line.strip()))
        self.pos = 0

    def fail(self, line, message):
        raise SchemaError(f"{self.path}:{line}: {message}")

    def parse(self):
        while self.pos < len(self.lines):
            number, indent, text = self.lines[self.pos]
            if indent:
                self.fail(number, "unexpected indentation")
            self.pos += 1
            word, _, rest = text.partition(" ")
            rest = rest.strip()
            if word == "namespace":
                if self.schema.namespace:
                    self.fail(number, "namespace given twice")
                self.schema.namespace = rest
            elif word == "include":
                self.schema.includes.append(self.include(number, rest))
            elif word in ("entity", "value", "enum"):
                if not self.schema.namespace:
                    self.fail(number, "the namespace must come before the first type")
                self.schema.types.append(self.type_block(number, indent, text, None))
            else:
                self.fail(number, f"unknown declaration '{word}'")
        return self.schema

    def include(self, number, rest):
        if not re.match(r'^("[^"]+"|<[^>]+>)$', rest):
            self.fail(number, 'include takes "file" or <file>')
        return rest

    def body(self, indent):
        """Yields the lines indented deeper than `indent`."""
        while self.pos < len(self.lines) and self.lines[self.pos][1] > indent:
            line = self.lines[self.pos]
            self.pos += 1
            yield line

    def type_block(self, number, indent, text, outer):
        m = TYPE_LINE_RE.match(text)
        if not m:
            self.fail(number, "expected 'entity Name : Base', 'value Name' or 'enum Name'")
        kind, name, base = m.groups()
        t = TypeDecl(kind=kind, name=name, schema=self.schema, line=number, outer=outer)
        if kind == "entity":
            if not base:
                self.fail(number, "an entity names its base: Kiln::Entity, Kiln::PtrInterface "
                                  "or an entity type")
            bm = ENTITY_VALUE_RE.match(base.strip())
            if bm:
                t.base = bm.group(1)
                t.base_params = self.params(number, bm.group(2), ":")
            else:
                t.base = base.strip()
                if t.base == "Kiln::Entity":
                    t.base_params = [Param("name", "Kiln::Name")]
                elif t.base != "Kiln::PtrInterface":
                    self.fail(number, "a base entity other than Kiln::Entity and "
                                      "Kiln::PtrInterface lists its constructor parameters: "
                                      "Base(name: Type, ...)")
        elif base:
            self.fail(number, f"a {kind} has no base")
        if kind == "enum":
            self.enum_body(t, indent)
        else:
            self.type_body(t, indent)
        last = self.lines[self.pos - 1][0] if self.pos else number
        t.source_lines = [line[indent:].rstrip() for line in self.raw[number - 1:last]]
        return t

    def enum_body(self, t, indent):
        for number, _, text in self.body(indent):
            m = re.match(rf"^({IDENT})\s*=\s*(-?(?:0x[0-9A-Fa-f]+|\d+))$", text)
            if not m:
                self.fail(number, "an enumeration value reads 'name = number'")
            t.values.append(EnumValue(m.group(1), m.group(2)))
        if not t.values:
            self.fail(t.line, f"enumeration {t.name} has no values")

    def type_body(self, t, indent):
        lines = list(self.body(indent))
        i = 0
        while i < len(lines):
            number, line_indent, text = lines[i]
            i += 1
            word, _, rest = text.partition(" ")
            rest = rest.strip()
            if word == "enum":
                if t.kind != "entity":
                    self.fail(number, "only an entity holds a nested enumeration")
                # Hand the nested block to type_block through a sub-parser state.
                nested_lines = [(number, line_indent, text)]
                while i < len(lines) and lines[i][1] > line_indent:
                    nested_lines.append(lines[i])
                    i += 1
                saved = (self.lines, self.pos)
                self.lines, self.pos = nested_lines, 1
                t.nested.append(self.type_block(number, line_indent, text, t))
                self.lines, self.pos = saved
            elif word == "include":
                t.includes.append(self.include(number, rest))
            elif word == "forward":
                if not NAME_RE.match(rest):
                    self.fail(number, "forward takes a class name of the same namespace")
                t.forwards.append(rest)
            elif word == "member":
                t.members.append(rest)
            elif word == "op":
                op = self.operation(number, rest)
                t.operations.append(op)
                t.order.append(op)
            elif word == "nonotify" and t.kind == "entity" and not rest:
                t.notify = False
            elif word == "hook" and t.kind == "entity" and rest in ("construct", "destruct"):
                t.hooks.append(rest)
            elif word == "ordered" and t.kind == "value" and not rest:
                t.ordered = True
            elif word == "strep" and t.kind == "value" and rest == "bare":
                t.bare = True
            elif word == "const" and t.kind == "value":
                m = re.match(rf"^({IDENT})\s*:\s*(.+?)\s*=\s*(.+)$", rest)
                if not m:
                    self.fail(number, "a constant reads 'const name : Type = value'")
                t.constants.append(Param(m.group(1), m.group(2)))
                t.constant_values.append(m.group(3))
            elif (t.kind == "entity" and word in ENTITY_ATTRIBUTE_KINDS) or (
                    t.kind == "value" and word in VALUE_ATTRIBUTE_KINDS):
                a = self.attribute(number, word, rest, t)
                if any(x.name == a.name for x in t.attributes):
                    self.fail(number, f"attribute {a.name} declared twice")
                t.attributes.append(a)
                t.order.append(a)
            else:
                self.fail(number, f"'{word}' is not a declaration of a {t.kind}")
        self.check(t)

    def check(self, t):
        if t.kind == "value":
            fields = [a for a in t.attributes if a.kind in ("field", "coll")]
            if t.bare and (len(fields) != 1 or fields[0].kind != "field"):
                self.fail(t.line, "'strep bare' needs exactly one field")
            if any(a.kind == "coll" for a in t.attributes) and len(fields) != 1:
                self.fail(t.line, "a value type holding a collection holds nothing else")
        queues = sum(2 if a.kind == "queue" else 1 for a in t.attributes)
        if queues + len(t.operations) > 128:
            self.fail(t.line, f"{t.name} has more than 128 attributes and operations")

    def params(self, number, text, separator):
        """Parses 'name: Type, ...' (separator ':') or 'Type name, ...' (separator ' ')."""
        params = []
        text = text.strip()
        if not text:
            return params
        for piece in text.split(","):
            piece = piece.strip()
            if separator == ":":
                m = re.match(rf"^({IDENT})\s*:\s*(.+)$", piece)
                if not m:
                    self.fail(number, f"expected 'name: Type', not '{piece}'")
                params.append(Param(m.group(1), m.group(2).strip()))
            else:
                m = re.match(rf"^(.+?)\s*\b({IDENT})$", piece)
                if not m:
                    self.fail(number, f"expected 'Type name', not '{piece}'")
                params.append(Param(m.group(2), m.group(1).strip()))
        return params

    def operation(self, number, text):
        m = OP_RE.match(text)
        if not m:
            self.fail(number, "an operation reads 'op [virtual|static] Type name(Type a, ...) "
                              "[const]'")
        qualifiers, ret, name, params, const = m.groups()
        return Operation(name=name, return_type=ret.strip(),
                         params=self.params(number, params, " "),
                         virtual="virtual" in qualifiers.split(),
                         static="static" in qualifiers.split(), const=bool(const),
                         line=number)

    def attribute(self, number, kind, rest, t):
        a = Attribute(kind=kind, name="", line=number)
        m = NULLTEXT_RE.search(rest)
        if m:
            a.null_text = json.loads(m.group(1))
            rest = rest[: m.start()]
        if kind == "recordonly":
            if not NAME_RE.match(rest):
                self.fail(number, "recordonly takes a name")
            a.name = rest
            return a
        m = ATTR_RE.match(rest)
        if not m:
            self.fail(number, f"'{kind}' reads '{kind} name : Type'")
        a.name, decl = m.group(1), m.group(2).strip()
        words = decl.split()
        # Trailing options.
        while words and words[-1] in ("custom", "plain", "settable", "observed", "direct",
                                      "inline"):
            setattr(a, words.pop(), True)
        if len(words) >= 3 and words[-2] == "by":
            a.by = words[-1]
            words = words[:-2]
        decl = " ".join(words)
        if "=" in decl:
            decl, _, default = decl.partition("=")
            a.default = default.strip()
            decl = decl.strip()
        if a.custom and kind not in ("attr", "counter"):
            self.fail(number, "only a scalar attribute has a hand-written ('custom') setter")
        if a.settable and kind not in ("attr", "counter"):
            self.fail(number, "only a scalar attribute is 'settable'")
        if a.plain and kind != "ctor":
            self.fail(number, "only a constructor parameter is 'plain'")
        if a.observed and kind not in ("coll", "ordered"):
            self.fail(number, "only a collection is 'observed'")
        if a.direct and kind not in ("coll", "ordered"):
            self.fail(number, "only a collection ('coll' or 'ordered') is 'direct'")
        if a.inline and (kind != "coll" or a.direct):
            self.fail(number, "only a 'coll' that is not 'direct' keeps its buckets 'inline'")
        if a.default is not None and kind not in ("attr", "counter", "field"):
            self.fail(number, f"a {kind} attribute has no default")
        if a.null_text and not a.by:
            self.fail(number, "nulltext belongs to an entity collection keyed 'by' an accessor")
        if kind in ("coll", "ordered"):
            key, arrow, value = decl.partition("->")
            if not arrow:
                self.fail(number, f"a collection reads '{kind} name : Key -> Value'")
            a.key_type = key.strip()
            if a.direct and a.key_type not in DIRECT_KEY_TYPES:
                self.fail(number, "a 'direct' collection is keyed by "
                                  + ", ".join(DIRECT_KEY_TYPES))
            self.collection_value(number, a, value.strip())
        elif kind == "singleton":
            em = ENTITY_VALUE_RE.match(decl)
            if not em:
                self.fail(number, "a singleton reads 'singleton name : Type(params)'")
            a.type, a.entity = em.group(1), True
            a.entity_params = self.params(number, em.group(2), ":")
        elif kind == "ref":
            if decl.startswith("const "):
                a.const, decl = True, decl[len("const "):].strip()
            a.type = decl
        else:
            a.type = decl
        if a.observed and a.entity:
            self.fail(number, "only a collection of values is 'observed'")
        if a.by and kind not in ("coll", "ordered"):
            self.fail(number, "only a collection is keyed 'by' an accessor of its value")
        if not a.type:
            self.fail(number, "missing type")
        return a

    def collection_value(self, number, a, value):
        em = ENTITY_VALUE_RE.match(value)
        if em:
            a.type, a.entity = em.group(1), True
            a.entity_params = self.params(number, em.group(2), ":")
            if a.by:
                self.fail(number, "an entity collection is either created by key (Type(...)) "
                                  "or keyed 'by' an accessor")
        else:
            a.type = value
            if a.by:
                a.entity = True


def parse(path, text):
    """Returns the Schema in text; raises SchemaError naming file and line."""
    return _Parser(path, text).parse()
