// The agent's live inspection endpoint: a Unix socket in its instance
// directory that answers one JSON request per line with one JSON reply per
// line, on the agent's event loop.
//
//   MplsAgent::Endpoint ep(*loop, dir + "/.inspect",
//                          [&](const Json &req) { return answer(req); });
//
// Who may connect: the socket is made 0600 (owner only), and every peer's
// uid is checked with SO_PEERCRED: only the agent's own user (and root) get
// answers; anyone else is told so and disconnected.
//
// What a client can do to the agent: nothing but ask. Each request runs to
// its end in one loop callback, so the answer function must bound its own
// work (a walk answers a page at a time); and answering takes at most
// kBudget of every kWindow of the loop's time, whoever asks: requests
// beyond it wait for the next window (a timer), so that clients flooding
// requests leave the agent's changes at least 95% of its loop. A request line
// longer than kMaxRequest is refused with an error reply and skipped up to its
// newline; a line that is not a JSON object gets an error reply. At most
// kRequestsPerTurn requests of one client are answered per loop pass, so a
// client that floods requests shares the loop with the agent's own work.
// Replies go out with non-blocking sends (MSG_NOSIGNAL: a client gone
// mid-answer is no SIGPIPE); while a client's unsent output exceeds
// kOutputHigh its further requests wait, and a client that stops reading
// with more than kOutputMax unsent is dropped. At most kMaxClients are
// connected; one more is told so and disconnected.
//
// Loop thread only. The destructor closes every connection and removes the
// socket file.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/eventloop/Loop.h"

namespace MplsAgent {

class Endpoint {
public:
  using Json = nlohmann::ordered_json;
  // Answers one request (a JSON object); the endpoint adds "ok": true
  // unless the reply sets "ok", and "id" when the request had one. Throwing
  // std::exception makes an error reply with its message.
  using Answer = std::function<Json(const Json &)>;

  static constexpr std::size_t kMaxRequest = 4096;
  static constexpr std::size_t kMaxClients = 32;
  static constexpr std::size_t kRequestsPerTurn = 8;
  static constexpr std::size_t kOutputHigh = 256 * 1024;
  static constexpr std::size_t kOutputMax = 4 * 1024 * 1024;
  static constexpr std::chrono::milliseconds kWindow{100};
  static constexpr std::chrono::microseconds kBudget{5000};

  // Listens at `path`, replacing a socket left there by an earlier run.
  // Throws std::system_error (a path too long, a directory that cannot
  // take it, a file there that is not a socket).
  Endpoint(Evt::Loop &loop, std::string path, Answer answer);
  ~Endpoint();
  Endpoint(const Endpoint &) = delete;
  Endpoint &operator=(const Endpoint &) = delete;

  const std::string &path() const noexcept { return path_; }
  std::size_t clients() const noexcept { return clients_.size(); }
  // Requests answered and refused (malformed, oversized, unknown) so far.
  std::uint64_t answered() const noexcept { return answered_; }
  std::uint64_t refused() const noexcept { return refused_; }
  // The loop's time spent answering, in all.
  std::chrono::steady_clock::duration busy() const noexcept { return busy_; }

private:
  struct Client;

  void onListen();
  void onClient(int fd);
  // Handles the complete lines in a client's input; false when the client
  // is to be dropped.
  void serve(Client &c);
  void reply(Client &c, Json doc);
  // Sends what it can; false when the client is gone.
  bool flush(Client &c);
  void drop(int fd);
  // Whether answering may go on in this window; when not, arms the timer
  // that serves the waiting clients in the next one.
  bool withinBudget();
  void resume();

  Evt::Loop &loop_;
  std::string path_;
  Answer answer_;
  int listenFd_ = -1;
  Evt::Watch listenWatch_;
  std::map<int, std::unique_ptr<Client>> clients_;
  std::uint64_t answered_ = 0;
  std::uint64_t refused_ = 0;
  std::uint64_t serials_ = 0; // tells connections on a reused fd apart
  std::chrono::steady_clock::time_point windowStart_{};
  std::chrono::steady_clock::duration windowBusy_{};
  std::chrono::steady_clock::duration busy_{};
  Evt::Timer resumeTimer_;
  // Tasks the endpoint defers check it is still there.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace MplsAgent
