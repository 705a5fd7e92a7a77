# kiln_generate(): turns schema declarations into C++ sources in the build
# tree. Written together with tools/kilngen.
include_guard(GLOBAL)
