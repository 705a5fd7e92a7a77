#!/usr/bin/env python3
"""kilngen: generates C++ for Kiln entities, value types and enumerations.

    kilngen.py --out DIR --registration NAME [--root DIR] [--list] SCHEMA...

Writes, per declared type, DIR/<Namespace path>/<Type>.h and .cpp, and
DIR/NAME.cpp registering every type; a file is rewritten only when its text
changes. --list prints the paths it would write, one a line, and writes
nothing. Schema paths are stamped into the output relative to --root.
"""

import argparse
import os
import sys

# Generated output goes to the build tree only: no bytecode beside the sources.
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from kilngen.generate import outputs, write_if_changed  # noqa: E402
from kilngen.schema import SchemaError, parse  # noqa: E402


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", required=True)
    parser.add_argument("--registration", required=True)
    parser.add_argument("--root", default=".")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("schemas", nargs="+")
    args = parser.parse_args(argv)
    try:
        schemas = []
        for path in args.schemas:
            with open(path, encoding="utf-8") as f:
                stamped = os.path.relpath(os.path.abspath(path), os.path.abspath(args.root))
                schemas.append(parse(stamped, f.read()))
        files = outputs(schemas, args.registration)
    except SchemaError as e:
        print(f"kilngen: {e}", file=sys.stderr)
        return 1
    for rel in sorted(files):
        path = os.path.join(args.out, rel)
        if args.list:
            print(path)
        else:
            write_if_changed(path, files[rel])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
