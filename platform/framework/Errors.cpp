#include "platform/framework/Errors.h"

namespace Fwk {

Exception::~Exception() = default;

NullPointerException::NullPointerException(const std::string &argument)
    : Exception("null pointer passed as argument '" + argument + "'"),
      argument_(argument) {}
NullPointerException::~NullPointerException() = default;

ReinstantiationException::ReinstantiationException(const std::string &what)
    : Exception("reinstantiation: " + what) {}
ReinstantiationException::~ReinstantiationException() = default;

} // namespace Fwk
