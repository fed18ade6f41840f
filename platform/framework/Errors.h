// Error types of the object framework.
//
// Which failures are what:
// - A broken invariant of the program is an assertion (Assert.h): it stops the
//   process.
// - A caller that hands the framework something it must refuse (a null
//   pointer where an object is required, a second instance where only one may
//   exist) gets one of the exceptions below. They are programming errors of
//   the caller, but they leave every object as it was, so a test or a
//   scripting tool can catch them.
// - Expected failures of an operation (a resource that did not resolve, a
//   full collection) are reported through the operation's own result.
#pragma once

#include <stdexcept>
#include <string>

#include "platform/Export.h"

namespace Fwk {

class MICA_PLATFORM_API Exception : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
  ~Exception() override;
};

// A null pointer was passed where an object is required.
class MICA_PLATFORM_API NullPointerException : public Exception {
public:
  explicit NullPointerException(const std::string &argument);
  ~NullPointerException() override;
  const std::string &argument() const { return argument_; }

private:
  std::string argument_;
};

// An object was to be created under a key that already holds a different one.
class MICA_PLATFORM_API ReinstantiationException : public Exception {
public:
  explicit ReinstantiationException(const std::string &what);
  ~ReinstantiationException() override;
};

} // namespace Fwk
