#!/usr/bin/env python3
"""Tests of kilngen's command line: rewriting only what changed, listing the
outputs, and the errors it reports for malformed schemas.

    generator_test.py KILNGEN
"""

import os
import subprocess
import sys
import tempfile
import unittest

KILNGEN = None

SCHEMA = """namespace T
value A
  field x : U8
value B
  field y : U8
"""


def run(*args):
    return subprocess.run([sys.executable, KILNGEN, *args], capture_output=True, text=True)


class Outputs(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.root = self.dir.name
        self.schema = os.path.join(self.root, "t.kiln")
        self.out = os.path.join(self.root, "out")
        self.write(SCHEMA)

    def tearDown(self):
        self.dir.cleanup()

    def write(self, text):
        with open(self.schema, "w") as f:
            f.write(text)

    def generate(self, *extra):
        result = run("--out", self.out, "--registration", "Reg", "--root", self.root,
                     *extra, self.schema)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result

    def stamps(self):
        found = {}
        for dirpath, _, names in os.walk(self.out):
            for name in names:
                path = os.path.join(dirpath, name)
                found[os.path.relpath(path, self.out)] = os.stat(path).st_mtime_ns
        return found

    def test_lists_every_output_and_writes_nothing(self):
        listed = self.generate("--list").stdout.split()
        self.assertEqual(sorted(os.path.relpath(p, self.out) for p in listed),
                         ["Reg.cpp", "T/A.cpp", "T/A.h", "T/B.cpp", "T/B.h"])
        self.assertFalse(os.path.exists(self.out))

    def test_unchanged_outputs_are_not_rewritten(self):
        self.generate()
        before = self.stamps()
        os.utime(self.schema)
        for path in before:
            os.utime(os.path.join(self.out, path), ns=(1, 1))
        self.generate()
        after = self.stamps()
        self.assertTrue(all(t == 1 for t in after.values()), after)

    def test_a_changed_type_rewrites_only_its_own_files(self):
        self.generate()
        for path in self.stamps():
            os.utime(os.path.join(self.out, path), ns=(1, 1))
        self.write(SCHEMA.replace("field y : U8", "field y : U16"))
        self.generate()
        rewritten = sorted(p for p, t in self.stamps().items() if t != 1)
        self.assertEqual(rewritten, ["T/B.cpp", "T/B.h"])

    def test_outputs_are_stamped_with_their_schema(self):
        self.generate()
        with open(os.path.join(self.out, "T", "A.h")) as f:
            first = f.readline()
        self.assertEqual(first, "// generated from t.kiln by kilngen; do not edit\n")


class Errors(unittest.TestCase):
    CASES = [
        ("value A\n  field x : U8\n", "t.kiln:1: the namespace must come before the first type"),
        ("namespace T\nvalue A\n  fild x : U8\n", "t.kiln:3: 'fild' is not a declaration of a value"),
        ("namespace T\nentity E\n", "t.kiln:2: an entity names its base"),
        ("namespace T\nentity E : Other::Base\n",
         "t.kiln:2: a base entity other than Kiln::Entity and Kiln::PtrInterface lists"),
        ("namespace T\nentity E : Kiln::Entity\n  coll c : U8\n",
         "t.kiln:3: a collection reads 'coll name : Key -> Value'"),
        ("namespace T\nentity E : Kiln::Entity\n  attr a : U8\n  attr a : U16\n",
         "t.kiln:4: attribute a declared twice"),
        ("namespace T\nentity E : Kiln::Entity\n  key k : U8 = 3\n",
         "t.kiln:3: a key attribute has no default"),
        ("namespace T\nentity E : Kiln::Entity\n  coll c : U8 -> U8 nulltext \"x\"\n",
         "t.kiln:3: nulltext belongs to an entity collection keyed 'by' an accessor"),
        ("namespace T\nenum C\n  red\n", "t.kiln:3: an enumeration value reads 'name = number'"),
        ("namespace T\nvalue V\n  field a : U8\n  field b : U8\n  strep bare\n",
         "t.kiln:2: 'strep bare' needs exactly one field"),
        ("namespace T\nvalue V\n  field a : U8\n\tfield b : U8\n",
         "t.kiln:4: indent with blanks, not tabs"),
        ("namespace T\nentity E : Kiln::Entity\n  coll c : U8 -> U8 settable\n",
         "t.kiln:3: only a scalar attribute is 'settable'"),
        ("namespace T\nentity E : Kiln::Entity\n  key k : U8 settable\n",
         "t.kiln:3: only a scalar attribute is 'settable'"),
        ("namespace T\nentity E : Kiln::Entity\n  queue q : U16 direct\n",
         "t.kiln:3: only a collection ('coll' or 'ordered') is 'direct'"),
        ("namespace T\nentity E : Kiln::Entity\n  ordered c : U32 -> U8 direct\n",
         "t.kiln:3: a 'direct' collection is keyed by U8, U16, S8, S16"),
        ("namespace T\nentity E : Kiln::Entity\n  coll c : U32 -> U8 direct\n",
         "t.kiln:3: a 'direct' collection is keyed by U8, U16, S8, S16"),
        ("namespace T\nentity E : Kiln::Entity\n  ordered c : U8 -> U8 inline\n",
         "t.kiln:3: only a 'coll' that is not 'direct' keeps its buckets 'inline'"),
        ("namespace T\nentity E : Kiln::Entity\n  coll c : U8 -> U8 direct inline\n",
         "t.kiln:3: only a 'coll' that is not 'direct' keeps its buckets 'inline'"),
        ("namespace T\nentity E : Kiln::Entity\n  op bad\n",
         "t.kiln:3: an operation reads"),
    ]

    def test_each_malformed_schema_is_refused_with_file_and_line(self):
        for text, message in self.CASES:
            with self.subTest(message=message), tempfile.TemporaryDirectory() as root:
                schema = os.path.join(root, "t.kiln")
                with open(schema, "w") as f:
                    f.write(text)
                result = run("--out", os.path.join(root, "out"), "--registration", "R",
                             "--root", root, schema)
                self.assertEqual(result.returncode, 1)
                self.assertIn("kilngen: " + message, result.stderr)
                self.assertFalse(os.path.exists(os.path.join(root, "out")))


if __name__ == "__main__":
    KILNGEN = sys.argv.pop(1)
    unittest.main()
