"""Emits the header and source of an entity or pointer interface."""

from .attributes import OperationEmitter, attribute_emitter
from .cpp import Lines, cpp_string, lower, open_namespace
from . import enum as enum_emitter

KNOWN_STARTS = {"Kiln::PtrInterface": 130, "Kiln::Entity": 258}


def stamp(t):
    """The comment that opens each generated file: origin and declaration."""
    lines = [f"// generated from {t.schema.path} by kilngen; do not edit", "//"]
    lines += ["// " + line if line else "//" for line in t.source_lines]
    return lines


class EntityEmitter:
    def __init__(self, t, ctx):
        self.t = t
        self.ctx = ctx
        self.attrs = []
        self.ops = []
        ordinal = 0
        for item in t.order:
            if hasattr(item, "params") and hasattr(item, "return_type"):
                e = OperationEmitter(t, item, ordinal, ctx)
                self.ops.append(e)
                ordinal += 1
            else:
                e = attribute_emitter(t, item, ordinal, ctx)
                self.attrs.append(e)
                ordinal += e.indexes
        self.first = KNOWN_STARTS.get(t.base)

    @property
    def name(self):
        return self.t.name

    @property
    def base_record(self):
        if self.t.base == "Kiln::PtrInterface":
            return "Kiln::ptrInterfaceType()"
        return f"{self.t.base}::kilnType()"

    @property
    def named(self):
        """True for a Kiln::Entity (directly or through a base entity)."""
        t = self.t
        while t is not None and t.kind == "entity":
            if t.base in KNOWN_STARTS:
                return t.base == "Kiln::Entity"
            t = self.ctx.resolve(t.base, t)
        return True  # a base from elsewhere that is not Kiln::PtrInterface

    @property
    def own_list(self):
        """True when this class keeps the notifiee list itself (a pointer interface)."""
        return self.t.notify and self.t.base == "Kiln::PtrInterface"

    @property
    def notifiee_base(self):
        if self.t.base in KNOWN_STARTS:
            return "Kiln::PtrInterface::NotifieeConst"
        return f"{self.t.base}::NotifieeConst"

    def ctor_params(self):
        params = [(f"{self.ctx.param(p.type, self.t)} {p.name}", p.name) for p in self.t.base_params]
        own = [e.ctor_param() for e in self.attrs if e.ctor_param()]
        return params, own

    def ctor_types(self):
        """The types of the constructor's parameters, in order."""
        types = [p.type for p in self.t.base_params]
        types += [e.T for e in self.attrs if e.ctor_param()]
        return types

    # ------------------------------------------------------------------ header
    def header(self):
        t, ctx = self.t, self.ctx
        out = Lines()
        out.extend(stamp(t))
        out("#pragma once", "")
        system = ["<optional>", "<ostream>", "<string>"] if t.nested else ["<string>"]
        for h in system:
            out(f"#include {h}")
        out("")
        kiln = ["Kiln/Support.h"]
        kinds = {a.kind for a in t.attributes}
        if kinds & {"coll"}:
            kiln.append("Kiln/HashMap.h")
        if any(a.direct and a.kind == "coll" for a in t.attributes):
            kiln.append("Kiln/DirectHashMap.h")
        if any(a.direct and a.kind == "ordered" for a in t.attributes):
            kiln.append("Kiln/DirectOrderedMap.h")
        if any(a.kind == "ordered" and not a.direct for a in t.attributes):
            kiln.append("Kiln/RbTreeMap.h")
        if kinds & {"queue"}:
            kiln.append("Kiln/LinkQueue.h")
        for h in sorted(kiln):
            out(f'#include "{h}"')
        extra = []
        for inc in t.schema.includes + t.includes:
            if inc not in extra:
                extra.append(inc)
        base_headers = self.ctx.referenced_headers(t.base, t)
        for e in self.attrs:
            for h in base_headers + e.headers():
                base_headers = []
                if f'"{h}"' not in extra:
                    extra.append(f'"{h}"')
        for op in t.operations:
            for p in op.params:
                for h in ctx.referenced_headers(p.type, t):
                    if f'"{h}"' not in extra:
                        extra.append(f'"{h}"')
        open_namespace(out, t, extra)
        out(f"class {self.name} : public {t.base}, public Kiln::Allocated<{self.name}> {{")
        out(" public:")
        out.indent()
        out(f"// Counted per type by the runtime's allocator.",
            f"using Kiln::Allocated<{self.name}>::operator new;",
            f"using Kiln::Allocated<{self.name}>::operator delete;", "")
        note = f"  // {self.first}" if self.first else ""
        out("// Indexes of the type record's attributes and operations.",
            f"static constexpr U32 kilnAttributeStart = {t.base}::kilnAttributeStart + 128;{note}")
        for e in self.attrs + self.ops:
            out.extend(e.index_decls(self.first))
        for n in t.nested:
            out.blank()
            out.extend(enum_emitter.declaration(n))
        if t.notify:
            out.blank()
            out("class NotifieeConst;")
        for e in self.attrs:
            lines = e.member_types()
            if lines:
                out.blank()
                out.extend(lines)
        out.blank()
        self.emit_ctor_decls(out)
        for e in self.attrs:
            lines = e.operations()
            if lines:
                out.blank()
                out.extend(lines)
        if self.ops:
            out.blank()
            out("// Hand-written operations.")
            for e in self.ops:
                out.extend(e.declaration())
        out.blank()
        out(f"// The registered record of {t.qualified}.",
            "static const Kiln::TypeRecord& kilnType();",
            "const Kiln::TypeRecord& fwkType() const override { return kilnType(); }")
        if self.own_list:
            out("Kiln::NotifieeList* notifieeList() const override { return &kilnNotifiees_; }",
                "void hasNotificationActiveIs(bool active) override "
                "{ kilnNotifiees_.activeIs(active); }",
                "// Calls onZeroReferences() on every notifiee.",
                "void zeroReferencesIs(bool) override {",
                "  if (!kilnNotifiees_.empty()) "
                "Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onZeroReferences);",
                "}")
        if t.notify:
            out.blank()
            self.emit_notifiee(out)
        if t.members:
            out.blank()
            out("// Hand-written members.")
            for m in t.members:
                out(m)
        out.dedent()
        out.blank()
        out(" private:")
        out.indent()
        hooks = {"construct": "constructHook", "destruct": "destructHook"}
        if t.hooks:
            out("// Hand-written parts of construction and destruction.")
            for h in t.hooks:
                out(f"void {hooks[h]}();")
            out("")
        for e in self.attrs:
            out.extend(e.storage())
        out.dedent()
        if self.own_list:
            out("", " protected:")
            out.indent()
            out("// The registered notifiees (derived types notify through it too);",
                "// mutators test it for emptiness first.",
                "mutable Kiln::NotifieeList kilnNotifiees_;")
            out.dedent()
        out("};")
        if self.named:
            params, own = self.ctor_params()
            decl = ", ".join([p for p, _ in params] + [p for p, _ in own])
            out("", f"// Creates a new {self.name} (\"null ValidPtr\" if creation yields none).",
                f"Kiln::Ptr<{self.name}> {lower(self.name)}Factory({decl});")
        for n in t.nested:
            out("")
            out.extend(enum_emitter.functions(n))
        out("", f"}}  // namespace {t.namespace}")
        return out.text()

    def emit_ctor_decls(self, out):
        params, own = self.ctor_params()
        all_params = [p for p, _ in params] + [p for p, _ in own]
        explicit = "explicit " if len(all_params) == 1 else ""
        out(f"{explicit}{self.name}({', '.join(all_params)});")
        out(f"{self.name}(const {self.name}&) = delete;",
            f"{self.name}& operator=(const {self.name}&) = delete;",
            f"~{self.name}() override;")
        if self.named:
            names = ", ".join([n for _, n in params] + [p.split()[-1] for p, _ in own])
            out(f"// Creates a new {self.name} (\"null ValidPtr\" if creation yields none).",
                f"static Kiln::Ptr<{self.name}> {self.name}Is({', '.join(all_params)}) {{",
                f"  return Kiln::validPtr(Kiln::kilnNew<{self.name}>({names}));",
                "}")

    def emit_notifiee(self, out):
        n = self.name
        out(f"// Observes a {n}: one virtual handler per attribute, in attribute order,",
            "// after the base's.",
            f"class NotifieeConst : public {self.notifiee_base} {{",
            " public:")
        out.indent()
        out(f"// The {n} observed, or null.",
            f"Kiln::Ptr<const {n}> notifier() const {{",
            f"  return static_cast<const {n}*>(notifierBase());",
            "}",
            f"// Observes notifier from now on (joining its list when registered).",
            f"void notifierIs(const Kiln::Ptr<const {n}>& notifier) "
            "{ notifierBaseIs(notifier.ptr()); }")
        for e in self.attrs:
            out.extend(e.handlers())
        out.dedent()
        out("", " protected:")
        out.indent()
        out("bool kilnAcceptsNotifier(const Kiln::PtrInterface* notifier) const override {",
            f"  return dynamic_cast<const {n}*>(notifier) != nullptr;",
            "}")
        out.dedent()
        out("};")

    # ------------------------------------------------------------------ source
    def source(self):
        t, n = self.t, self.name
        out = Lines()
        out.extend(stamp(t))
        out(f'#include "{self.ctx.header_of(t)}"', "",
            "#include <string>", "#include <string_view>", "#include <vector>", "",
            f"namespace {t.namespace} {{", "", "namespace {", "")
        out("// The type's name in the library's \".kiln.type\" section.",
            f"[[gnu::used, gnu::section(\".kiln.type\")]] const char kilnTypeName[] = "
            f"{cpp_string(t.qualified)};")
        for nested in t.nested:
            out.extend(enum_emitter.section_name(nested))
        out("")
        self.emit_record_class(out)
        for nested in t.nested:
            out("")
            out.extend(enum_emitter.record_class(nested))
        out("", "}  // namespace", "")
        params, own = self.ctor_params()
        all_params = [p for p, _ in params] + [p for p, _ in own]
        base_args = ", ".join(name for _, name in params)
        inits = [f"{t.base}({base_args})"] + [init for _, init in own]
        out(f"{n}::{n}({', '.join(all_params)})", f"    : {', '.join(inits)} {{")
        if "construct" in t.hooks:
            out("  constructHook();")
        out("}", "")
        out(f"{n}::~{n}() {{")
        if "destruct" in t.hooks:
            out("  destructHook();")
        for e in self.attrs:
            for line in e.destruction():
                out("  " + line)
        out("}", "")
        out(f"const Kiln::TypeRecord& {n}::kilnType() {{",
            f"  static const {n}TypeRecord record;",
            "  return record;",
            "}")
        if self.named:
            names = ", ".join([nm for _, nm in params] + [p.split()[-1] for p, _ in own])
            out("", f"Kiln::Ptr<{n}> {lower(n)}Factory({', '.join(all_params)}) {{",
                f"  return {n}::{n}Is({names});", "}")
        for nested in t.nested:
            out("")
            out.extend(enum_emitter.function_bodies(nested))
        out("", f"}}  // namespace {t.namespace}")
        return out.text()

    def emit_record_class(self, out):
        t, n = self.t, self.name
        records = [r for e in self.attrs for r in e.records()]
        operations = [e.record() for e in self.ops]
        out(f"class {n}TypeRecord : public Kiln::TypeRecord {{", " public:")
        out.indent()
        kind = (f"std::is_base_of_v<Kiln::Entity, {n}> ? Kiln::TypeKind::entity "
                f": Kiln::TypeKind::pointerInterface")
        out(f"{n}TypeRecord()",
            f"    : Kiln::TypeRecord({cpp_string(t.qualified)},",
            f"                       {kind},",
            f"                       &{self.base_record},")
        self.emit_initializer_list(out, records, ",")
        self.emit_initializer_list(out, operations, ") {}")
        out.dedent()
        glue = self.glue()
        if glue:
            out("", " protected:")
            out.indent()
            for i, lines in enumerate(glue):
                if i:
                    out("")
                out.extend(lines)
            out.dedent()
        out("};")

    @staticmethod
    def emit_initializer_list(out, items, after):
        if not items:
            out(f"                       {{}}{after}")
            return
        out("                       {")
        for item in items:
            out(f"                           {item},")
        out(f"                       }}{after}")

    def switch(self, signature, self_decl, cases, fallback):
        """An override whose switch on the index handles cases, else falls back."""
        if not cases:
            return None
        lines = [f"{signature} const override {{", f"  {self_decl}", "  switch (index) {"]
        lines += ["    " + c for c in cases]
        lines += ["  }", f"  {fallback}", "}"]
        return lines

    def glue(self):
        n = self.name
        c = lambda e_attr: [line for e in self.attrs for line in e_attr(e)]
        const_self = f"const auto& self = dynamic_cast<const {n}&>(o);"
        mutable_self = f"auto& self = dynamic_cast<{n}&>(o);"
        overrides = [
            self.switch("std::string kilnGet(const Kiln::PtrInterface& o, U32 index)",
                        const_self, c(lambda e: e.reflect_get()),
                        "return TypeRecord::kilnGet(o, index);"),
            self.switch("void kilnSet(Kiln::PtrInterface& o, U32 index, std::string_view text)",
                        mutable_self, c(lambda e: e.reflect_set()),
                        "TypeRecord::kilnSet(o, index, text);"),
            self.switch("std::vector<Kiln::MemberText> kilnMembers(const Kiln::PtrInterface& o, "
                        "U32 index)",
                        const_self, c(lambda e: e.reflect_members()),
                        "return TypeRecord::kilnMembers(o, index);"),
            self.switch("void kilnMemberIs(Kiln::PtrInterface& o, U32 index, "
                        "std::string_view keyText,\n                  "
                        "std::string_view valueText)",
                        mutable_self, c(lambda e: e.reflect_member_is()),
                        "TypeRecord::kilnMemberIs(o, index, keyText, valueText);"),
            self.switch("void kilnMemberDel(Kiln::PtrInterface& o, U32 index, "
                        "std::string_view keyText)",
                        mutable_self, c(lambda e: e.reflect_member_del()),
                        "TypeRecord::kilnMemberDel(o, index, keyText);"),
            self.switch("Kiln::Ptr<Kiln::PtrInterface> kilnChild(const Kiln::PtrInterface& o, "
                        "U32 index,\n                                         "
                        "std::string_view keyText)",
                        const_self, c(lambda e: e.reflect_child()),
                        "return TypeRecord::kilnChild(o, index, keyText);"),
        ]
        invoke_cases = [line for e in self.ops for line in e.reflect_invoke()]
        if invoke_cases:
            overrides.append(
                ["std::string kilnInvoke(Kiln::PtrInterface& o, const Kiln::OperationRecord& op,",
                 "                       const std::vector<std::string>& args) const override {",
                 f"  [[maybe_unused]] auto& self = dynamic_cast<{n}&>(o);",
                 "  switch (op.index) {"]
                + ["    " + line for line in invoke_cases]
                + ["  }", "  return TypeRecord::kilnInvoke(o, op, args);", "}"])
        overrides.append(self.construct())
        return [o for o in overrides if o]

    def construct(self):
        types = self.ctor_types()
        args = ", ".join(f"Kiln::reflectParse<{self.ctx.qualify(ty, self.t)}>(args[{i}])"
                         for i, ty in enumerate(types))
        return ["Kiln::Ptr<Kiln::PtrInterface> kilnConstruct(const std::vector<std::string>& args)",
                "    const override {",
                f"  expectArguments(\"constructor\", args, {len(types)});",
                f"  return Kiln::kilnNew<{self.name}>({args});",
                "}"]
