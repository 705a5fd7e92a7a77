// Assertions for broken invariants. A failed assertion always stops the
// process (NDEBUG does not disable it): the message names the expression as
// the preprocessor expands it (so NULL reads "__null" with g++), the file, the
// line and the function; registered fatal hooks (such as the Flashlog ring
// dump) run first, then the process aborts.
#pragma once

#define KILN_ASSERT_TEXT(expr) #expr

// Stops the process unless expr holds. The message reads
//   <program>: <file>:<line>: <function>: Assertion `<expr>' failed.
#define KILN_ASSERT(expr)     \
  ((expr)                     \
       ? static_cast<void>(0) \
       : ::Kiln::assertionFailed(KILN_ASSERT_TEXT(expr), __FILE__, __LINE__, __PRETTY_FUNCTION__))

namespace Kiln {

// Writes the assertion message to stderr, runs the fatal hooks in the order
// they were added, and aborts. Never returns.
[[noreturn]] void assertionFailed(const char* expression, const char* file, unsigned line,
                                  const char* function);

// A function run when the process stops on a fatal error, before abort().
typedef void (*FatalHook)();

// Adds a hook; adding the same hook twice keeps one. Up to 16 hooks.
void fatalHookIs(FatalHook hook);

}  // namespace Kiln
