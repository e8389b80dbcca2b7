#include <velantrix/Assert.h>

#include <cstdio>
#include <cstdlib>

namespace Velantrix {

void assertionFailed(const char* expression, const char* file, unsigned int line,
                     const char* function) noexcept {
  std::fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line, function, expression);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Velantrix
