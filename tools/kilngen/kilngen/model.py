"""The declarations a schema file holds, as the parser builds them."""

from dataclasses import dataclass, field
from typing import List, Optional


@dataclass
class Param:
    name: str
    type: str


@dataclass
class Attribute:
    kind: str                 # scalar counter key ctor coll ordered queue singleton ref
                              # recordonly field derived
    name: str
    type: str = ""            # value type (of a collection: of its members)
    key_type: str = ""        # collections
    default: Optional[str] = None
    custom: bool = False      # hand-written setter
    observed: bool = False    # collection of values: every member change calls xObserved
    direct: bool = False      # keyed collection of a small integer key: also an array by key
    inline: bool = False      # hash-map collection: up to 16 buckets kept inside the owner
    plain: bool = False       # ctor parameter kept without a type-record entry
    settable: bool = False    # an operator may set it at run time (recorded, not enforced)
    entity: bool = False      # collection/singleton value is an entity the owner creates
    entity_params: List[Param] = field(default_factory=list)
    by: str = ""              # entity collection keyed by this accessor of the value
    null_text: str = ""       # text of the RangeException for a null entity argument
    const: bool = False       # reference to a read-only object
    line: int = 0


@dataclass
class Operation:
    name: str
    return_type: str
    params: List[Param]
    virtual: bool = False
    static: bool = False
    const: bool = False
    line: int = 0


@dataclass
class EnumValue:
    name: str
    value: str


@dataclass
class TypeDecl:
    kind: str                 # entity, value, enum
    name: str                 # unqualified
    schema: "Schema" = None
    line: int = 0
    outer: Optional["TypeDecl"] = None   # the entity an enumeration is nested in
    # entity
    base: str = ""
    base_params: List[Param] = field(default_factory=list)
    notify: bool = True
    hooks: List[str] = field(default_factory=list)
    # entity and value
    attributes: List[Attribute] = field(default_factory=list)
    operations: List[Operation] = field(default_factory=list)
    members: List[str] = field(default_factory=list)
    includes: List[str] = field(default_factory=list)
    forwards: List[str] = field(default_factory=list)
    nested: List["TypeDecl"] = field(default_factory=list)
    order: List[object] = field(default_factory=list)  # attributes and operations in declaration order
    # value
    ordered: bool = False
    bare: bool = False
    constants: List[Param] = field(default_factory=list)
    constant_values: List[str] = field(default_factory=list)
    # enum
    values: List[EnumValue] = field(default_factory=list)
    source_lines: List[str] = field(default_factory=list)  # the declaration as written

    @property
    def namespace(self):
        return self.schema.namespace

    @property
    def cpp_name(self):
        """The name inside the namespace (Outer::Inner for a nested enum)."""
        return f"{self.outer.name}::{self.name}" if self.outer else self.name

    @property
    def qualified(self):
        return f"{self.namespace}::{self.cpp_name}"

    @property
    def header_type(self):
        """The type whose header holds this one."""
        return self.outer or self


@dataclass
class Schema:
    path: str                 # as stamped in the output
    namespace: str = ""
    includes: List[str] = field(default_factory=list)
    types: List[TypeDecl] = field(default_factory=list)

    def all_types(self):
        """Every type in declaration order, nested enumerations after their entity."""
        for t in self.types:
            yield t
            yield from t.nested
