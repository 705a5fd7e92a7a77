#!/usr/bin/env bash
# install_and_consume.sh BUILD_DIR EXAMPLES_DIR WORK_DIR VERSION "CMAKE OPTIONS"
#
# Installs BUILD_DIR into WORK_DIR/prefix, checks the installed libraries
# (SONAME from the version, run path $ORIGIN), builds EXAMPLES_DIR against the
# installed copy (find_package(Brevant 0.x REQUIRED), kiln_generate from the
# package) and runs every example and the installed agent with no
# LD_LIBRARY_PATH.
set -euo pipefail
build=$1 examples=$2 work=$3 version=$4
read -r -a options <<<"$5"
unset LD_LIBRARY_PATH
soversion=$(echo "$version" | cut -d. -f1-2)
[ "${version%%.*}" = 0 ] || soversion=${version%%.*}

rm -rf "$work/prefix"
cmake --install "$build" --prefix "$work/prefix"
prefix=$work/prefix
libdir=$(dirname "$(find "$prefix" -name "libbrevant-brevant.so.$version" | head -1)")
[ -n "$libdir" ] || { echo "no libbrevant-brevant.so.$version installed"; exit 1; }

for library in "$libdir"/libbrevant-*.so."$version"; do
  name=$(basename "$library" ".$version")
  dynamic=$(readelf -d "$library")
  grep -q "Library soname: \[$name.$soversion\]" <<<"$dynamic" ||
    { echo "$library: SONAME is not $name.$soversion"; exit 1; }
  grep -q 'R.*PATH.*\[\$ORIGIN' <<<"$dynamic" ||
    { echo "$library: no \$ORIGIN run path"; exit 1; }
  [ -L "$libdir/$name.$soversion" ] && [ -L "$libdir/$name" ] ||
    { echo "$library: missing the link $name.$soversion or $name"; exit 1; }
done
# The headers, source and generated, once each; the package files; the
# generator.
for file in include/Brevant/Brevant.h include/Brevant/NextHopManager.h include/Kiln/Lock.h \
            include/FmApi/FmApi.h share/brevant/kilngen/kilngen.py; do
  [ -f "$prefix/$file" ] || { echo "not installed: $file"; exit 1; }
done
for file in BrevantConfig.cmake BrevantConfigVersion.cmake BrevantTargets.cmake KilnGenerate.cmake; do
  [ -f "$libdir/cmake/Brevant/$file" ] || { echo "not installed: cmake/Brevant/$file"; exit 1; }
done

# Read whole before it is searched (grep -q may stop reading early, which
# pipefail would count as a failure of the program).
printed=$("$prefix/bin/brevant-agent" --version)
grep -qx "brevant-agent $version" <<<"$printed" ||
  { echo "installed brevant-agent --version does not print $version"; exit 1; }

cmake -S "$examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" "${options[@]}"
cmake --build "$work/examples" -j2
ctest --test-dir "$work/examples" --output-on-failure
