// The trace facility: developer traces by handle and level.
//
// Every class that traces owns one handle, created once on first use (a
// function-local static) with its name. A handle carries a 16-bit level mask;
// bit N enables level N. The emitting macro tests the bit before any argument
// is evaluated or formatted, so a disabled trace costs one load and one test:
//
//   Trace::Handle &th() {
//     static Trace::Handle h("MplsIsem2EntryLog");
//     return h;
//   }
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
// name, optionally ending in '*', and levels are numbers and ranges (0-15),
// "all" or "none"; the last matching entry wins. An entry that does not parse
// is reported once on stderr and ignored; the others still apply. Trace
// records go to stderr, or to the file named by MICA_TRACE_FILE (appended,
// one line per record, each line one write(2) so that processes sharing the
// file never interleave within a line):
//
// clang-format off
//   2026-11-22 03:04:05.123456 12345 MplsIsem2SwTable 8 MicaMpls/MplsIsem2SwTable:entryWrite:123 MplsIsem2SwTable:  key: ...
// clang-format on
//
// local time with microseconds, pid, handle name, level, source unit,
// function and line, class name (left out when empty), then the message. A
// newline inside a message is written as "\n" so a record stays one line.
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
//
// The ring file is memory-mapped, so what was written survives a crash of the
// process; its layout and the rules for processes sharing it are in
// RingFormat.h. Trace::readRing() (and the tools) render it back.
//
// Threads: handles, emit, the sink and the ring may be used from any thread.
// Traces never throw; a formatter that throws ends the process with a message
// naming the trace (formatFailed).
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <cstdint>
#include <exception>
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
// It acts as one more MICA_TRACE entry after the others, so a name may also
// be a pattern ending in '*'; a later maskIs of the same name replaces it.
MICA_PLATFORM_API void maskIs(std::string_view name, Mask mask);
// Re-reads MICA_TRACE / MICA_TRACE_FILE (for tests and tools that change
// them at run time) and applies them to every handle. Masks set by
// maskIs(name, mask) before are forgotten: the environment is the whole
// configuration again.
MICA_PLATFORM_API void configureFromEnvironment();
// Parses a MICA_TRACE level list ("0-3,8", "all", "none"); false when it is
// not one (out is then left as it was).
MICA_PLATFORM_API bool parseLevels(std::string_view text, Mask &out);

// Where records go. A record sink may be installed by tests; null restores
// the configured one (stderr or MICA_TRACE_FILE). The views of a Record are
// valid only during Sink::write. REQUIRES: an installed sink stays alive until
// it has been replaced and no thread is still inside a trace call.
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

// Ends the process after a formatter threw inside a trace: prints what threw
// and where the trace is, then aborts. Never returns.
[[noreturn]] MICA_PLATFORM_API void
formatFailed(const Handle &handle, std::string_view sourceUnit,
             std::string_view function, int line, const char *what) noexcept;

// Out of line and cold: a call site keeps only its level test inline, and
// the formatting (with its buffer on the stack) stays out of the hot paths.
template <typename... Args>
[[gnu::noinline, gnu::cold]] void
emitf(const Handle &handle, Level level, std::string_view sourceUnit,
      std::string_view function, int line, std::string_view className,
      fmt::format_string<Args...> format, Args &&...args) noexcept {
  // Traces run in no-throw context: a failing formatter ends the process,
  // saying which trace it was. The message is formatted on the stack unless
  // it is longer than the buffer's inline size.
  fmt::memory_buffer buf;
  try {
    fmt::format_to(fmt::appender(buf), format, std::forward<Args>(args)...);
  } catch (const std::exception &e) {
    formatFailed(handle, sourceUnit, function, line, e.what());
  } catch (...) {
    formatFailed(handle, sourceUnit, function, line, "unknown exception");
  }
  emit(handle, level, sourceUnit, function, line, className,
       std::string_view(buf.data(), buf.size()));
}

// The bare class name of T (no namespace, no template arguments), computed
// at compile time: the handle name of generic code instantiated for T.
//   bareTypeName<MicaMpls::MplsIsem2SwTable>()      == "MplsIsem2SwTable"
//   bareTypeName<Asic::Table<MicaMpls::Key>>()      == "Table"
//   bareTypeName<Asic::Table<MicaMpls::Key>::Row>() == "Row"
template <typename T> constexpr std::string_view bareTypeName() noexcept {
  std::string_view p = __PRETTY_FUNCTION__;
  // g++: "... [with T = Ns::Name; std::string_view = ...]"
  // clang: "... [T = Ns::Name]"
  const auto at = p.find("T = ");
  if (at == std::string_view::npos) {
    return p;
  }
  p.remove_prefix(at + 4);
  // The type ends at the first ';' or ']' outside template arguments. Its
  // bare name starts after the last "::" (or the space after "const") outside
  // template arguments, so that a class nested in a template instance,
  // Outer<int>::Inner, is "Inner".
  std::size_t start = 0;
  std::size_t end = 0;
  int depth = 0;
  for (; end < p.size(); ++end) {
    const char c = p[end];
    if (c == '<') {
      ++depth;
    } else if (c == '>') {
      --depth;
    } else if (depth == 0) {
      if (c == ';' || c == ']') {
        break;
      }
      if (c == ':' && end + 1 < p.size() && p[end + 1] == ':') {
        start = end + 2;
        ++end;
      } else if (c == ' ') {
        start = end + 1;
      }
    }
  }
  p = p.substr(start, end - start);
  if (const auto lt = p.find('<'); lt != std::string_view::npos) {
    p = p.substr(0, lt);
  }
  return p;
}

// The handle of generic code instantiated for T, named after T. Forced
// inline: a table's operations check it about a dozen times per change, and
// the compiler otherwise keeps it out of line for its static's guard.
template <typename T> [[gnu::always_inline]] inline Handle &handleOf() {
  static Handle h(bareTypeName<T>());
  return h;
}

// ---- Always-on message ring ----

struct MessageDescriptor {
  std::uint32_t id; // 0 when it could not be registered (the table is full)
};
// Registers a message kind. argTypes holds one type code per argument. The
// same descriptor registered again (another module, another call) gets the
// same id. A descriptor is registered whether or not a trace file is
// configured, so a call site whose first use came before the trace file was
// configured still reaches the ring afterwards.
MICA_PLATFORM_API MessageDescriptor registerMessage(std::string_view sourceUnit,
                                                    int line,
                                                    std::string_view className,
                                                    std::string_view function,
                                                    std::string_view format,
                                                    std::string_view argTypes);
// Appends one message with integer arguments (at most 4 are kept) to the
// ring; does nothing when no trace file is configured.
MICA_PLATFORM_API void ringWrite(const MessageDescriptor &descriptor,
                                 const std::int64_t *args,
                                 std::size_t count) noexcept;

// One message read back from the ring, rendered.
struct RingMessage {
  std::uint64_t timeNs;
  std::string text; // the format rendered with the arguments
  std::uint32_t pid = 0;
  std::string sourceUnit;
  std::string className;
  std::string function;
  int line = 0;
};
// The messages in a ring file, oldest first (for tools and tests). A missing,
// truncated or corrupt file yields the messages that can still be read (none
// when the header is unusable); it never throws for what the file holds.
MICA_PLATFORM_API std::vector<RingMessage> readRing(const std::string &path);

} // namespace Trace

#define MICA_TRACE(handle, level, sourceUnit, className, ...)                  \
  do {                                                                         \
    const ::Trace::Handle &mica_trace_h_ = (handle);                           \
    if (mica_trace_h_.enabled(level)) [[unlikely]] {                           \
      ::Trace::emitf(mica_trace_h_, (level), (sourceUnit), __func__, __LINE__, \
                     (className), __VA_ARGS__);                                \
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
