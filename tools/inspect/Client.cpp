#include "tools/inspect/Client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/shm/Store.h"

namespace MicaMplsInspect {

std::string endpointPath(const std::string &agent) {
  return Shm::rootDirectory() + "/" + agent + ".0/.inspect";
}

Client::Client(const std::string &path, std::chrono::milliseconds timeout)
    : timeout_(timeout) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    failure_ = "the endpoint path is too long for a socket: " + path;
    return;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    failure_ = std::string("socket: ") + std::strerror(errno);
    return;
  }
  if (::connect(fd_, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) !=
      0) {
    failure_ =
        "no agent listens at " + path + " (" + std::strerror(errno) + ")";
    ::close(fd_);
    fd_ = -1;
  }
}

Client::~Client() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

Json Client::ask(const Json &request) {
  if (fd_ < 0) {
    throw EndpointError(failure_);
  }
  const std::string line = request.dump() + "\n";
  for (std::size_t at = 0; at < line.size();) {
    const ssize_t n =
        ::send(fd_, line.data() + at, line.size() - at, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      throw EndpointError(std::string("the agent went away: ") +
                          std::strerror(errno));
    }
    at += static_cast<std::size_t>(n);
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout_;
  std::size_t nl;
  while ((nl = in_.find('\n')) == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p{fd_, POLLIN, 0};
    const int r = ::poll(&p, 1, left.count() > 0 ? int(left.count()) : 0);
    if (r < 0 && errno == EINTR) {
      continue;
    }
    if (r <= 0) {
      throw EndpointError("the agent did not answer in time");
    }
    char buf[65536];
    const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      throw EndpointError("the agent closed the connection");
    }
    in_.append(buf, static_cast<std::size_t>(n));
  }
  Json reply = Json::parse(in_.substr(0, nl), nullptr, false);
  in_.erase(0, nl + 1);
  if (reply.is_discarded() || !reply.is_object()) {
    throw EndpointError("the agent's reply is not a JSON object");
  }
  if (!reply.value("ok", false)) {
    throw EndpointError(reply.value("error", std::string("refused")));
  }
  reply.erase("ok");
  return reply;
}

} // namespace MicaMplsInspect
