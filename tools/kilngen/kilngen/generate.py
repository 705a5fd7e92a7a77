"""Turns parsed schemas into the generated files."""

import os

from . import enum as enum_emitter
from .context import Context
from .entity import EntityEmitter, stamp
from .value import ValueEmitter


def outputs(schemas, registration):
    """{relative path: text} of every file the schemas generate, the registration
    unit (named `registration`.cpp) included."""
    ctx = Context(schemas)
    files = {}
    for schema in schemas:
        for t in schema.types:
            base = ctx.header_of(t)[: -len(".h")]
            if t.kind == "entity":
                e = EntityEmitter(t, ctx)
                files[base + ".h"] = e.header()
                files[base + ".cpp"] = e.source()
            elif t.kind == "value":
                v = ValueEmitter(t, ctx)
                files[base + ".h"] = v.header(stamp)
                files[base + ".cpp"] = v.source(stamp)
            else:
                files[base + ".h"] = enum_emitter.header(t, ctx, stamp)
                files[base + ".cpp"] = enum_emitter.source(t, ctx, stamp)
    files[registration + ".cpp"] = registration_unit(schemas, ctx)
    return files


def registration_unit(schemas, ctx):
    paths = ", ".join(s.path for s in schemas)
    lines = [f"// generated from {paths} by kilngen; do not edit",
             "//",
             "// Registers the records of these types when the library loads, in declaration",
             "// order, and removes them when it unloads.",
             '#include "Kiln/TypeRecord.h"', ""]
    headers = []
    for s in schemas:
        for t in s.types:
            h = ctx.header_of(t)
            if h not in headers:
                headers.append(h)
    lines += [f'#include "{h}"' for h in headers]
    lines += ["", "namespace {", ""]
    n = 0
    for s in schemas:
        for t in s.all_types():
            if t.kind == "enum":
                record = f"{t.namespace}::{t.name}KilnType()"
            else:
                record = f"{t.qualified}::kilnType()"
            lines.append(f"const Kiln::TypeRegistration kilnRegistration{n}({record});")
            n += 1
    lines += ["", "}  // namespace"]
    return "\n".join(lines) + "\n"


def write_if_changed(path, text):
    """Writes text to path unless the file already holds exactly that; returns
    whether it wrote."""
    try:
        with open(path, encoding="utf-8") as f:
            if f.read() == text:
                return False
    except FileNotFoundError:
        pass
    os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    tmp = path + ".tmp"
    with open(tmp, "w", encoding="utf-8") as f:
        f.write(text)
    os.replace(tmp, path)
    return True
