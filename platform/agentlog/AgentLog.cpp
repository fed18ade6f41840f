#include "platform/agentlog/AgentLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>

#include "platform/framework/Assert.h"
#include "platform/trace/LineText.h"

namespace AgentLog {

namespace {

constexpr std::size_t kRaisedLimit = 10000;

struct Registry {
  std::mutex mutex;
  // A deque, so that the references message() hands out stay valid while
  // other units register.
  std::deque<Message> messages; // handle id - 1
  std::deque<Raised> raised;    // oldest first, at most kRaisedLimit
  // The file of MICA_AGENTLOG_FILE, opened when first needed and reopened
  // when the variable names another file.
  std::string filePath;
  int fileFd = -1;
};

// Source units register from their static initialisers, which may run before
// this unit's own; a function-local static is built on first use whatever the
// order. It is never destroyed, so a raise from a late destructor still works.
Registry &registry() {
  static Registry &r = *new Registry;
  return r;
}

// Where a raised line goes, under the registry lock.
int outputFd(Registry &r) {
  const char *path = std::getenv("MICA_AGENTLOG_FILE");
  if (path == nullptr || *path == '\0') {
    return 2;
  }
  if (r.fileFd >= 0 && r.filePath == path) {
    return r.fileFd;
  }
  if (r.fileFd >= 0) {
    ::close(r.fileFd);
    r.fileFd = -1;
  }
  r.filePath = path;
  r.fileFd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (r.fileFd < 0) {
    const std::string warning =
        fmt::format("agentlog: cannot open MICA_AGENTLOG_FILE '{}': {}; "
                    "logging to stderr\n",
                    path, std::strerror(errno));
    Trace::detail::writeAll(2, warning.data(), warning.size());
    r.filePath.clear();
    return 2;
  }
  return r.fileFd;
}

} // namespace

Handle registerMessage(const Message &message) {
  Registry &r = registry();
  const std::lock_guard lock(r.mutex);
  r.messages.push_back(message);
  return Handle(static_cast<std::uint32_t>(r.messages.size()));
}

const Message &message(const Handle &handle) {
  Registry &r = registry();
  const std::lock_guard lock(r.mutex);
  FWK_ASSERT_MSG(handle.valid() && handle.id() <= r.messages.size(),
                 "agent log handle {} was never registered", handle.id());
  return r.messages[handle.id() - 1];
}

std::vector<Message> registered(std::string_view name) {
  Registry &r = registry();
  const std::lock_guard lock(r.mutex);
  std::vector<Message> found;
  for (const Message &m : r.messages) {
    if (m.name == name) {
      found.push_back(m);
    }
  }
  return found;
}

void raiseText(const Handle &handle, std::string_view text) {
  const Message &m = message(handle);
  char ts[Trace::detail::kTimestampSize];
  Trace::detail::formatTimestamp(Trace::detail::nowNs(), ts);
  Trace::detail::LineBuffer line;
  line.append(ts, ts + sizeof ts);
  fmt::format_to(fmt::appender(line), " %{}-{}: ", m.name, m.severity);
  Trace::detail::appendOneLine(line, text);
  line.push_back('\n');

  Registry &r = registry();
  const std::lock_guard lock(r.mutex);
  Trace::detail::writeAll(outputFd(r), line.data(), line.size());
  if (r.raised.size() >= kRaisedLimit) {
    r.raised.pop_front();
  }
  r.raised.push_back(Raised{m.name, m.severity, std::string(text)});
}

std::vector<Raised> raised() {
  Registry &r = registry();
  const std::lock_guard lock(r.mutex);
  return {r.raised.begin(), r.raised.end()};
}

std::size_t raisedCount(std::string_view name) {
  Registry &r = registry();
  const std::lock_guard lock(r.mutex);
  std::size_t n = 0;
  for (const Raised &x : r.raised) {
    n += x.name == name ? 1 : 0;
  }
  return n;
}

void raisedDelAll() {
  Registry &r = registry();
  const std::lock_guard lock(r.mutex);
  r.raised.clear();
}

} // namespace AgentLog
