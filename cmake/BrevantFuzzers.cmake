# BREVANT_BUILD_FUZZERS: builds the libFuzzer targets of fuzz/. It needs
# clang (libFuzzer ships with it). Every target of the tree is then compiled
# with the fuzzer's coverage instrumentation and with AddressSanitizer and
# UndefinedBehaviorSanitizer, so that a finding anywhere in the library or
# the agent stops the fuzzer with the input that caused it: a fuzz build is
# a build of its own (scripts/fuzz uses build/fuzz).
include_guard(GLOBAL)

option(BREVANT_BUILD_FUZZERS "Build the libFuzzer targets of fuzz/ (clang only)" OFF)

if(BREVANT_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR
      "BREVANT_BUILD_FUZZERS needs clang for libFuzzer, but this build uses "
      "${CMAKE_CXX_COMPILER_ID} (${CMAKE_CXX_COMPILER}). Configure a build folder of "
      "its own with -DCMAKE_CXX_COMPILER=clang++, or run scripts/fuzz.")
  endif()
  if("thread" IN_LIST BREVANT_SANITIZERS)
    message(FATAL_ERROR "BREVANT_BUILD_FUZZERS builds with AddressSanitizer, which "
                        "cannot be combined with BREVANT_SANITIZERS=thread")
  endif()
  # How the code tells libFuzzer what an input reached: "full" (the default)
  # counts edges and reports every comparison's operands, which lets the
  # fuzzer solve them; "edges" counts edges only, which slows other programs
  # of the build far less (scripts/test builds the fuzz targets beside the
  # sanitizer tests with it).
  set(BREVANT_FUZZ_COVERAGE "full" CACHE STRING "Coverage for libFuzzer: full or edges")
  if(BREVANT_FUZZ_COVERAGE STREQUAL "full")
    set(brevant_fuzz_coverage -fsanitize=fuzzer-no-link)
  elseif(BREVANT_FUZZ_COVERAGE STREQUAL "edges")
    set(brevant_fuzz_coverage -fsanitize-coverage=inline-8bit-counters,pc-table)
  else()
    message(FATAL_ERROR "BREVANT_FUZZ_COVERAGE is '${BREVANT_FUZZ_COVERAGE}': full or edges")
  endif()
  # The fuzz targets themselves add -fsanitize=fuzzer (libFuzzer's main).
  add_compile_options(${brevant_fuzz_coverage} -fsanitize=address,undefined
                      -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  message(STATUS "Brevant: building the fuzz targets (libFuzzer, address, undefined)")
endif()
