#include "Kiln/Assert.h"

#include <cstdio>
#include <cstdlib>

extern "C" const char* __progname;  // glibc: the program's short name

namespace Kiln {
namespace {

constexpr int kMaxHooks = 16;
FatalHook hooks[kMaxHooks];
int hookCount = 0;

}  // namespace

void fatalHookIs(FatalHook hook) {
  for (int i = 0; i < hookCount; ++i) {
    if (hooks[i] == hook) return;
  }
  if (hookCount < kMaxHooks) hooks[hookCount++] = hook;
}

void assertionFailed(const char* expression, const char* file, unsigned line,
                     const char* function) {
  std::fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", __progname, file, line, function,
               expression);
  std::fflush(stderr);
  for (int i = 0; i < hookCount; ++i) hooks[i]();
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kiln
