// The agent log: registered messages for the operator.
//
// Conditions an operator must see are not traces: they are registered
// messages with a name, a printf-style format, an explanation, a flag and a
// severity, raised by name. A source unit registers its messages when the
// library is loaded and raises them through the handles it got:
//
//   static const AgentLog::Handle kError = AgentLog::registerMessage(
//       {"HW_ABSTRACTION_ERROR",
//        "Hardware abstraction error: unable to load item: %s",
//        "Hardware abstraction error: unable to load some persistent items. "
//        "Some agents will be restarted",
//        1, 3});
//   AgentLog::raise(kError, "entryLog::MplsIsem2");
//
// Several source units may register the same message; each gets a handle of
// its own and raising through any of them is the same message.
//
// Raised messages go to stderr, or to the file named by MICA_AGENTLOG_FILE,
// one line each: "<time> %<NAME>-<severity>: <formatted text>". The facility
// also keeps what was raised in memory (raised(), raisedCount()) so tests and
// the inspector can ask.
#pragma once

#include <fmt/printf.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Export.h"

namespace AgentLog {

// A registration record: name, format, explanation, flag, severity.
struct Message {
  std::string name;
  std::string format;
  std::string explanation;
  std::uint8_t flag = 0;
  int severity = 0;
};

class Handle {
public:
  Handle() = default;
  std::uint32_t id() const noexcept { return id_; }
  bool valid() const noexcept { return id_ != 0; }

private:
  friend MICA_PLATFORM_API Handle registerMessage(const Message &);
  explicit Handle(std::uint32_t id) : id_(id) {}
  std::uint32_t id_ = 0;
};

MICA_PLATFORM_API Handle registerMessage(const Message &message);
// The registration record of a handle.
MICA_PLATFORM_API const Message &message(const Handle &handle);
// Every registration record under a name (one per registering unit).
MICA_PLATFORM_API std::vector<Message> registered(std::string_view name);

// Raises a message with its text already formatted.
MICA_PLATFORM_API void raiseText(const Handle &handle, std::string_view text);

// Raises a message, formatting its registered printf-style format with the
// arguments.
template <typename... Args> void raise(const Handle &handle, Args &&...args) {
  raiseText(handle, fmt::sprintf(message(handle).format,
                                 std::forward<Args>(args)...));
}

struct Raised {
  std::string name;
  int severity;
  std::string text;
};
// Messages raised so far in this process (oldest first; the oldest are
// dropped past 10,000).
MICA_PLATFORM_API std::vector<Raised> raised();
MICA_PLATFORM_API std::size_t raisedCount(std::string_view name);
MICA_PLATFORM_API void raisedDelAll();

} // namespace AgentLog
