#include "platform/trace/Trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/trace/LineText.h"
#include "platform/trace/TraceConfig.h"

namespace Trace {

namespace {

// One MICA_TRACE entry, or one maskIs(name, mask) (which acts as an entry
// after those of the environment).
struct Rule {
  std::string pattern;
  Mask mask;
  bool fromMaskIs;
};

bool matches(std::string_view pattern, std::string_view name) noexcept {
  if (!pattern.empty() && pattern.back() == '*') {
    pattern.remove_suffix(1);
    return name.substr(0, pattern.size()) == pattern;
  }
  return pattern == name;
}

std::string_view trim(std::string_view s) noexcept {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) {
    s.remove_prefix(1);
  }
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) {
    s.remove_suffix(1);
  }
  return s;
}

bool parseLevel(std::string_view s, unsigned &out) noexcept {
  if (s.empty() || s.size() > 2) {
    return false;
  }
  unsigned v = 0;
  for (const char c : s) {
    if (c < '0' || c > '9') {
      return false;
    }
    v = v * 10 + static_cast<unsigned>(c - '0');
  }
  if (v > 15) {
    return false;
  }
  out = v;
  return true;
}

// Why a pattern cannot be one, or null when it is fine.
const char *patternProblem(std::string_view pattern) noexcept {
  if (pattern.empty()) {
    return "the name pattern is empty";
  }
  const auto star = pattern.find('*');
  if (star != std::string_view::npos && star + 1 != pattern.size()) {
    return "'*' may only end a name pattern";
  }
  if (pattern.find_first_of(" \t/") != std::string_view::npos) {
    return "a name pattern holds no blank or '/'";
  }
  return nullptr;
}

void warn(std::string_view entry, const char *why) noexcept {
  detail::LineBuffer buf;
  try {
    fmt::format_to(fmt::appender(buf),
                   "trace: MICA_TRACE entry '{}' ignored: {}; expected "
                   "<name pattern>/<levels>, e.g. MplsLem*/0-3,8\n",
                   entry, why);
  } catch (...) {
    return;
  }
  detail::writeAll(2, buf.data(), buf.size());
}

// The rules of a MICA_TRACE value; entries that do not parse are reported
// and left out.
std::vector<Rule> parseRules(std::string_view text) {
  std::vector<Rule> rules;
  while (!text.empty()) {
    const auto semi = text.find(';');
    const std::string_view raw = text.substr(0, semi);
    text = semi == std::string_view::npos ? std::string_view()
                                          : text.substr(semi + 1);
    const std::string_view entry = trim(raw);
    if (entry.empty()) {
      continue; // "a;;b" and a trailing ';' are harmless
    }
    const auto slash = entry.find('/');
    if (slash == std::string_view::npos) {
      warn(entry, "no '/' between name pattern and levels");
      continue;
    }
    const std::string_view pattern = trim(entry.substr(0, slash));
    if (const char *why = patternProblem(pattern)) {
      warn(entry, why);
      continue;
    }
    Mask mask = 0;
    if (!parseLevels(entry.substr(slash + 1), mask)) {
      warn(entry, "levels are numbers or ranges from 0 to 15, \"all\" or "
                  "\"none\"");
      continue;
    }
    rules.push_back(Rule{std::string(pattern), mask, false});
  }
  return rules;
}

// The trace file is opened when the first record is written, not when it is
// configured, so a process that never traces leaves no empty file behind.
constexpr int kUnopened = -1;

struct State {
  std::mutex mutex;
  std::atomic<bool> configured{false};
  std::vector<Rule> rules;       // under mutex
  std::vector<Handle *> handles; // under mutex
  std::string filePath;          // under mutex; empty: stderr
  // Once the trace file has been opened this descriptor stays open for the
  // life of the process: a later configuration dup2()s the new file onto it,
  // so a thread still writing through it never writes to a closed or reused
  // descriptor.
  int fileFd = -1;
  std::atomic<int> outFd{2};
  std::atomic<Sink *> sink{nullptr};
};

// Never destroyed: handles are function-local statics of many modules and
// may be destroyed (and deregister) after this unit's statics are gone.
State &state() {
  static State &s = *new State;
  return s;
}

Mask maskFor(const State &s, std::string_view name) noexcept {
  Mask m = 0;
  for (const Rule &r : s.rules) {
    if (matches(r.pattern, name)) {
      m = r.mask;
    }
  }
  return m;
}

void configureLocked(State &s) {
  const char *levels = std::getenv("MICA_TRACE");
  s.rules = parseRules(levels ? levels : "");
  for (Handle *h : s.handles) {
    h->maskIs(maskFor(s, h->name()));
  }
  const char *file = std::getenv("MICA_TRACE_FILE");
  s.filePath = file ? file : "";
  s.outFd.store(s.filePath.empty() ? 2 : kUnopened, std::memory_order_release);
  detail::ringPathIs(s.filePath.empty() ? std::string() : s.filePath + ".ring");
  s.configured.store(true, std::memory_order_release);
}

void ensureConfiguredLocked(State &s) {
  if (!s.configured.load(std::memory_order_relaxed)) {
    configureLocked(s);
  }
}

int openTraceFile(State &s) noexcept {
  const std::lock_guard lock(s.mutex);
  const int current = s.outFd.load(std::memory_order_acquire);
  if (current != kUnopened) {
    return current;
  }
  const int fd = ::open(s.filePath.c_str(),
                        O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    const int err = errno;
    detail::LineBuffer buf;
    try {
      fmt::format_to(fmt::appender(buf),
                     "trace: cannot open MICA_TRACE_FILE '{}': {}; tracing to "
                     "stderr\n",
                     s.filePath, std::strerror(err));
      detail::writeAll(2, buf.data(), buf.size());
    } catch (...) {
    }
    s.outFd.store(2, std::memory_order_release);
    return 2;
  }
  if (s.fileFd < 0) {
    s.fileFd = fd;
  } else {
    ::dup2(fd, s.fileFd);
    ::close(fd);
  }
  s.outFd.store(s.fileFd, std::memory_order_release);
  return s.fileFd;
}

void appendRecord(detail::LineBuffer &buf, const Handle &handle, Level level,
                  std::string_view sourceUnit, std::string_view function,
                  int line, std::string_view className,
                  std::string_view message) {
  char ts[detail::kTimestampSize];
  detail::formatTimestamp(detail::nowNs(), ts);
  buf.append(ts, ts + sizeof ts);
  buf.push_back(' ');
  const fmt::format_int pid(detail::pid());
  buf.append(pid.data(), pid.data() + pid.size());
  buf.push_back(' ');
  // Empty fields would shift the columns an operator greps by.
  const std::string_view name =
      handle.name().empty() ? std::string_view("-") : handle.name();
  buf.append(name.data(), name.data() + name.size());
  buf.push_back(' ');
  const fmt::format_int lvl(level);
  buf.append(lvl.data(), lvl.data() + lvl.size());
  buf.push_back(' ');
  if (!sourceUnit.empty()) {
    buf.append(sourceUnit.data(), sourceUnit.data() + sourceUnit.size());
    buf.push_back(':');
  }
  buf.append(function.data(), function.data() + function.size());
  buf.push_back(':');
  const fmt::format_int ln(line);
  buf.append(ln.data(), ln.data() + ln.size());
  buf.push_back(' ');
  if (!className.empty()) {
    buf.append(className.data(), className.data() + className.size());
    buf.push_back(':');
    buf.push_back(' ');
  }
  detail::appendOneLine(buf, message);
  buf.push_back('\n');
}

} // namespace

namespace detail {

void ensureConfigured() noexcept {
  State &s = state();
  if (!s.configured.load(std::memory_order_acquire)) {
    const std::lock_guard lock(s.mutex);
    ensureConfiguredLocked(s);
  }
}

} // namespace detail

Handle::Handle(std::string_view name, bool flag) : name_(name), flag_(flag) {
  State &s = state();
  const std::lock_guard lock(s.mutex);
  ensureConfiguredLocked(s);
  mask_.store(maskFor(s, name_), std::memory_order_relaxed);
  s.handles.push_back(this);
}

Handle::~Handle() {
  State &s = state();
  const std::lock_guard lock(s.mutex);
  const auto it = std::find(s.handles.begin(), s.handles.end(), this);
  if (it != s.handles.end()) {
    s.handles.erase(it);
  }
}

void maskIs(std::string_view name, Mask mask) {
  State &s = state();
  const std::lock_guard lock(s.mutex);
  ensureConfiguredLocked(s);
  std::erase_if(s.rules, [name](const Rule &r) {
    return r.fromMaskIs && r.pattern == name;
  });
  s.rules.push_back(Rule{std::string(name), mask, true});
  for (Handle *h : s.handles) {
    if (matches(name, h->name())) {
      h->maskIs(mask);
    }
  }
}

void configureFromEnvironment() {
  State &s = state();
  const std::lock_guard lock(s.mutex);
  configureLocked(s);
}

bool parseLevels(std::string_view text, Mask &out) {
  text = trim(text);
  if (text == "all") {
    out = 0xffff;
    return true;
  }
  if (text == "none") {
    out = 0;
    return true;
  }
  if (text.empty()) {
    return false;
  }
  Mask m = 0;
  while (true) {
    const auto comma = text.find(',');
    const std::string_view item = trim(text.substr(0, comma));
    const auto dash = item.find('-');
    unsigned lo = 0;
    unsigned hi = 0;
    if (dash == std::string_view::npos) {
      if (!parseLevel(item, lo)) {
        return false;
      }
      hi = lo;
    } else if (!parseLevel(trim(item.substr(0, dash)), lo) ||
               !parseLevel(trim(item.substr(dash + 1)), hi) || lo > hi) {
      return false;
    }
    for (unsigned l = lo; l <= hi; ++l) {
      m = static_cast<Mask>(m | (1u << l));
    }
    if (comma == std::string_view::npos) {
      break;
    }
    text.remove_prefix(comma + 1);
  }
  out = m;
  return true;
}

Sink::~Sink() = default;

void sinkIs(Sink *sink) {
  state().sink.store(sink, std::memory_order_release);
}

void emit(const Handle &handle, Level level, std::string_view sourceUnit,
          std::string_view function, int line, std::string_view className,
          std::string_view message) noexcept {
  State &s = state();
  if (Sink *sink = s.sink.load(std::memory_order_acquire)) {
    const Record record{&handle, level,     sourceUnit, function,
                        line,    className, message};
    try {
      sink->write(record);
    } catch (...) {
      // A sink is test code; what it throws must not escape a trace.
    }
    return;
  }
  int fd = s.outFd.load(std::memory_order_acquire);
  if (fd == kUnopened) {
    fd = openTraceFile(s);
  }
  detail::LineBuffer buf;
  try {
    appendRecord(buf, handle, level, sourceUnit, function, line, className,
                 message);
  } catch (...) {
    return; // out of memory for a very long record: drop it
  }
  detail::writeAll(fd, buf.data(), buf.size());
}

void formatFailed(const Handle &handle, std::string_view sourceUnit,
                  std::string_view function, int line,
                  const char *what) noexcept {
  char text[1024];
  const int n = std::snprintf(
      text, sizeof text,
      "trace: a formatter failed in the trace of %s at %.*s:%.*s:%d: %s; "
      "traces must not throw, stopping\n",
      handle.name().c_str(), static_cast<int>(sourceUnit.size()),
      sourceUnit.data(), static_cast<int>(function.size()), function.data(),
      line, what ? what : "");
  if (n > 0) {
    detail::writeAll(2, text,
                     std::min(static_cast<std::size_t>(n), sizeof text - 1));
  }
  std::abort();
}

} // namespace Trace
