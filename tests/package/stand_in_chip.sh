#!/usr/bin/env bash
# stand_in_chip.sh PROJECT_DIR CHIP_FILE WORK_DIR "CMAKE OPTIONS"
#
# Builds the parent project PROJECT_DIR (the library with a stand-in chip
# library) three times in one build directory: the stand-in as a target of
# the parent, as the library file CHIP_FILE, and as an imported target of
# that file. The library's sources compile once; the later configurations
# only relink. Each time the configure step must name the chip library, and
# the program must read back through the stand-in what the library wrote. The
# file configuration asks for the tests, the agent and the benchmarks too, and
# checks that those that drive the simulator are skipped, saying why. The
# target configuration is installed too.
set -euo pipefail
project=$1 chip=$2 work=$3
read -r -a options <<<"$4"
build=$work/build

check() {
  local mode=$1 expected=$2
  shift 2
  echo "=== the stand-in chip library as $mode"
  cmake -S "$project" -B "$build" "${options[@]}" -DSTAND_IN_CHIP_AS="$mode" "$@" |
    tee "$work/$mode.configure.log"
  grep -q "Brevant: chip API from $expected" "$work/$mode.configure.log" ||
    { echo "configure did not report the chip library ($expected)"; exit 1; }
  cmake --build "$build" -j2 --target stand-in-chip
  "$build/stand-in-chip"
}

mkdir -p "$work"
# With the parent's target, install and export too: the export must not need
# the parent's target, and the installed library must find the installed
# stand-in through its run path.
check target "the target stand_in_chip" -DBREVANT_INSTALL=ON
cmake --build "$build" -j2
rm -rf "$work/prefix"
cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"
installed=$(find "$work/prefix" -name libbrevant-brevant.so | head -1)
[ -n "$installed" ] || { echo "libbrevant-brevant.so not installed"; exit 1; }
# The output is read whole before it is searched: `ldd | grep -q` under
# pipefail fails whenever grep stops reading before ldd has written all.
dependencies=$(env -u LD_LIBRARY_PATH ldd "$installed")
grep -q "libstand_in_chip.so => $(dirname "$installed")/" <<<"$dependencies" ||
  { echo "the installed library does not find the installed stand-in:"; echo "$dependencies"; exit 1; }
check file "the library file $chip" -DSTAND_IN_CHIP_FILE="$chip" \
  -DBREVANT_BUILD_TESTS=ON -DBREVANT_BUILD_APPS=ON -DBREVANT_BUILD_BENCHMARKS=ON
for skipped in "Brevant: the agent program and the benchmarks are skipped: they drive the chip simulator" \
               "Brevant: brevant_tests skipped: they drive the chip simulator"; do
  grep -q "$skipped" "$work/file.configure.log" || { echo "no configure message: $skipped"; exit 1; }
done
check imported "the target StandIn::Chip" -DSTAND_IN_CHIP_FILE="$chip"
