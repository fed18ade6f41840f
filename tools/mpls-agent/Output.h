// What mpls-agent says on stderr: event lines, and on a terminal one status
// line redrawn in place below them (a terminal that is not one gets the
// event lines only; the caller prints progress as plain lines instead).
//
//   MplsAgent::Output out;
//   out.line("restored 1200 entries");          // "mpls-agent: restored ..."
//   if (out.tty()) out.status("written 500/2000");
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

namespace MplsAgent {

class Output {
public:
  Output() : tty_(::isatty(STDERR_FILENO) == 1) {}
  bool tty() const noexcept { return tty_; }

  // One event line; a status line on the terminal is cleared first.
  void line(const std::string &text) {
    std::fprintf(stderr, "%smpls-agent: %s\n", clearSequence(), text.c_str());
    std::fflush(stderr);
    status_.clear();
  }
  // Redraws the status line (terminal only).
  void status(const std::string &text) {
    if (tty_ && text != status_) {
      std::fprintf(stderr, "\r\033[Kmpls-agent: %s", text.c_str());
      std::fflush(stderr);
      status_ = text;
    }
  }
  // Clears the status line, so that what follows starts on a clean line.
  void endStatus() {
    if (tty_ && !status_.empty()) {
      std::fprintf(stderr, "\r\033[K");
      std::fflush(stderr);
      status_.clear();
    }
  }

private:
  const char *clearSequence() const {
    return tty_ && !status_.empty() ? "\r\033[K" : "";
  }

  bool tty_;
  std::string status_;
};

} // namespace MplsAgent
