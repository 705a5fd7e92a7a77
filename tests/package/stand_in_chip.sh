#!/usr/bin/env bash
# stand_in_chip.sh PROJECT_DIR CHIP_FILE WORK_DIR "CMAKE OPTIONS"
#
# Builds the parent project PROJECT_DIR (the library with a stand-in chip
# library) twice: the stand-in as a target of the parent, then as the library
# file CHIP_FILE; each time checks the configure messages and runs the
# program, which reads back through the stand-in what the library wrote. The
# second configuration asks for the tests, the agent and the benchmarks too,
# and checks that those that drive the simulator are skipped, saying why.
set -euo pipefail
project=$1 chip=$2 work=$3
read -r -a options <<<"$4"

check() {
  local dir=$1 expected=$2
  shift 2
  cmake -S "$project" -B "$dir" "${options[@]}" "$@" | tee "$dir.configure.log"
  grep -q "Brevant: chip API from $expected" "$dir.configure.log" ||
    { echo "configure did not report the chip library ($expected)"; exit 1; }
  cmake --build "$dir" -j2 --target stand-in-chip
  "$dir/stand-in-chip"
}

mkdir -p "$work"
check "$work/target" "the target stand_in_chip"
check "$work/file" "the library file $chip" -DSTAND_IN_CHIP_FILE="$chip" \
  -DBREVANT_BUILD_TESTS=ON -DBREVANT_BUILD_APPS=ON -DBREVANT_BUILD_BENCHMARKS=ON
for skipped in "Brevant: the agent program and the benchmarks are skipped: they drive the chip simulator" \
               "Brevant: brevant_tests skipped: they drive the chip simulator"; do
  grep -q "$skipped" "$work/file.configure.log" || { echo "no configure message: $skipped"; exit 1; }
done
