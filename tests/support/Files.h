// Whole files and words at offsets, for tests that read what a program wrote
// or damage it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

namespace TestSupport {

inline std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Replaces the file's contents with `bytes`.
inline void writeFile(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline void pokeBytes(const std::string &file, std::uint64_t offset,
                      const void *bytes, std::size_t n) {
  const int fd = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0) << file;
  ASSERT_EQ(::pwrite(fd, bytes, n, static_cast<off_t>(offset)),
            static_cast<ssize_t>(n));
  ::close(fd);
}

// The `T` at `offset` (zero where the file is shorter).
template <typename T> T peek(const std::string &file, std::uint64_t offset) {
  T v{};
  std::ifstream in(file, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(offset));
  in.read(reinterpret_cast<char *>(&v), sizeof v);
  return v;
}

inline void flipByte(const std::string &file, std::uint64_t offset,
                     std::uint8_t mask = 0xff) {
  const auto b =
      static_cast<std::uint8_t>(peek<std::uint8_t>(file, offset) ^ mask);
  pokeBytes(file, offset, &b, 1);
}

} // namespace TestSupport
