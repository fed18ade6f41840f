#include "tools/mpls-agent/Endpoint.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

namespace MplsAgent {

namespace {

// Input a client may have buffered beyond its current line; past it, reading
// waits until the lines before are answered.
constexpr std::size_t kInputMax = 64 * 1024;
constexpr std::size_t kReadChunk = 16 * 1024;
// Connections taken per pass of the loop.
constexpr int kAcceptsPerTurn = 8;

[[noreturn]] void fail(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

struct Endpoint::Client {
  int fd = -1;
  std::uint64_t serial = 0; // tells a reused fd number apart
  Evt::Watch watch;
  std::string in;
  std::string out;
  std::size_t outHead = 0; // sent bytes at the front of `out`
  bool skipping = false;   // inside a line that was too long
  bool eof = false;
  bool dead = false; // gone mid-answer, or stopped reading: to be dropped
  bool serveScheduled = false;
  std::size_t pending() const noexcept { return out.size() - outHead; }
};

Endpoint::Endpoint(Evt::Loop &loop, std::string path, Answer answer)
    : loop_(loop), path_(std::move(path)), answer_(std::move(answer)) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path_.size() >= sizeof addr.sun_path) {
    errno = ENAMETOOLONG;
    fail("inspection socket " + path_);
  }
  std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
  struct stat st {};
  if (::lstat(path_.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      errno = EEXIST;
      fail(path_ + " exists and is not a socket");
    }
    ::unlink(path_.c_str()); // left by an earlier run of this agent
  }
  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) {
    fail("socket");
  }
  // Made owner-only from the start: the mode comes from the umask at bind.
  const mode_t old = ::umask(0177);
  const int rc =
      ::bind(listenFd_, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
  ::umask(old);
  if (rc != 0 || ::chmod(path_.c_str(), 0600) != 0 ||
      ::listen(listenFd_, 64) != 0) {
    const int e = errno;
    ::close(listenFd_);
    listenFd_ = -1;
    errno = e;
    fail("inspection socket " + path_);
  }
  listenWatch_ = loop_.watchIs(listenFd_, [this] { onListen(); });
}

Endpoint::~Endpoint() {
  listenWatch_.cancel();
  for (auto &[fd, c] : clients_) {
    c->watch.cancel();
    ::close(fd);
  }
  clients_.clear();
  if (listenFd_ >= 0) {
    ::close(listenFd_);
    ::unlink(path_.c_str());
  }
}

void Endpoint::onListen() {
  for (int i = 0; i < kAcceptsPerTurn; ++i) {
    const int fd =
        ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      return; // EAGAIN, or a connection that went away before it was taken
    }
    ucred cred{};
    socklen_t len = sizeof cred;
    const char *refusal = nullptr;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
      refusal = "cannot tell who is asking";
    } else if (cred.uid != ::geteuid() && cred.uid != 0) {
      refusal = "permission denied: only the agent's own user may inspect it";
    } else if (clients_.size() >= kMaxClients) {
      refusal = "too many inspection clients; try again later";
    }
    if (refusal) {
      ++refused_;
      const std::string line =
          Json{{"ok", false}, {"error", refusal}}.dump() + "\n";
      (void)::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      ::close(fd);
      continue;
    }
    auto c = std::make_unique<Client>();
    c->fd = fd;
    c->serial = ++serials_;
    c->watch = loop_.watchIs(fd, [this, fd] { onClient(fd); });
    clients_.emplace(fd, std::move(c));
  }
}

void Endpoint::onClient(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) {
    return;
  }
  Client &c = *it->second;
  if (c.pending() != 0 && !flush(c)) {
    drop(fd);
    return;
  }
  char buf[kReadChunk];
  while (!c.eof && c.in.size() < kInputMax) {
    const ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0) {
      c.in.append(buf, static_cast<std::size_t>(n));
    } else if (n == 0) {
      c.eof = true;
    } else if (errno == EINTR) {
      continue;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      break;
    } else {
      drop(fd); // reset by the peer
      return;
    }
  }
  serve(c);
  if (c.dead) {
    drop(fd);
    return;
  }
  if (c.eof) {
    // Nothing more will come: what could be answered was; what is unsent
    // goes out if there is room, and the connection ends.
    flush(c);
    drop(fd);
  }
}

bool Endpoint::withinBudget() {
  // A token bucket: each window that passed pays kBudget of what was
  // spent, so that over time answering takes no more than kBudget per
  // kWindow, a long answer included.
  const auto now = std::chrono::steady_clock::now();
  if (now - windowStart_ >= kWindow) {
    const auto windows = (now - windowStart_) / kWindow;
    const std::chrono::steady_clock::duration paid = kBudget * windows;
    windowBusy_ = windowBusy_ > paid ? windowBusy_ - paid
                                     : std::chrono::steady_clock::duration{};
    windowStart_ += kWindow * windows;
  }
  if (windowBusy_ < kBudget) {
    return true;
  }
  if (!resumeTimer_.pending()) {
    resumeTimer_ = loop_.timerIs(
        std::chrono::duration_cast<Evt::Duration>(windowStart_ + kWindow - now),
        [this] { resume(); });
  }
  return false;
}

// A new window: every client with a request waiting is served again.
void Endpoint::resume() {
  std::vector<int> waiting;
  for (const auto &[fd, c] : clients_) {
    if (c->in.find('\n') != std::string::npos) {
      waiting.push_back(fd);
    }
  }
  for (int fd : waiting) {
    auto it = clients_.find(fd);
    if (it == clients_.end()) {
      continue;
    }
    serve(*it->second);
    if (it->second->dead) {
      drop(fd);
    }
  }
}

void Endpoint::serve(Client &c) {
  const int fd = c.fd;
  for (std::size_t n = 0; n < kRequestsPerTurn && c.pending() < kOutputHigh;) {
    const std::size_t nl = c.in.find('\n');
    if (nl != std::string::npos && !c.skipping && !withinBudget()) {
      break; // resumed by the timer
    }
    const auto started = std::chrono::steady_clock::now();
    // Counts this step's work (answering, replying) against the window.
    struct Charge {
      Endpoint &e;
      std::chrono::steady_clock::time_point t0;
      ~Charge() {
        const auto d = std::chrono::steady_clock::now() - t0;
        e.windowBusy_ += d;
        e.busy_ += d;
      }
    } charge{*this, started};
    if (c.skipping) {
      if (nl == std::string::npos) {
        c.in.clear();
        break;
      }
      c.in.erase(0, nl + 1);
      c.skipping = false;
      continue;
    }
    if (nl == std::string::npos) {
      if (c.in.size() > kMaxRequest) {
        ++refused_;
        c.in.clear();
        c.skipping = true;
        reply(c, Json{{"ok", false},
                      {"error", "request longer than " +
                                    std::to_string(kMaxRequest) + " bytes"}});
        ++n;
        continue;
      }
      break; // the rest of the line has not arrived
    }
    std::string line = c.in.substr(0, nl);
    c.in.erase(0, nl + 1);
    ++n;
    if (line.size() > kMaxRequest) {
      ++refused_;
      reply(c, Json{{"ok", false},
                    {"error", "request longer than " +
                                  std::to_string(kMaxRequest) + " bytes"}});
      continue;
    }
    if (line.find_first_not_of(" \t\r") == std::string::npos) {
      continue; // blank lines are ignored
    }
    Json req = Json::parse(line, nullptr, false);
    if (req.is_discarded() || !req.is_object()) {
      ++refused_;
      reply(c, Json{{"ok", false},
                    {"error", "a request is one JSON object on one line"}});
      continue;
    }
    Json rep;
    try {
      rep = answer_(req);
      ++answered_;
    } catch (const std::exception &e) {
      ++refused_;
      rep = Json{{"ok", false}, {"error", e.what()}};
    }
    if (!rep.contains("ok")) {
      Json with = {{"ok", true}};
      with.update(rep);
      rep = std::move(with);
    }
    if (req.contains("id")) {
      rep["id"] = req["id"];
    }
    reply(c, std::move(rep));
  }
  if (c.pending() != 0 && !flush(c)) {
    c.dead = true;
    return;
  }
  // More lines than one turn answers: the rest on a later pass, so that a
  // client that floods requests takes turns with the agent's own work.
  // (Over budget, the timer that resumes serving takes them.)
  if (!c.serveScheduled && c.pending() < kOutputHigh && windowBusy_ < kBudget &&
      c.in.find('\n') != std::string::npos) {
    c.serveScheduled = true;
    loop_.defer(
        [this, alive = std::weak_ptr<bool>(alive_), fd, serial = c.serial] {
          if (alive.expired()) {
            return; // the endpoint is gone
          }
          auto it = clients_.find(fd);
          if (it == clients_.end() || it->second->serial != serial) {
            return;
          }
          it->second->serveScheduled = false;
          serve(*it->second);
          if (it->second->dead) {
            drop(fd);
          }
        });
  }
}

// Queues a reply; serve() sends a turn's replies together.
void Endpoint::reply(Client &c, Json doc) {
  c.out += doc.dump(-1, ' ', false, Json::error_handler_t::replace);
  c.out += '\n';
}

bool Endpoint::flush(Client &c) {
  while (c.pending() != 0) {
    const ssize_t n = ::send(c.fd, c.out.data() + c.outHead, c.pending(),
                             MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      c.outHead += static_cast<std::size_t>(n);
      if (c.outHead >= kOutputHigh && c.pending() != 0) {
        c.out.erase(0, c.outHead);
        c.outHead = 0;
      }
      continue;
    }
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (c.pending() > kOutputMax) {
        return false; // it stopped reading
      }
      c.watch.writableIs(true);
      return true;
    }
    return false; // EPIPE, ECONNRESET: gone mid-answer
  }
  c.out.clear();
  c.outHead = 0;
  c.watch.writableIs(false);
  return true;
}

void Endpoint::drop(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) {
    return;
  }
  it->second->watch.cancel();
  ::close(fd);
  clients_.erase(it);
}

} // namespace MplsAgent
