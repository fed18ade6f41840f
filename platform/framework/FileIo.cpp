#include "platform/framework/FileIo.h"

#include <unistd.h>

#include <cerrno>

namespace Fwk {

namespace {

template <typename Byte, typename Call>
int transferAll(Call call, int fd, Byte *p, std::size_t size,
                off_t offset) noexcept {
  while (size > 0) {
    const ssize_t n = call(fd, p, size, offset);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return n < 0 ? errno : EIO;
    }
    p += n;
    size -= static_cast<std::size_t>(n);
    offset += n;
  }
  return 0;
}

} // namespace

int preadAll(int fd, void *data, std::size_t size, off_t offset) noexcept {
  return transferAll(::pread, fd, static_cast<char *>(data), size, offset);
}

int pwriteAll(int fd, const void *data, std::size_t size,
              off_t offset) noexcept {
  return transferAll(::pwrite, fd, static_cast<const char *>(data), size,
                     offset);
}

} // namespace Fwk
