"""kilngen: turns schema declarations of Kiln entities, value types and
enumerations into C++ headers and sources."""
