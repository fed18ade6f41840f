// Assertions of the object framework.
//
// A broken invariant stops the process: the failing expression (and an
// optional message) is printed to stderr with the place it was raised, and the
// process aborts. Expected failures are never assertions; they are traced and
// reported to the caller.
//
//   FWK_ASSERT(count <= capacity);
//   FWK_ASSERT_MSG(slate, "Config slate for unitId:{} is not created yet!",
//   unit); FWK_ASSERT_TEXT(tableConfigSlateHas(unitId), "tableConfigSlateHas(
//   unitId )",
//                   "Config slate for unitId:{} is not created yet!", unitId);
//
// FWK_ASSERT_TEXT names the expression with an exact text, for the assertions
// whose text is part of the system's operator-facing contract (a formatter
// must not be able to change what the operator reads).
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

#include "platform/Export.h"

namespace Fwk {

// Prints "assertion failed: <expr>[: <message>] (<file>:<line> in <function>)"
// and aborts. Never returns.
[[noreturn]] MICA_PLATFORM_API void
assertionFailed(std::string_view expr, std::string_view message,
                const char *file, int line, const char *function) noexcept;

namespace detail {
template <typename... Args>
[[noreturn]] inline void assertFailFmt(std::string_view expr, const char *file,
                                       int line, const char *function,
                                       fmt::format_string<Args...> f,
                                       Args &&...args) noexcept {
  std::string msg;
  try {
    msg = fmt::format(f, std::forward<Args>(args)...);
  } catch (...) {
    msg = "<message could not be formatted>";
  }
  assertionFailed(expr, msg, file, line, function);
}
} // namespace detail

} // namespace Fwk

#define FWK_ASSERT(expr)                                                       \
  ((expr) ? static_cast<void>(0)                                               \
          : ::Fwk::assertionFailed(#expr, {}, __FILE__, __LINE__, __func__))

#define FWK_ASSERT_MSG(expr, ...)                                              \
  ((expr) ? static_cast<void>(0)                                               \
          : ::Fwk::detail::assertFailFmt(#expr, __FILE__, __LINE__, __func__,  \
                                         __VA_ARGS__))

#define FWK_ASSERT_TEXT(expr, text, ...)                                       \
  ((expr) ? static_cast<void>(0)                                               \
          : ::Fwk::detail::assertFailFmt(text, __FILE__, __LINE__, __func__,   \
                                         __VA_ARGS__))

// The same with only the exact text and no message.
#define FWK_ASSERT_NAMED(expr, text)                                           \
  ((expr) ? static_cast<void>(0)                                               \
          : ::Fwk::assertionFailed(text, {}, __FILE__, __LINE__, __func__))
