#include <velantrix/Assert.h>

#include <cstdio>
#include <cstdlib>

namespace Velantrix {

void assertionFailed(const char* expression, const char* file, unsigned int line,
                     const char* function) noexcept {
  // There is nobody left to tell that this failed.
  static_cast<void>(std::fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line,
                                 function, expression));
  static_cast<void>(std::fflush(stderr));
  std::abort();
}

}  // namespace Velantrix
