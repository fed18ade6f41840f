// fork() for tests whose children must not outlive them.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>

namespace TestSupport {

// fork(), with the child set to die (SIGKILL) when the test process does, so
// that a test that fails or crashes half-way never leaves a child behind
// (still writing, or holding a store's writer lock). A parent that died
// before the child could ask for that is caught by getppid().
inline pid_t forkTied() {
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) {
      ::_exit(127);
    }
  }
  return pid;
}

// Runs `body` in a child forked with forkTied(); the child exits 0 unless
// body throws (1, the error on stderr). Returns the child's pid (-1 when
// fork failed).
template <typename F> pid_t forkChild(F &&body) {
  std::fflush(nullptr);
  const pid_t pid = forkTied();
  if (pid == 0) {
    int rc = 0;
    try {
      body();
    } catch (const std::exception &e) {
      std::fprintf(stderr, "child: %s\n", e.what());
      rc = 1;
    }
    std::fflush(nullptr);
    ::_exit(rc);
  }
  return pid;
}

// Waits for a child: its exit code, or 128 + the signal that killed it;
// -1 for no child.
inline int waitExit(pid_t pid) {
  if (pid < 0) {
    return -1;
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// forkChild() and waitExit() in one. `watchdogSeconds` (0: none) only turns
// a child that hangs into a failure (SIGALRM) instead of a test that never
// ends.
template <typename F> int runInChild(F &&body, unsigned watchdogSeconds = 0) {
  return waitExit(forkChild([&] {
    ::alarm(watchdogSeconds);
    body();
  }));
}

} // namespace TestSupport
