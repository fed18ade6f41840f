#include "platform/statedb/GenId.h"

#include "platform/framework/Errors.h"

namespace Asic {

std::string GenId::path(std::string_view agentName) {
  std::string p(kPathPrefix);
  p += agentName;
  return p;
}

GenId::~GenId() = default;

void GenId::majorIdInc(std::uint32_t n) {
  if (n == 0) {
    return;
  }
  majorId_ += n;
  notify(attrMajorId);
}

GenId::Ptr genId(const StateDb::EntityManager &em) {
  return em.entity<GenId>(GenId::path(em.name()));
}

GenId::Ptr genIdIs(StateDb::EntityManager &em, std::uint32_t majorId,
                   std::uint32_t minorId) {
  const std::string path = GenId::path(em.name());
  if (Fwk::Ptr<Fwk::Object> present = em.entity(path)) {
    if (auto gen = Fwk::ptrCast<GenId>(present)) {
      return gen;
    }
    throw Fwk::ReinstantiationException(path +
                                        " holds an object that is not a GenId");
  }
  auto gen = Fwk::make<GenId>(majorId, minorId);
  em.entityIs(path, gen);
  return gen;
}

} // namespace Asic
