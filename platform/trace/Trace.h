// The trace facility: developer traces by handle and level.
//
// Every class that traces owns one handle, created once on first use (a
// function-local static) with its name. A handle carries a 16-bit level mask;
// bit N enables level N. The emitting macro tests the bit before any argument
// is evaluated or formatted, so a disabled trace costs one load and one test:
//
//   Trace::Handle &th() { static Trace::Handle h("MplsIsem2EntryLog"); return h; }
//   MICA_TRACE(th(), 8, "MicaMpls/MplsIsem2EntryLog", "MplsIsem2EntryLog",
//              " unitId:{}, logVersion: {}", unitId, logVersion);
//
// A trace record carries, in order: the handle, the level, the source unit,
// the function name, the line, the class name, the format string (fmt
// syntax) and the arguments.
//
// Levels are set at run time from the environment variable MICA_TRACE, read
// when a handle is created:
//
//   MICA_TRACE="MplsIsem2SwTable/0-3,8;MplsLem*/all;*/1"
//
// a ';'-separated list of <name pattern>/<levels>, where a pattern is a handle
// name, optionally ending in '*', and levels are numbers and ranges (0-15) or
// "all"; the last matching entry wins. Trace records go to stderr, or to the
// file named by MICA_TRACE_FILE (appended, one line per record).
//
// Levels in use: 1 a failed operation, 2 lifecycle milestones, 3 decisions
// worth seeing, 6 mark-and-sweep results, 8 entry into an operation with its
// arguments, 9 inner steps of loops.
//
// The always-on message ring keeps the last messages of a few important
// events in a file beside the trace file (<MICA_TRACE_FILE>.ring), whatever
// the levels; it is written only when a trace file is configured. Each
// message kind has a descriptor registered on first use (source unit, line,
// class name, function, format string and one type code per argument, "i"
// for an integer):
//
//   MICA_TRACE_RING("MicaMpls/MplsIsem2SwTable", "MplsIsem2SwTable",
//                   "Swept {} entries", count);
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Export.h"

namespace Trace {

using Level = std::uint16_t;
using Mask = std::uint16_t;

class MICA_PLATFORM_API Handle {
public:
  // Registers the handle under its name and takes its mask from MICA_TRACE.
  explicit Handle(std::string_view name, bool flag = false);
  ~Handle();
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;

  const std::string &name() const noexcept { return name_; }
  bool flag() const noexcept { return flag_; }

  bool enabled(Level level) const noexcept {
    return level < 16 &&
           ((mask_.load(std::memory_order_relaxed) >> level) & 1u) != 0;
  }
  Mask mask() const noexcept { return mask_.load(std::memory_order_relaxed); }
  // Sets the mask of this handle only; see maskIs(name, mask) for all
  // handles of a name.
  void maskIs(Mask mask) noexcept {
    mask_.store(mask, std::memory_order_relaxed);
  }

private:
  std::string name_;
  bool flag_;
  std::atomic<Mask> mask_{0};
};

// Sets the mask of every handle of that name, now and when created later
// (a class template instantiated in several modules has a handle in each).
MICA_PLATFORM_API void maskIs(std::string_view name, Mask mask);
// Re-reads MICA_TRACE / MICA_TRACE_FILE (for tests and tools that change
// them at run time) and applies them to every handle.
MICA_PLATFORM_API void configureFromEnvironment();
// Parses a MICA_TRACE level list ("0-3,8", "all"); false when it is not one.
MICA_PLATFORM_API bool parseLevels(std::string_view text, Mask &out);

// Where records go. A record sink may be installed by tests; null restores
// the configured one (stderr or MICA_TRACE_FILE).
struct Record {
  const Handle *handle;
  Level level;
  std::string_view sourceUnit;
  std::string_view function;
  int line;
  std::string_view className;
  std::string_view message; // formatted
};
class MICA_PLATFORM_API Sink {
public:
  virtual ~Sink();
  virtual void write(const Record &record) = 0;
};
MICA_PLATFORM_API void sinkIs(Sink *sink);

// Writes one record. Called only after the level test passed.
MICA_PLATFORM_API void emit(const Handle &handle, Level level,
                            std::string_view sourceUnit,
                            std::string_view function, int line,
                            std::string_view className,
                            std::string_view message) noexcept;

template <typename... Args>
void emitf(const Handle &handle, Level level, std::string_view sourceUnit,
           std::string_view function, int line, std::string_view className,
           fmt::format_string<Args...> format, Args &&...args) noexcept {
  // Traces run in no-throw context: a failing formatter ends the process.
  fmt::memory_buffer buf;
  fmt::format_to(std::back_inserter(buf), format, std::forward<Args>(args)...);
  emit(handle, level, sourceUnit, function, line, className,
       std::string_view(buf.data(), buf.size()));
}

// The bare class name of T (no namespace, no template arguments), computed
// at compile time: the handle name of generic code instantiated for T.
template <typename T> constexpr std::string_view bareTypeName() noexcept {
  std::string_view p = __PRETTY_FUNCTION__;
  // g++: "... [with T = Ns::Name; std::string_view = ...]"
  // clang: "... [T = Ns::Name]"
  const auto at = p.find("T = ");
  if (at == std::string_view::npos) {
    return p;
  }
  p.remove_prefix(at + 4);
  std::size_t end = 0;
  int depth = 0;
  for (; end < p.size(); ++end) {
    const char c = p[end];
    if (c == '<') {
      ++depth;
    } else if (c == '>') {
      --depth;
    } else if (depth == 0 && (c == ';' || c == ']')) {
      break;
    }
  }
  p = p.substr(0, end);
  if (const auto lt = p.find('<'); lt != std::string_view::npos) {
    p = p.substr(0, lt);
  }
  if (const auto colons = p.rfind("::"); colons != std::string_view::npos) {
    p.remove_prefix(colons + 2);
  }
  return p;
}

// The handle of generic code instantiated for T, named after T.
template <typename T> Handle &handleOf() {
  static Handle h(bareTypeName<T>());
  return h;
}

// ---- Always-on message ring ----

struct MessageDescriptor {
  std::uint32_t id; // 0 when the ring is not written (no trace file)
};
// Registers a message kind. argTypes holds one type code per argument.
MICA_PLATFORM_API MessageDescriptor
registerMessage(std::string_view sourceUnit, int line,
                std::string_view className, std::string_view function,
                std::string_view format, std::string_view argTypes);
// Appends one message with integer arguments to the ring.
MICA_PLATFORM_API void ringWrite(const MessageDescriptor &descriptor,
                                 const std::int64_t *args,
                                 std::size_t count) noexcept;

// One message read back from the ring, rendered.
struct RingMessage {
  std::uint64_t timeNs;
  std::string text;
};
// The messages in a ring file, oldest first (for tools and tests).
MICA_PLATFORM_API std::vector<RingMessage> readRing(const std::string &path);

} // namespace Trace

#define MICA_TRACE(handle, level, sourceUnit, className, ...)                  \
  do {                                                                         \
    const ::Trace::Handle &mica_trace_h_ = (handle);                           \
    if (mica_trace_h_.enabled(level)) [[unlikely]] {                           \
      ::Trace::emitf(mica_trace_h_, (level), (sourceUnit), __func__,           \
                     __LINE__, (className), __VA_ARGS__);                      \
    }                                                                          \
  } while (0)

// Records one message with one integer argument in the always-on ring.
#define MICA_TRACE_RING(sourceUnit, className, format, intArg)                 \
  do {                                                                         \
    static const ::Trace::MessageDescriptor mica_ring_d_ =                     \
        ::Trace::registerMessage((sourceUnit), __LINE__, (className),          \
                                 __func__, (format), "i");                     \
    const std::int64_t mica_ring_a_ = static_cast<std::int64_t>(intArg);       \
    ::Trace::ringWrite(mica_ring_d_, &mica_ring_a_, 1);                        \
  } while (0)
