#include "tools/mpls-soak/Child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

namespace MplsSoak {

namespace {

constexpr auto kPollStep = std::chrono::milliseconds(5);

int statusOf(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

Child::~Child() {
  kill();
}

void Child::start(const std::string &path, const std::vector<std::string> &args,
                  const std::string &outFile, const std::string &errFile) {
  // Everything the child needs is prepared before the fork: after it, only
  // async-signal-safe calls.
  std::vector<char *> argv;
  argv.push_back(const_cast<char *>(path.c_str()));
  for (const std::string &a : args) {
    argv.push_back(const_cast<char *>(a.c_str()));
  }
  argv.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (pid == 0) {
    // Dies with the soak; a soak that died before this line is caught by
    // getppid().
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) {
      ::_exit(127);
    }
    ::setpgid(0, 0);
    const int out =
        ::open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int err =
        ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (out < 0 || err < 0 || ::dup2(out, STDOUT_FILENO) < 0 ||
        ::dup2(err, STDERR_FILENO) < 0) {
      ::_exit(127);
    }
    const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null >= 0) {
      ::dup2(null, STDIN_FILENO);
    }
    ::execv(path.c_str(), argv.data());
    ::_exit(127);
  }
  pid_ = pid;
  started_ = Clock::now();
}

void Child::signal(int sig) {
  if (pid_ > 0) {
    ::kill(pid_, sig);
  }
}

std::optional<int> Child::poll() {
  if (pid_ <= 0) {
    return std::nullopt;
  }
  int status = 0;
  pid_t r;
  while ((r = ::waitpid(pid_, &status, WNOHANG)) < 0 && errno == EINTR) {
  }
  if (r != pid_) {
    return std::nullopt;
  }
  pid_ = -1;
  return statusOf(status);
}

int Child::kill() {
  if (pid_ <= 0) {
    return -1;
  }
  ::kill(pid_, SIGKILL);
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return statusOf(status);
}

std::optional<int> Child::waitFor(Clock::duration limit,
                                  const std::function<bool()> &stop) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    if (auto code = poll()) {
      return code;
    }
    if (Clock::now() >= deadline || (stop && stop())) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(kPollStep);
  }
}

bool sleepFor(Clock::duration d, const std::function<bool()> &stop) {
  const auto until = Clock::now() + d;
  for (;;) {
    if (stop && stop()) {
      return false;
    }
    const auto now = Clock::now();
    if (now >= until) {
      return true;
    }
    std::this_thread::sleep_for(
        std::min<Clock::duration>(until - now, kPollStep));
  }
}

std::string slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

} // namespace MplsSoak
