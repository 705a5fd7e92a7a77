"""What the emitters know about all the types generated together."""

import re

from .cpp import INTEGRAL, bare_type


class Context:
    def __init__(self, schemas):
        self.schemas = schemas
        self.types = [t for s in schemas for t in s.all_types()]
        self.by_qualified = {t.qualified: t for t in self.types}

    def resolve(self, type_text, scope):
        """The declared type that type_text names from inside `scope`, or None."""
        name = bare_type(type_text)
        candidates = [name, f"{scope.namespace}::{name}"]
        if scope.kind == "entity":
            candidates.insert(0, f"{scope.qualified}::{name}")
        for c in candidates:
            if c in self.by_qualified:
                return self.by_qualified[c]
        return None

    def by_value(self, type_text, scope):
        """True when a parameter of this type is passed by value."""
        name = bare_type(type_text)
        if name in INTEGRAL or name.endswith("*"):
            return True
        t = self.resolve(name, scope)
        return t is not None and t.kind == "enum"

    def param(self, type_text, scope):
        """The parameter spelling of a type: by value or by const reference."""
        if self.by_value(type_text, scope):
            return type_text
        return f"const {type_text}&"

    def header_of(self, t):
        """The include path of the header that holds t."""
        return f"{t.namespace.replace('::', '/')}/{t.header_type.name}.h"

    def qualify(self, type_text, scope):
        """type_text as written outside scope's class: a nested enumeration named
        from inside its entity gets the entity's name in front."""
        def repl(m):
            t = self.resolve(m.group(0), scope)
            if t is not None and t.outer is not None and "::" not in m.group(0):
                return t.cpp_name
            return m.group(0)
        return re.sub(r"(?<![A-Za-z0-9_:])[A-Za-z_][A-Za-z0-9_]*(?![A-Za-z0-9_:])", repl,
                      type_text)

    def referenced_headers(self, type_text, scope):
        """Headers of declared types named anywhere in type_text (templates included)."""
        headers = []
        # A type named through a raw pointer needs only a forward declaration.
        for word in re.findall(r"[A-Za-z_][A-Za-z0-9_:]*(?!\s*\*)", type_text):
            t = self.resolve(word, scope)
            if t is not None and t.header_type is not scope.header_type:
                h = self.header_of(t)
                if h not in headers:
                    headers.append(h)
        return headers
