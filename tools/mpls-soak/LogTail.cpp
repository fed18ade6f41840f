#include "tools/mpls-soak/LogTail.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace MplsSoak {

namespace {

bool has(const std::string &text, const char *what) {
  return text.find(what) != std::string::npos;
}

// The number right after `prefix` in `line`, if there is one.
std::optional<std::uint64_t> numberAfter(const std::string &line,
                                         const char *prefix) {
  const auto at = line.find(prefix);
  if (at == std::string::npos) {
    return std::nullopt;
  }
  unsigned long long n = 0;
  if (std::sscanf(line.c_str() + at + std::strlen(prefix), "%llu", &n) != 1) {
    return std::nullopt;
  }
  return n;
}

} // namespace

std::vector<std::string> LogTail::readNew() {
  std::vector<std::string> lines;
  const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return lines;
  }
  char buf[65536];
  for (;;) {
    const ssize_t n = ::pread(fd, buf, sizeof buf, static_cast<off_t>(offset_));
    if (n <= 0) {
      break;
    }
    offset_ += static_cast<std::uint64_t>(n);
    partial_.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  std::size_t at = 0;
  for (auto nl = partial_.find('\n'); nl != std::string::npos;
       nl = partial_.find('\n', at)) {
    // A terminal's status line would come with carriage returns; the
    // children write to files, but a line is kept clean either way.
    std::string line = partial_.substr(at, nl - at);
    if (const auto cr = line.rfind('\r'); cr != std::string::npos) {
      line.erase(0, cr + 1);
    }
    lines.push_back(line);
    last_.push_back(line);
    if (last_.size() > kKept) {
      last_.pop_front();
    }
    at = nl + 1;
  }
  partial_.erase(0, at);
  return lines;
}

bool notable(const std::string &line) {
  if (has(line, "every change finished")) {
    return false;
  }
  for (const char *word :
       {"corrupt", "wiped", "lost", "rebuilt", "skipped", "went back",
        "new one", "failed", "full", "ahead", "refus", "not applied", "cannot",
        "beyond", "waiting for the hardware writer", "stopped by"}) {
    if (has(line, word)) {
      return true;
    }
  }
  return false;
}

std::vector<std::string> AgentState::update() {
  std::vector<std::string> out;
  for (const std::string &line : log_.readNew()) {
    if (notable(line)) {
      out.push_back(line);
    }
    if (has(line, "every change finished (")) {
      busy_ = false;
      failed_ = numberAfter(line, "every change finished (").value_or(0);
    } else if (has(line, "SIGHUP: ") && has(line, " re-read: ")) {
      ++hupsAnswered_;
      const auto w = numberAfter(line, " re-read: ");
      const auto r = numberAfter(line, " writes, ");
      lastReread_.emplace(w.value_or(0), r.value_or(0));
      if (w.value_or(0) + r.value_or(0) != 0) {
        busy_ = true;
      }
    } else if (has(line, "SIGHUP: ") && has(line, " not applied")) {
      ++hupsAnswered_;
      refused_ = line;
    } else if (has(line, "SIGHUP: the desired set is generated")) {
      ++hupsAnswered_;
    }
  }
  return out;
}

} // namespace MplsSoak
