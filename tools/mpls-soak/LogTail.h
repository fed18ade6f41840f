// Following what a child writes to its stderr file, line by line, and what
// the agent's lines say about its state.
//
//   MplsSoak::LogTail hwLog(dir + "/hw.err");
//   for (const auto &line : hwLog.readNew()) ...    // complete lines only
//
//   MplsSoak::AgentState agent(dir + "/agent.err");
//   agent.hupSent();                 // a SIGHUP went to the agent
//   while (!agent.atRest()) { agent.update(); sleep(); }
//
// The agent (mpls-agent --stay) says "every change finished (N failed);
// staying..." each time it has written everything it was asked and the
// hardware writer has confirmed all of it, and "SIGHUP: FILE re-read: W
// writes, R removes" when it takes a SIGHUP; a re-read with changes makes
// it busy again until the next "every change finished". It never says
// "finished" for a re-read without changes: it was at rest and stays.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace MplsSoak {

class LogTail {
public:
  explicit LogTail(std::string path) : path_(std::move(path)) {}

  const std::string &path() const noexcept { return path_; }
  // The complete lines written since the last call.
  std::vector<std::string> readNew();
  // The last lines read (at most `kKept`), oldest first.
  const std::deque<std::string> &last() const noexcept { return last_; }

  static constexpr std::size_t kKept = 12;

private:
  std::string path_;
  std::uint64_t offset_ = 0;
  std::string partial_;
  std::deque<std::string> last_;
};

// Whether a line of the agent's or the hardware writer's stderr tells of
// something out of the ordinary (corruption, a rebuild, skipped versions, a
// failure): such lines are shown with a round's report.
bool notable(const std::string &line);

class AgentState {
public:
  explicit AgentState(std::string path) : log_(std::move(path)) {}

  // Reads what the agent wrote since the last call; returns the notable
  // lines among them.
  std::vector<std::string> update();
  void hupSent() { ++hupsSent_; }

  // Every SIGHUP sent was taken, and everything the agent was asked since
  // it started is finished.
  bool atRest() const noexcept { return !busy_ && hupsAnswered_ == hupsSent_; }
  // The failures the agent counted, from its last "every change finished".
  std::uint64_t failed() const noexcept { return failed_; }
  // What the last re-read applied (writes, removes), once one was taken.
  std::optional<std::pair<std::uint64_t, std::uint64_t>>
  lastReread() const noexcept {
    return lastReread_;
  }
  // A SIGHUP whose file the agent refused (a harness problem: the soak
  // writes only valid files).
  const std::optional<std::string> &refused() const noexcept {
    return refused_;
  }
  const LogTail &log() const noexcept { return log_; }

private:
  LogTail log_;
  bool busy_ = true; // until its first "every change finished"
  std::uint32_t hupsSent_ = 0;
  std::uint32_t hupsAnswered_ = 0;
  std::uint64_t failed_ = 0;
  std::optional<std::pair<std::uint64_t, std::uint64_t>> lastReread_;
  std::optional<std::string> refused_;
};

} // namespace MplsSoak
