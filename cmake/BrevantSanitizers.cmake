# BREVANT_SANITIZERS: a CMake list of sanitizers every target of the tree is
# built and linked with, e.g. "address;undefined" or "thread". Empty (the
# default) builds without. Undefined behaviour stops the program at the first
# finding so that a test run fails on it instead of printing and going on.
include_guard(GLOBAL)

set(BREVANT_SANITIZERS "" CACHE STRING
    "Sanitizers to build with, a list such as address;undefined or thread")

if(BREVANT_SANITIZERS)
  if("thread" IN_LIST BREVANT_SANITIZERS AND "address" IN_LIST BREVANT_SANITIZERS)
    message(FATAL_ERROR "BREVANT_SANITIZERS: thread and address cannot be combined")
  endif()
  list(JOIN BREVANT_SANITIZERS "," brevant_sanitizer_list)
  set(brevant_sanitizer_flags -fsanitize=${brevant_sanitizer_list} -fno-omit-frame-pointer)
  if("undefined" IN_LIST BREVANT_SANITIZERS)
    list(APPEND brevant_sanitizer_flags -fno-sanitize-recover=undefined)
  endif()
  add_compile_options(${brevant_sanitizer_flags})
  add_link_options(${brevant_sanitizer_flags})
  message(STATUS "Brevant: building with sanitizers ${brevant_sanitizer_list}")
endif()
