// Tells memory checkers which bytes of the runtime's own pools a program may
// touch. A slot pool recycles memory without the general heap, so neither
// AddressSanitizer nor valgrind would otherwise see a read or write through a
// pointer to a released entity: the pool marks a released slot as
// inaccessible and a slot it hands out as accessible but undefined.
//
// Under AddressSanitizer (clang's __has_feature(address_sanitizer), g++'s
// __SANITIZE_ADDRESS__) the marks poison and unpoison the bytes; with
// valgrind's client-request header available they are memcheck requests,
// which cost a few instructions when the program runs outside valgrind.
// Without either, every function here is empty.
#pragma once

#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KILN_ADDRESS_SANITIZER 1
#endif
#endif
#if !defined(KILN_ADDRESS_SANITIZER) && defined(__SANITIZE_ADDRESS__)
#define KILN_ADDRESS_SANITIZER 1
#endif

#if defined(KILN_ADDRESS_SANITIZER)
#include <sanitizer/asan_interface.h>
#endif

#if defined(__has_include)
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#define KILN_VALGRIND_REQUESTS 1
#endif
#endif

namespace Kiln {

#if defined(KILN_VALGRIND_REQUESTS)
// Whether the process runs under valgrind, asked once: a request costs a
// dozen instructions with a serial chain of rotations, and the pools make
// three for every object they hand out and take back.
inline bool runningOnValgrind() noexcept {
  static const bool running = RUNNING_ON_VALGRIND != 0;
  return running;
}
#endif

// True when the runtime is built with AddressSanitizer.
#if defined(KILN_ADDRESS_SANITIZER)
inline constexpr bool addressSanitizerBuild = true;
#else
inline constexpr bool addressSanitizerBuild = false;
#endif

// Whether the marks below are seen by anyone: a build with AddressSanitizer,
// or a process under valgrind. When not, a caller may skip them.
inline bool memoryChecked() noexcept {
#if defined(KILN_VALGRIND_REQUESTS)
  if (runningOnValgrind()) return true;
#endif
  return addressSanitizerBuild;
}

// The bytes may not be read or written until marked again.
inline void memoryNoAccessIs(void* memory, std::size_t bytes) noexcept {
#if defined(KILN_ADDRESS_SANITIZER)
  ASAN_POISON_MEMORY_REGION(memory, bytes);
#endif
#if defined(KILN_VALGRIND_REQUESTS)
  if (runningOnValgrind()) (void)VALGRIND_MAKE_MEM_NOACCESS(memory, bytes);
#endif
  (void)memory;
  (void)bytes;
}

// The bytes may be written, and read once written.
inline void memoryUndefinedIs(void* memory, std::size_t bytes) noexcept {
#if defined(KILN_ADDRESS_SANITIZER)
  ASAN_UNPOISON_MEMORY_REGION(memory, bytes);
#endif
#if defined(KILN_VALGRIND_REQUESTS)
  if (runningOnValgrind()) (void)VALGRIND_MAKE_MEM_UNDEFINED(memory, bytes);
#endif
  (void)memory;
  (void)bytes;
}

// The bytes may be read and written and hold what was last written to them
// (the pool's own link in a released slot).
inline void memoryDefinedIs(void* memory, std::size_t bytes) noexcept {
#if defined(KILN_ADDRESS_SANITIZER)
  ASAN_UNPOISON_MEMORY_REGION(memory, bytes);
#endif
#if defined(KILN_VALGRIND_REQUESTS)
  if (runningOnValgrind()) (void)VALGRIND_MAKE_MEM_DEFINED(memory, bytes);
#endif
  (void)memory;
  (void)bytes;
}

}  // namespace Kiln
