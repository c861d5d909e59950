#include "framework/UloAssert.h"

#include <cstdio>
#include <cstdlib>

namespace Ulo {

void assertFailed(char const* expression, char const* file, int line,
                  char const* function) noexcept {
   // One fprintf so that the line is not interleaved with other output.
   std::fprintf(stderr, "uloAssert failed: %s\n  at %s:%d in %s\n", expression, file, line,
                function);
   std::fflush(stderr);
   std::abort();
}

} // namespace Ulo
