"""Small helpers for writing C++ text."""

INTEGRAL = {"U8", "U16", "U32", "U64", "S8", "S16", "S32", "S64", "bool", "char", "int",
            "unsigned", "long", "short", "size_t", "std::size_t", "double", "float",
            "Kiln::Seconds"}


def upper(name):
    """The name with its first letter raised: freeEntries -> FreeEntries."""
    return name[:1].upper() + name[1:]


def lower(name):
    """The name with its first letter lowered: Vxlan1GStatus -> vxlan1GStatus."""
    return name[:1].lower() + name[1:]


def cpp_string(text):
    """A C++ string literal holding text."""
    out = []
    for c in text:
        if c in '"\\':
            out.append("\\" + c)
        elif c == "\n":
            out.append("\\n")
        elif ord(c) < 0x20:
            out.append(f"\\x{ord(c):02x}")
        else:
            out.append(c)
    return '"' + "".join(out) + '"'


def bare_type(t):
    """The type without a leading const and a trailing &."""
    t = t.strip()
    if t.startswith("const "):
        t = t[len("const "):]
    return t.rstrip("&").strip()


def open_namespace(out, t, includes):
    """Writes the include lines of a type's header, opens its namespace and
    declares the classes it names only by pointer."""
    for inc in includes:
        out(f"#include {inc}")
    out("", f"namespace {t.namespace} {{", "")
    for f in t.forwards:
        out(f"class {f};")
    if t.forwards:
        out("")


class Lines:
    """Accumulates lines of C++ with an indentation level."""

    def __init__(self):
        self.lines = []
        self.level = 0

    def __call__(self, *texts):
        for text in texts:
            for line in text.split("\n"):
                self.lines.append(("  " * self.level + line) if line else "")
        return self

    def extend(self, lines):
        for line in lines:
            self(line)

    def indent(self):
        self.level += 1

    def dedent(self):
        self.level -= 1

    def blank(self):
        if self.lines and self.lines[-1] != "":
            self.lines.append("")

    def text(self):
        while self.lines and self.lines[-1] == "":
            self.lines.pop()
        return "\n".join(self.lines) + "\n"
