#include "platform/framework/Object.h"

namespace Fwk {

namespace detail {
std::atomic<bool> gMultiThreaded{false};
} // namespace detail

void multiThreadedIs(bool on) noexcept {
  detail::gMultiThreaded.store(on, std::memory_order_seq_cst);
}

Object::~Object() = default;

void Object::onLastReference() const noexcept { delete this; }

} // namespace Fwk
