// A small tmpfs of a test's own, to run a store on a file system that fills
// up (the parts that may die of it run in a child: runInChild, Fork.h).
#pragma once

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "support/Fork.h"

namespace TestSupport {

// Mounts a tmpfs of `size` bytes on a new directory under /tmp, unmounted
// and removed by the destructor whatever happened. Mounting needs root (or
// CAP_SYS_ADMIN): where it is not allowed, ok() is false and why() says so.
class ScratchTmpfs {
public:
  explicit ScratchTmpfs(std::size_t size) {
    char dir[] = "/tmp/mica-tmpfs-XXXXXX";
    if (!::mkdtemp(dir)) {
      why_ = std::string("mkdtemp: ") + std::strerror(errno);
      return;
    }
    dir_ = dir;
    const std::string opts = "size=" + std::to_string(size) + ",mode=0700";
    if (::mount("tmpfs", dir, "tmpfs", MS_NOSUID | MS_NODEV, opts.c_str()) !=
        0) {
      why_ = std::string("mounting a tmpfs is not allowed here (") +
             std::strerror(errno) + ")";
      return;
    }
    mounted_ = true;
  }
  ~ScratchTmpfs() {
    if (mounted_) {
      ::umount2(dir_.c_str(), MNT_DETACH);
    }
    if (!dir_.empty()) {
      ::rmdir(dir_.c_str());
    }
  }
  ScratchTmpfs(const ScratchTmpfs &) = delete;
  ScratchTmpfs &operator=(const ScratchTmpfs &) = delete;

  bool ok() const noexcept { return mounted_; }
  const std::string &why() const noexcept { return why_; }
  const std::string &path() const noexcept { return dir_; }

  // Writes the file `name` until it has `bytes` or the file system is full.
  void fill(const std::string &name, std::size_t bytes = SIZE_MAX) const {
    const int fd = ::open((dir_ + "/" + name).c_str(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
      throw std::runtime_error("cannot create " + name);
    }
    static const char page[4096] = {1};
    for (std::size_t n = 0; n<bytes && ::write(fd, page, sizeof page)> 0;
         n += sizeof page) {
    }
    ::close(fd);
  }
  void remove(const std::string &name) const {
    ::unlink((dir_ + "/" + name).c_str());
  }

private:
  std::string dir_;
  std::string why_;
  bool mounted_ = false;
};

// Throws (so that the child fails with `what` on stderr) unless `ok`.
inline void require(bool ok, const std::string &what) {
  if (!ok) {
    throw std::runtime_error(what);
  }
}

} // namespace TestSupport
