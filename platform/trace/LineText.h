// Pieces of the text lines that the trace facility and the agent log write:
// timestamps, the cached pid, escaping and the one-write output rule.
//
// Internal to libMicaPlatform; users include Trace.h or AgentLog.h.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Trace::detail {

// Nanoseconds since the epoch (CLOCK_REALTIME).
std::uint64_t nowNs() noexcept;

// "YYYY-MM-DD HH:MM:SS.uuuuuu" in local time: kTimestampSize characters.
// The date and time of the last second seen are cached per thread, so that a
// burst of records converts the calendar time once per second.
inline constexpr std::size_t kTimestampSize = 26;
void formatTimestamp(std::uint64_t ns, char (&out)[kTimestampSize]) noexcept;

// The pid of this process, kept up to date across fork().
std::uint32_t pid() noexcept;

// A line being built on the stack; records longer than its inline size
// spill to the heap.
using LineBuffer = fmt::basic_memory_buffer<char, 1024>;

// Appends text, writing a newline or carriage return as "\n" / "\r" so that
// a record can never span two lines of the file.
void appendOneLine(LineBuffer &buf, std::string_view text);

// Writes the whole buffer with one write(2) (repeated only after an
// interruption or a short write, which regular files do not do short of a
// full disk). With O_APPEND this keeps a line in one piece when several
// processes append to one file. Errors are ignored: a trace that cannot be
// written must not disturb the caller.
void writeAll(int fd, const char *data, std::size_t size) noexcept;

} // namespace Trace::detail
