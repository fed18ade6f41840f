#include "platform/framework/Object.h"

#include "platform/framework/Slab.h"

namespace Fwk {

namespace detail {
std::atomic<bool> gMultiThreaded{false};
} // namespace detail

void multiThreadedIs(bool on) noexcept {
  detail::gMultiThreaded.store(on, std::memory_order_seq_cst);
}

Object::~Object() = default;

void *Object::operator new(std::size_t size) { return Slab::allocate(size); }

void Object::operator delete(void *p, std::size_t size) noexcept {
  Slab::deallocate(p, size);
}

void Object::onLastReference() const noexcept { delete this; }

} // namespace Fwk
