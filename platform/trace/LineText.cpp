#include "platform/trace/LineText.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace Trace::detail {

namespace {

std::atomic<std::uint32_t> gPid{0};

void pidRefresh() noexcept {
  gPid.store(static_cast<std::uint32_t>(::getpid()), std::memory_order_relaxed);
}

// The cached pid must follow a fork, or the records of a child would carry
// its parent's pid.
const bool gPidAtFork = [] {
  pidRefresh();
  ::pthread_atfork(nullptr, nullptr, &pidRefresh);
  return true;
}();

void put2(char *p, int v) noexcept {
  p[0] = static_cast<char>('0' + v / 10 % 10);
  p[1] = static_cast<char>('0' + v % 10);
}

} // namespace

std::uint64_t nowNs() noexcept {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull +
         static_cast<std::uint64_t>(ts.tv_nsec);
}

void formatTimestamp(std::uint64_t ns, char (&out)[kTimestampSize]) noexcept {
  thread_local std::int64_t cachedSecond = -1;
  thread_local char cachedText[19]; // "YYYY-MM-DD HH:MM:SS"
  const auto second = static_cast<std::int64_t>(ns / 1000000000ull);
  if (second != cachedSecond) {
    const auto t = static_cast<std::time_t>(second);
    std::tm tm{};
    ::localtime_r(&t, &tm);
    const int year = tm.tm_year + 1900;
    put2(cachedText, year / 100);
    put2(cachedText + 2, year % 100);
    cachedText[4] = '-';
    put2(cachedText + 5, tm.tm_mon + 1);
    cachedText[7] = '-';
    put2(cachedText + 8, tm.tm_mday);
    cachedText[10] = ' ';
    put2(cachedText + 11, tm.tm_hour);
    cachedText[13] = ':';
    put2(cachedText + 14, tm.tm_min);
    cachedText[16] = ':';
    put2(cachedText + 17, tm.tm_sec);
    cachedSecond = second;
  }
  std::memcpy(out, cachedText, sizeof cachedText);
  out[19] = '.';
  auto micros = static_cast<std::uint32_t>(ns % 1000000000ull / 1000);
  for (int i = 25; i >= 20; --i) {
    out[i] = static_cast<char>('0' + micros % 10);
    micros /= 10;
  }
}

std::uint32_t pid() noexcept {
  (void)gPidAtFork;
  std::uint32_t p = gPid.load(std::memory_order_relaxed);
  if (p == 0) { // asked for during static initialisation, before gPidAtFork
    pidRefresh();
    p = gPid.load(std::memory_order_relaxed);
  }
  return p;
}

void appendOneLine(LineBuffer &buf, std::string_view text) {
  for (;;) {
    std::size_t i = 0;
    while (i < text.size() && text[i] != '\n' && text[i] != '\r') {
      ++i;
    }
    buf.append(text.data(), text.data() + i);
    if (i == text.size()) {
      return;
    }
    const char escaped[2] = {'\\', text[i] == '\n' ? 'n' : 'r'};
    buf.append(escaped, escaped + 2);
    text.remove_prefix(i + 1);
  }
}

void writeAll(int fd, const char *data, std::size_t size) noexcept {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

} // namespace Trace::detail
