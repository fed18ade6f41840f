// Positional reads and writes of a whole buffer: short transfers are
// continued and interrupted system calls retried. Internal to the runtime.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace Fwk {

// 0 when all `size` bytes were transferred at `offset`; otherwise the errno
// of the failing call (EIO for an end of file or a zero-length write).
int preadAll(int fd, void *data, std::size_t size, off_t offset) noexcept;
int pwriteAll(int fd, const void *data, std::size_t size,
              off_t offset) noexcept;

} // namespace Fwk
