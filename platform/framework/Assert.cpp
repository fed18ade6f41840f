#include "platform/framework/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Fwk {

void assertionFailed(std::string_view expr, std::string_view message,
                     const char *file, int line, const char *function) noexcept {
  // stderr is unbuffered; one fprintf keeps the line together when several
  // processes share the terminal.
  if (message.empty()) {
    std::fprintf(stderr, "assertion failed: %.*s (%s:%d in %s)\n",
                 static_cast<int>(expr.size()), expr.data(), file, line,
                 function);
  } else {
    std::fprintf(stderr, "assertion failed: %.*s: %.*s (%s:%d in %s)\n",
                 static_cast<int>(expr.size()), expr.data(),
                 static_cast<int>(message.size()), message.data(), file, line,
                 function);
  }
  std::abort();
}

} // namespace Fwk
