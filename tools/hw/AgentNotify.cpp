#include "tools/hw/AgentNotify.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/shm/Store.h"

namespace MicaMplsHw {

std::string progressFifoPath(const std::string &agentName,
                             std::uint32_t instanceId) {
  return Shm::rootDirectory() + "/" + agentName + "." +
         std::to_string(instanceId) + "/.hw-progress";
}

bool notifyAgent(const std::string &agentName, std::uint32_t instanceId) {
  const std::string path = progressFifoPath(agentName, instanceId);
  // ENOENT: no FIFO; ENXIO: a FIFO nobody reads. Neither is an error.
  const int fd =
      ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  bool told = false;
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode)) {
    const char byte = 1;
    ssize_t n;
    do {
      n = ::write(fd, &byte, 1);
    } while (n < 0 && errno == EINTR);
    // EAGAIN: the FIFO is full of bytes the agent has still to read.
    told = n == 1 || (n < 0 && errno == EAGAIN);
  }
  ::close(fd);
  return told;
}

} // namespace MicaMplsHw
