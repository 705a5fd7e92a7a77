#!/usr/bin/env python3
"""Golden tests of kilngen: each golden/<case>/ holds schemas (*.kiln) and
expected/, the files the generator must write for them, byte for byte.

    golden_test.py KILNGEN GOLDEN_DIR [--update]

--update rewrites the expected files from the current generator (then review
the diff before committing it).
"""

import difflib
import os
import shutil
import subprocess
import sys
import tempfile


def generate(kilngen, case_dir, out_dir):
    schemas = sorted(f for f in os.listdir(case_dir) if f.endswith(".kiln"))
    subprocess.run([sys.executable, kilngen, "--out", out_dir, "--registration", "GoldenTypes",
                    "--root", case_dir] + [os.path.join(case_dir, s) for s in schemas],
                   check=True)


def files_under(root):
    found = {}
    for dirpath, _, names in os.walk(root):
        for name in names:
            path = os.path.join(dirpath, name)
            with open(path, encoding="utf-8") as f:
                found[os.path.relpath(path, root)] = f.read()
    return found


def main(argv):
    kilngen, golden = argv[0], argv[1]
    update = "--update" in argv[2:]
    failures = 0
    for case in sorted(os.listdir(golden)):
        case_dir = os.path.join(golden, case)
        expected_dir = os.path.join(case_dir, "expected")
        with tempfile.TemporaryDirectory() as out:
            generate(kilngen, case_dir, out)
            actual = files_under(out)
            if update:
                shutil.rmtree(expected_dir, ignore_errors=True)
                shutil.copytree(out, expected_dir)
                print(f"{case}: updated {len(actual)} files")
                continue
            expected = files_under(expected_dir)
            for rel in sorted(set(actual) | set(expected)):
                if rel not in actual:
                    print(f"{case}: {rel} is no longer generated")
                elif rel not in expected:
                    print(f"{case}: {rel} is generated but not expected")
                elif actual[rel] != expected[rel]:
                    print(f"{case}: {rel} differs:")
                    sys.stdout.writelines(difflib.unified_diff(
                        expected[rel].splitlines(True), actual[rel].splitlines(True),
                        "expected/" + rel, "generated/" + rel))
                else:
                    continue
                failures += 1
            print(f"{case}: {len(expected)} files compared")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
