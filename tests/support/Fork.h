// fork() for tests whose children must not outlive them.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

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

} // namespace TestSupport
