"""One emitter per attribute kind.

Each emitter returns the pieces of C++ that its attribute contributes to the
generated class (member records, operations, storage, notifiee handlers,
constructor parameters) and to the type record and its reflective glue. The
type emitters (entity.py, value.py) assemble the pieces.
"""

from .cpp import bare_type, cpp_string, upper


class Emitter:
    """An attribute of kind `record_kind` taking `indexes` consecutive indexes."""

    record_kind = "scalar"
    indexes = 1

    def __init__(self, owner, attr, ordinal, ctx):
        self.owner = owner
        self.a = attr
        self.ordinal = ordinal
        self.ctx = ctx
        self.x = attr.name
        self.X = upper(attr.name)
        self.T = attr.type

    # --- helpers
    @property
    def notifies(self):
        return self.owner.kind == "entity" and self.owner.notify

    @property
    def index(self):
        return f"kiln{self.X}Index"

    def g(self, type_text):
        """A type as the record's glue (outside the class) spells it."""
        return self.ctx.qualify(type_text, self.owner)

    def p(self, type_text):
        return self.ctx.param(type_text, self.owner)

    def ret(self, type_text):
        return type_text if self.ctx.by_value(type_text, self.owner) else f"const {type_text}&"

    def notify(self, handler, *args):
        """The statement that calls handler(args) on every notifiee, if any."""
        if not self.notifies:
            return []
        extra = "".join(", " + a for a in args)
        return [f"if (!kilnNotifiees_.empty()) "
                f"Kiln::doVisit(kilnNotifiees_, &NotifieeConst::{handler}{extra});"]

    def default_init(self):
        return f" = {self.a.default}" if self.a.default is not None else "{}"

    def headers(self):
        return self.ctx.referenced_headers(f"{self.a.key_type} {self.T}", self.owner)

    def index_decls(self, first):
        """Index constants; `first` is the owner's first index if known."""
        note = f"  // {first + self.ordinal}" if first is not None else ""
        return [f"static constexpr U32 {self.index} = kilnAttributeStart + {self.ordinal};{note}"]

    def records(self):
        owner = self.owner.name
        settable = ", true" if self.a.settable else ""
        return [f"{{{cpp_string(self.x)}, {owner}::{self.index}, "
                f"Kiln::AttributeKind::{self.record_kind}, {cpp_string(self.T)}, "
                f"{cpp_string(self.a.key_type)}{settable}}}"]

    # --- pieces of the class; empty unless the kind has them
    def member_types(self):
        return []

    def operations(self):
        return []

    def storage(self):
        return []

    def handlers(self):
        return []

    def ctor_param(self):
        """(parameter text, member initialiser) when the constructor takes this attribute."""
        return None

    def destruction(self):
        """Statements of the owner's destructor (after its hand-written hook)."""
        return []

    # --- reflective glue: lines of `case` labels of the record's switches
    def reflect_get(self):
        return []

    def reflect_set(self):
        return []

    def reflect_members(self):
        return []

    def reflect_member_is(self):
        return []

    def reflect_member_del(self):
        return []

    def reflect_child(self):
        return []

    def case(self, index=None):
        return f"case {self.owner.name}::{index or self.index}:"


class Scalar(Emitter):
    record_kind = "scalar"

    def operations(self):
        x, X, T = self.x, self.X, self.T
        default = f", default {self.a.default}" if self.a.default is not None else ""
        lines = [f"// {x} ({T}{default}): {x}() returns it; {x}Is(v) stores v"
                 + (f" and calls on{X}() when it differs." if self.notifies else "."),
                 f"{self.ret(T)} {x}() const {{ return {x}_; }}"]
        if self.a.custom:
            lines.append(f"void {x}Is({self.p(T)} {x});  // hand-written")
        elif self.notifies:
            lines += [f"void {x}Is({self.p(T)} {x}) {{",
                      f"  if ({x}_ == {x}) return;",
                      f"  {x}_ = {x};",
                      *["  " + s for s in self.notify(f"on{X}")],
                      "}"]
        else:
            lines.append(f"void {x}Is({self.p(T)} {x}) {{ {x}_ = {x}; }}")
        return lines

    def storage(self):
        return [f"{self.T} {self.x}_{self.default_init()};"]

    def handlers(self):
        return [f"virtual void on{self.X}() {{}}"]

    def reflect_get(self):
        return [f"{self.case()} return Kiln::reflectText(self.{self.x}());"]

    def reflect_set(self):
        return [f"{self.case()}",
                f"  self.{self.x}Is(Kiln::reflectParse<{self.g(self.T)}>(text));",
                "  return;"]


class Counter(Scalar):
    record_kind = "counter"

    def operations(self):
        x, X, T = self.x, self.X, self.T
        return super().operations() + [
            f"// Adds n (wrapping) and returns the sum"
            + (f"; calls on{X}() unless the sum equals the old value." if self.notifies else "."),
            f"{T} {x}Inc({T} n) {{",
            f"  const {T} sum = static_cast<{T}>({x}_ + n);",
            f"  if (sum == {x}_) return sum;",
            f"  {x}_ = sum;",
            *["  " + s for s in self.notify(f"on{X}")],
            "  return sum;",
            "}"]


class Fixed(Emitter):
    """A key or constructor parameter: set by the constructor, never changed."""

    @property
    def record_kind(self):
        return "key" if self.a.kind == "key" else "constructorParameter"

    @property
    def indexes(self):
        return 0 if self.a.plain else 1

    def index_decls(self, first):
        return [] if self.a.plain else super().index_decls(first)

    def records(self):
        return [] if self.a.plain else super().records()

    def operations(self):
        what = {"key": "key", "ctor": "constructor parameter"}[self.a.kind]
        return [f"// {self.x} ({self.T}): the {what}, fixed at construction.",
                f"{self.ret(self.T)} {self.x}() const {{ return {self.x}_; }}"]

    def storage(self):
        const = "" if self.a.plain else "const "
        return [f"{const}{self.T} {self.x}_;"]

    def ctor_param(self):
        return (f"{self.p(self.T)} {self.x}", f"{self.x}_({self.x})")

    def reflect_get(self):
        return [] if self.a.plain else [f"{self.case()} return Kiln::reflectText(self.{self.x}());"]


class RecordOnly(Emitter):
    """Listed in the type record only: no storage, no accessor."""

    record_kind = "recordOnly"


class Collection(Emitter):
    """A keyed (hash map) or ordered (tree) collection of values."""

    @property
    def record_kind(self):
        return "orderedCollection" if self.a.kind == "ordered" else "collection"

    @property
    def container(self):
        if self.a.kind == "ordered":
            return "DirectOrderedMap" if self.a.direct else "RbTreeMap"
        return "DirectHashMap" if self.a.direct else "HashMap"

    @property
    def container_args(self):
        """The container's template arguments after the member, key and value."""
        # 16: the buckets a map starts with, which small collections keep.
        return ", 16" if self.a.inline else ""

    @property
    def member_base(self):
        if self.a.kind == "ordered":
            return "DirectOrderedMember" if self.a.direct else "RbTreeMember"
        return "HashMapMember"

    @property
    def K(self):
        return self.a.key_type

    @property
    def V(self):
        """The type a member holds."""
        return self.T

    @property
    def M(self):
        return f"Kiln{self.X}"

    def observed(self, value):
        """The call that tells the owner's hand-written observer of a change."""
        return [f"{self.x}Observed(key, {value});"] if self.a.observed else []

    def member_types(self):
        M, K, V, X = self.M, self.K, self.V, self.X
        guard = []
        if self.a.observed:
            # Only the owner may change a member's value: it tells its observer.
            base = f"Kiln::CollectionMember<{M}, {K}, {V}>"
            guard = [f"  const {V}& value() const {{ return {base}::value(); }}",
                     "",
                     " private:",
                     f"  friend class {self.owner.name};",
                     f"  using {base}::valueIs;"]
        return [f"// A member of {self.x}: key {K}, value {V}.",
                f"class {M} final : public Kiln::{self.member_base}<{M}, {K}, {V}> {{",
                " public:",
                f"  using {self.member_base}::{self.member_base};",
                *guard,
                "};",
                f"typedef Kiln::{self.container}<{M}, {K}, {V}{self.container_args}> {X}Map;",
                f"typedef {X}Map::Iterator {X}Iterator;"]

    def storage(self):
        return [f"{self.X}Map {self.x}_;"]

    def handlers(self):
        return [f"virtual void on{self.X}({self.p(self.K)}) {{}}",
                f"virtual void on{self.X}kilnImmediate() {{}}",
                f"virtual void on{self.X}() {{}}"]

    def read_ops(self):
        x, X, M, V = self.x, self.X, self.M, self.V
        return [f"// The value under key, or {V}() when absent.",
                f"{V} {x}({self.p(self.K)} key) const {{",
                f"  const {M}* m = {x}_.find(key);",
                f"  return m ? m->value() : {V}();",
                "}",
                "// The collection itself, for iteration and counting.",
                f"const {X}Map& {x}() const {{ return {x}_; }}"]

    def store_ops(self):
        """xIs and newX for a collection of values."""
        x, X, M, V = self.x, self.X, self.M, self.V
        KP, VP = self.p(self.K), self.p(V)
        # An absent key is inserted without a second look-up.
        insert_new = f"{x}_.insertNew(key, value);"
        return [f"// Stores value under key; when the key holds an equal value nothing happens,",
                "// otherwise " + (f"{x}Notify(key) runs." if self.notifies else "nobody is told."),
                f"void {x}Is({KP} key, {VP} value) {{",
                f"  if ({M}* m = {x}_.find(key)) {{",
                "    if (m->value() == value) return;",
                "    m->valueIs(value);",
                *["    " + c for c in self.observed("&m->value()")],
                "  } else {",
                *([f"    {M}* added = {insert_new}",
                   *["    " + c for c in self.observed("&added->value()")]]
                  if self.a.observed else [f"    {insert_new}"]),
                "  }",
                *([f"  {x}Notify(key);"] if self.owner.kind == "entity" else []),
                "}",
                "// Stores value under key without telling anyone; returns the member.",
                f"Kiln::Ptr<{M}> new{X}({KP} key, {VP} value) {{",
                f"  if ({M}* m = {x}_.find(key)) {{",
                "    m->valueIs(value);",
                *["    " + c for c in self.observed("&m->value()")],
                "    return m;",
                "  }",
                f"  {M}* m = {insert_new}",
                *["  " + c for c in self.observed("&m->value()")],
                "  return m;",
                "}"]

    def delete_ops(self):
        x, X, V, K = self.x, self.X, self.V, self.K
        tell = [f"  {x}Notify(key);"] if self.owner.kind == "entity" else []
        lines = [f"// Removes key and returns its value; an absent key returns {V}() and",
                 "// tells nobody.",
                 f"{V} {x}Del({self.p(K)} key) {{",
                 f"  Kiln::Ptr<{self.M}> m = {x}_.remove(key);",
                 f"  if (!m) return {V}();",
                 *self.forget("m->value()"),
                 *["  " + c for c in self.observed("nullptr")],
                 *tell,
                 "  return m->value();",
                 "}",
                 "// Removes the member at position; returns the position after it.",
                 f"{X}Iterator {x}Del({X}Iterator position) {{",
                 f"  const {K} key = position->key();",
                 *self.forget("position->value()"),
                 f"  {X}Iterator next = {x}_.remove(position);",
                 *["  " + c for c in self.observed("nullptr")],
                 *tell]
        if not tell and not self.a.observed:
            lines.append("  static_cast<void>(key);")
        lines += ["  return next;",
                  "}",
                  "// Removes every member through " + f"{x}Del(iterator).",
                  f"void {x}DelAll() {{",
                  f"  while (!{x}_.empty()) {x}Del({x}_.begin());",
                  "}"]
        if self.owner.kind == "entity":
            if self.notifies:
                lines += [f"// Calls on{X}(key) on every notifiee.",
                          f"void {x}Notify({self.p(K)} key) {{",
                          *["  " + s for s in self.notify(f"on{X}", "key")],
                          "}"]
            else:
                lines += ["// Tells nobody: the type has no notifiees.",
                          f"void {x}Notify({self.p(K)}) {{}}"]
        return lines

    def forget(self, value):
        """Statements run on a deleted member's value before it goes."""
        return []

    def observer_decl(self):
        if not self.a.observed:
            return []
        return [f"// Hand-written: called after every change of a member of {self.x}, with",
                "// the member's new value, or null when key has left the collection.",
                f"void {self.x}Observed({self.p(self.K)} key, const {self.V}* value);"]

    def reserve_ops(self):
        """xReserve for a hash-map collection, which can be sized for its members at once."""
        if self.a.kind != "coll":
            return []
        return [f"// Grows the buckets of {self.x} now for `members` members (HashMap::reserve),",
                "// so that filling it rehashes nothing; its members stay as they are.",
                f"void {self.x}Reserve(U32 members) {{ {self.x}_.reserve(members); }}"]

    def operations(self):
        return (self.read_ops() + self.store_ops() + self.delete_ops() + self.reserve_ops()
                + self.observer_decl())

    def reflect_members(self):
        return [f"{self.case()} return Kiln::reflectMembers(self.{self.x}());"]

    def reflect_member_is(self):
        return [f"{self.case()}",
                f"  self.{self.x}Is(Kiln::reflectParse<{self.g(self.K)}>(keyText), "
                f"Kiln::reflectParse<{self.g(self.V)}>(valueText));",
                "  return;"]

    def reflect_member_del(self):
        return [f"{self.case()}",
                f"  self.{self.x}Del(Kiln::reflectParse<{self.g(self.K)}>(keyText));",
                "  return;"]


class EntityCollection(Collection):
    """A collection of entities that the owner creates by key (xIs(key, args...))."""

    @property
    def V(self):
        return f"Kiln::Ptr<{self.T}>"

    def read_ops(self):
        x, X, M, V = self.x, self.X, self.M, self.V
        return [f"// The entity under key, or null.",
                f"{V} {x}({self.p(self.K)} key) const {{",
                f"  const {M}* m = {x}_.find(key);",
                "  return m ? m->value() : nullptr;",
                "}",
                "// The collection itself, for iteration and counting.",
                f"const {X}Map& {x}() const {{ return {x}_; }}"]

    def store_ops(self):
        x, X, M, V, T = self.x, self.X, self.M, self.V, self.T
        params = self.a.entity_params
        decl = "".join(f", {self.p(q.type)} {q.name}" for q in params)
        args = "".join(f", {q.name}" for q in params)
        checks = []
        for q in params:
            checks += [f"    if (existing->{q.name}() != {q.name}) {{",
                       f"      Kiln::reinstantiationError({cpp_string(q.name)}, "
                       f"Kiln::reflectText({q.name}),",
                       f"                                 Kiln::reflectText(existing->{q.name}()));",
                       "    }"]
        return [f"// The entity under key, created as {T}(key{args}) when absent"
                + (f" ({x}Notify(key) then runs)." if self.notifies else "."),
                "// A present entity with another constructor parameter throws",
                "// Kiln::NameInUseException and stays in place.",
                f"{V} {x}Is({self.p(self.K)} key{decl}) {{",
                f"  if ({M}* m = {x}_.find(key)) {{",
                f"    const {V}& existing = m->value();",
                *checks,
                "    return existing;",
                "  }",
                f"  {V} created = new{X}(key{args});",
                f"  {x}Notify(key);",
                "  return created;",
                "}",
                f"// Creates {T}(key{args}) and stores it under key without telling anyone;",
                "// throws Kiln::RangeException(\"null ValidPtr\") if creation yields none.",
                f"{V} new{X}({self.p(self.K)} key{decl}) {{",
                f"  {V} created = Kiln::validPtr(Kiln::kilnNew<{T}>(key{args}));",
                f"  Kiln::kilnAdopt(created, this, {cpp_string(x)});",
                f"  if ({M}* m = {x}_.find(key)) {{",
                "    m->valueIs(created);",
                "  } else {",
                f"    {x}_.insertNew(key, created);",
                "  }",
                "  return created;",
                "}"]

    def forget(self, value):
        # A deleted entity forgets its owner.
        return [f"  Kiln::kilnOrphan({value}, this);"]

    def destruction(self):
        return [f"Kiln::kilnOrphanAll({self.x}_, this);"]

    def reflect_member_is(self):
        return []

    def reflect_child(self):
        return [f"{self.case()} return Kiln::reflectChild(self.{self.x}("
                f"Kiln::reflectParse<{self.g(self.K)}>(keyText)));"]


class KeyedEntityCollection(EntityCollection):
    """A collection of entities made elsewhere, keyed by an accessor of the entity."""

    def forget(self, value):
        return []

    def destruction(self):
        return []

    def null_text(self):
        return self.a.null_text or (f"null _{self.x} parameter to mutator for "
                                    f"{self.owner.qualified}::{self.x} not allowed")

    def store_ops(self):
        x, X, M, V, by = self.x, self.X, self.M, self.V, self.a.by
        return [f"// Stores entity under entity->{by}(); when that key holds the same entity",
                "// nothing happens, otherwise "
                + (f"{x}Notify(key) runs." if self.notifies else "nobody is told."),
                "// A null entity throws Kiln::RangeException.",
                f"void {x}Is(const {V}& entity) {{",
                f"  if (!entity) throw Kiln::RangeException({cpp_string(self.null_text())});",
                f"  const {self.K} key = entity->{by}();",
                f"  if ({M}* m = {x}_.find(key)) {{",
                "    if (m->value() == entity) return;",
                "    m->valueIs(entity);",
                "  } else {",
                f"    new{X}(entity);",
                "  }",
                f"  {x}Notify(key);",
                "}",
                "// Stores entity without telling anyone; returns the member.",
                f"Kiln::Ptr<{M}> new{X}(const {V}& entity) {{",
                f"  if (!entity) throw Kiln::RangeException({cpp_string(self.null_text())});",
                f"  const {self.K} key = entity->{by}();",
                f"  if ({M}* m = {x}_.find(key)) {{",
                "    m->valueIs(entity);",
                "    return m;",
                "  }",
                f"  Kiln::Ptr<{M}> m = new {M}(key, entity);",
                f"  {x}_.insert(m);",
                "  return m;",
                "}"]


class Queue(Collection):
    """A Kiln::LinkQueue of values keyed by a 32-bit index, with its metadata."""

    record_kind = "queue"
    indexes = 2

    @property
    def K(self):
        return "U32"

    def index_decls(self, first):
        note0 = f"  // {first + self.ordinal}" if first is not None else ""
        note1 = f"  // {first + self.ordinal + 1}" if first is not None else ""
        return [f"static constexpr U32 kiln{self.X}MetadataIndex = kilnAttributeStart + "
                f"{self.ordinal};{note0}",
                f"static constexpr U32 {self.index} = kilnAttributeStart + "
                f"{self.ordinal + 1};{note1}"]

    def records(self):
        owner = self.owner.name
        return [f"{{{cpp_string(self.x + 'Metadata')}, {owner}::kiln{self.X}MetadataIndex, "
                f"Kiln::AttributeKind::queueMetadata, \"Kiln::LinkQueueMetadata\", \"\"}}",
                f"{{{cpp_string(self.x)}, {owner}::{self.index}, Kiln::AttributeKind::queue, "
                f"{cpp_string(self.T)}, \"U32\"}}"]

    def member_types(self):
        M, V, X = self.M, self.V, self.X
        return [f"// A member of {self.x}: index U32, value {V}.",
                f"class {M} final : public Kiln::LinkQueueMember<{M}, {V}> {{",
                " public:",
                "  using LinkQueueMember::LinkQueueMember;",
                "};",
                f"typedef Kiln::LinkQueue<{M}, {V}> {X}Queue;",
                f"typedef {X}Queue::Iterator {X}Iterator;"]

    def storage(self):
        return [f"{self.X}Queue {self.x}_;"]

    def handlers(self):
        return [f"virtual void on{self.X}Metadata() {{}}"] + super().handlers()

    def read_ops(self):
        x, X, M, V = self.x, self.X, self.M, self.V
        return [f"// The value at index, or {V}() when absent.",
                f"{V} {x}(U32 index) const {{",
                f"  const {M}* m = {x}_.find(index);",
                f"  return m ? m->value() : {V}();",
                "}",
                "// The queue itself, for iteration (head to tail) and counting.",
                f"const {X}Queue& {x}() const {{ return {x}_; }}"]

    def store_ops(self):
        x, X, M, V = self.x, self.X, self.M, self.V
        VP = self.p(V)
        return [f"// Appends value at the tail and returns its index, then {x}Notify(index);",
                "// throws Kiln::RangeException(\"linkqueue index space full\") when the index",
                "// space is exhausted.",
                f"U32 {x}Enq({VP} value) {{",
                f"  const U32 index = {x}_.enq(new {M}(value));",
                f"  {x}Notify(index);",
                "  return index;",
                "}",
                f"// Removes the head and returns its value, then {x}Notify(its index); an",
                f"// empty queue returns {V}() and tells nobody.",
                f"{V} {x}Deq() {{",
                f"  Kiln::Ptr<{M}> m = {x}_.deq();",
                f"  if (!m) return {V}();",
                f"  {x}Notify(m->key());",
                "  return m->value();",
                "}",
                "// Places value at index (replacing, prepending, appending or linking in",
                f"// index order), then {x}Notify(index); an equal value there changes nothing.",
                f"void {x}Is(U32 index, {VP} value) {{",
                f"  if ({M}* m = {x}_.find(index)) {{",
                "    if (m->value() == value) return;",
                "    m->valueIs(value);",
                "  } else {",
                f"    {x}_.place(new {M}(index, value));",
                "  }",
                f"  {x}Notify(index);",
                "}",
                "// The head index and the next index.",
                f"Kiln::LinkQueueMetadata {x}Metadata() const {{ return {x}_.metadata(); }}",
                "// Stores both indexes and "
                + (f"always calls on{X}Metadata(), even when unchanged." if self.notifies
                   else "tells nobody."),
                f"void {x}MetadataIs(const Kiln::LinkQueueMetadata& metadata) {{",
                f"  {x}_.headIndexIs(metadata.headIndex);",
                f"  {x}_.nextIndexIs(metadata.nextIndex);",
                *["  " + s for s in self.notify(f"on{X}Metadata")],
                "}"]

    def reflect_get(self):
        return [f"{self.case(f'kiln{self.X}MetadataIndex')} "
                f"return Kiln::reflectText(self.{self.x}Metadata());"]

    def reflect_set(self):
        return [f"{self.case(f'kiln{self.X}MetadataIndex')}",
                f"  self.{self.x}MetadataIs(Kiln::reflectParse<Kiln::LinkQueueMetadata>(text));",
                "  return;"]


class Singleton(Emitter):
    """An entity the owner creates (xIs(args...)) and deletes (xDel())."""

    record_kind = "singleton"

    def operations(self):
        x, X, T = self.x, self.X, self.T
        V = f"Kiln::Ptr<{T}>"
        params = self.a.entity_params
        decl = ", ".join(f"{self.p(q.type)} {q.name}" for q in params)
        args = ", ".join(q.name for q in params)
        return [f"// {x}: the {T} this object owns, or null.",
                f"const {V}& {x}() const {{ return {x}_; }}",
                f"// Creates a new {T}({args}) and returns it, storing nothing; throws",
                "// Kiln::RangeException(\"null ValidPtr\") if creation yields none.",
                f"{V} new{X}({decl}) {{ return Kiln::validPtr(Kiln::kilnNew<{T}>({args})); }}",
                f"// Returns the stored {T}; when there is none, stores new{X}({args})"
                + (f" and calls on{X}()." if self.notifies else "."),
                f"{V} {x}Is({decl}) {{",
                f"  if ({x}_) return {x}_;",
                f"  {x}_ = new{X}({args});",
                f"  Kiln::kilnAdopt({x}_, this, {cpp_string(x)});",
                *["  " + s for s in self.notify(f"on{X}")],
                f"  return {x}_;",
                "}",
                "// Drops the stored entity" + (f" and calls on{X}()" if self.notifies else "")
                + "; nothing happens when there is none.",
                f"void {x}Del() {{",
                f"  if (!{x}_) return;",
                f"  Kiln::kilnOrphan({x}_, this);",
                f"  {x}_ = nullptr;",
                *["  " + s for s in self.notify(f"on{X}")],
                "}"]

    def storage(self):
        return [f"Kiln::Ptr<{self.T}> {self.x}_;"]

    def destruction(self):
        return [f"Kiln::kilnOrphan({self.x}_, this);"]

    def handlers(self):
        return [f"virtual void on{self.X}() {{}}"]

    def reflect_get(self):
        return [f"{self.case()} return Kiln::reflectText(self.{self.x}());"]

    def reflect_child(self):
        return [f"{self.case()} return Kiln::reflectChild(self.{self.x}());"]


class Reference(Singleton):
    """A pointer to an entity owned elsewhere, set with xIs(ptr)."""

    record_kind = "reference"

    def destruction(self):
        return []

    @property
    def pointee(self):
        return f"const {self.T}" if self.a.const else self.T

    def records(self):
        return [r.replace(cpp_string(self.T), cpp_string(self.pointee), 1)
                for r in super().records()]

    def operations(self):
        x, X = self.x, self.X
        V = f"Kiln::Ptr<{self.pointee}>"
        if self.notifies:
            body = [f"void {x}Is(const {V}& {x}) {{",
                    f"  if ({x}_ == {x}) return;",
                    f"  {x}_ = {x};",
                    *["  " + s for s in self.notify(f"on{X}")],
                    "}"]
        else:
            body = [f"void {x}Is(const {V}& {x}) {{ {x}_ = {x}; }}"]
        return [f"// {x}: a {self.pointee} owned elsewhere, or null. {x}Is(p) takes a reference",
                "// to p, then drops the old one" + (f", and calls on{X}() when p differs."
                                                    if self.notifies else "."),
                f"const {V}& {x}() const {{ return {x}_; }}"] + body

    def storage(self):
        return [f"Kiln::Ptr<{self.pointee}> {self.x}_;"]


class OperationEmitter:
    """A hand-written operation: declared in the class, registered by name."""

    def __init__(self, owner, op, ordinal, ctx):
        self.owner = owner
        self.op = op
        self.ordinal = ordinal
        self.ctx = ctx
        self.index = f"kiln{upper(op.name)}Index"

    def index_decls(self, first):
        note = f"  // {first + self.ordinal}" if first is not None else ""
        return [f"static constexpr U32 {self.index} = kilnAttributeStart + {self.ordinal};{note}"]

    def declaration(self):
        op = self.op
        prefix = "virtual " if op.virtual else "static " if op.static else ""
        params = ", ".join(f"{q.type} {q.name}" for q in op.params)
        const = " const" if op.const else ""
        return [f"{prefix}{op.return_type} {op.name}({params}){const};"]

    def record(self):
        op = self.op
        names = ", ".join(cpp_string(q.name) for q in op.params)
        types = ", ".join(cpp_string(q.type) for q in op.params)
        return (f"{{{cpp_string(op.name)}, {self.owner.name}::{self.index}, "
                f"{cpp_string(op.return_type)}, {{{names}}}, {{{types}}}}}")

    def reflect_invoke(self):
        op = self.op
        target = f"{self.owner.name}::" if op.static else "self."
        args = ", ".join(f"Kiln::reflectParse<{self.ctx.qualify(bare_type(q.type), self.owner)}>"
                         f"(args[{i}])"
                         for i, q in enumerate(op.params))
        call = f"{target}{op.name}({args})"
        if op.return_type == "void":
            return [f"case {self.owner.name}::{self.index}:", f"  {call};", "  return \"\";"]
        return [f"case {self.owner.name}::{self.index}:",
                f"  return Kiln::reflectText({call});"]


def attribute_emitter(owner, attr, ordinal, ctx):
    """The emitter of attr's kind."""
    kind = attr.kind
    if kind in ("attr", "field"):
        return Scalar(owner, attr, ordinal, ctx)
    if kind == "counter":
        return Counter(owner, attr, ordinal, ctx)
    if kind in ("key", "ctor"):
        return Fixed(owner, attr, ordinal, ctx)
    if kind == "recordonly":
        return RecordOnly(owner, attr, ordinal, ctx)
    if kind in ("coll", "ordered"):
        if attr.by:
            return KeyedEntityCollection(owner, attr, ordinal, ctx)
        if attr.entity:
            return EntityCollection(owner, attr, ordinal, ctx)
        return Collection(owner, attr, ordinal, ctx)
    if kind == "queue":
        return Queue(owner, attr, ordinal, ctx)
    if kind == "singleton":
        return Singleton(owner, attr, ordinal, ctx)
    if kind == "ref":
        return Reference(owner, attr, ordinal, ctx)
    if kind == "derived":
        from .value import Derived
        return Derived(owner, attr, ordinal, ctx)
    raise ValueError(f"no emitter for attribute kind {kind}")
