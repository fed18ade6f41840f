// A client of the agent's inspection endpoint (tools/mpls-agent/Endpoint.h):
// one connection, one JSON request and reply per line.
//
//   MicaMplsInspect::Client c(MicaMplsInspect::endpointPath("mpls-agent"));
//   if (c.connected()) {
//     Json top = c.ask({{"op", "top"}});   // throws EndpointError on "ok":
//     false
//   }
//
// connected() is false when no agent listens (no socket, or nobody
// accepting): the caller reads the stores instead.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "tools/inspect/JsonVisitor.h"

namespace MicaMplsInspect {

// The endpoint of an agent's instance: <root>/<agent>.0/.inspect.
std::string endpointPath(const std::string &agent);

// The agent answered with an error, or the connection broke.
class EndpointError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

class Client {
public:
  explicit Client(const std::string &path,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));
  ~Client();
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  bool connected() const noexcept { return fd_ >= 0; }
  // Why it is not connected ("no agent listens at ...").
  const std::string &failure() const noexcept { return failure_; }
  // Sends a request and returns the reply without "ok"; throws
  // EndpointError with the agent's message for {"ok": false}, or when the
  // connection breaks or the reply takes longer than the timeout.
  Json ask(const Json &request);

private:
  int fd_ = -1;
  std::chrono::milliseconds timeout_;
  std::string failure_;
  std::string in_;
};

} // namespace MicaMplsInspect
