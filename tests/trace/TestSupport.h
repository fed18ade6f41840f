// Helpers of the trace and agent log suites: a scratch directory, stderr
// capture, environment variables restored on exit, and files read by line.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Files.h"

namespace TraceTest {

// A directory of its own under /tmp, removed with everything in it.
class ScratchDir {
public:
  ScratchDir() {
    char pattern[] = "/tmp/mica-trace-test-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

// Sets (or, with nullopt, unsets) an environment variable and puts back what
// was there when it goes out of scope.
class EnvVar {
public:
  EnvVar(const char *name, std::optional<std::string> value) : name_(name) {
    if (const char *old = std::getenv(name)) {
      old_ = old;
    }
    set(value);
  }
  ~EnvVar() { set(old_); }
  EnvVar(const EnvVar &) = delete;
  EnvVar &operator=(const EnvVar &) = delete;

private:
  void set(const std::optional<std::string> &v) {
    if (v) {
      ::setenv(name_.c_str(), v->c_str(), 1);
    } else {
      ::unsetenv(name_.c_str());
    }
  }
  std::string name_;
  std::optional<std::string> old_;
};

using TestSupport::readFile;

inline std::vector<std::string> readLines(const std::string &path) {
  std::vector<std::string> lines;
  std::istringstream in(readFile(path));
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

// Sends file descriptor 2 to a file until take().
class StderrCapture {
public:
  StderrCapture() : path_(dir_.file("stderr")) {
    std::fflush(stderr);
    const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    saved_ = ::dup(2);
    ::dup2(fd, 2);
    ::close(fd);
  }
  ~StderrCapture() { restore(); }
  std::string take() {
    restore();
    return readFile(path_);
  }

private:
  void restore() {
    if (saved_ >= 0) {
      std::fflush(stderr);
      ::dup2(saved_, 2);
      ::close(saved_);
      saved_ = -1;
    }
  }
  ScratchDir dir_;
  std::string path_;
  int saved_ = -1;
};

inline std::size_t countOf(const std::string &text, const std::string &what) {
  std::size_t n = 0;
  for (auto at = text.find(what); at != std::string::npos;
       at = text.find(what, at + 1)) {
    ++n;
  }
  return n;
}

} // namespace TraceTest
