#include "platform/asic/HwRefusalSlate.h"

#include "platform/asic/Constants.h"

#include <vector>

namespace Asic {

namespace {
const Shm::EntityTypeRegistrar<HwRefusalSlate> kHwRefusalSlateType;
} // namespace

const char *hwRefusalText(std::uint32_t reason) noexcept {
  switch (static_cast<HwRefusal>(reason)) {
  case HwRefusal::none:
    return "not refused";
  case HwRefusal::tableFull:
    return "hardware table full";
  }
  return "refused for an unknown reason";
}

std::string HwRefusalSlate::path(const std::string &groupName) {
  return "ordered/" + Constants::canonicalizeGroupName(groupName) +
         "/hwRefused";
}

void HwRefusalSlate::refusalIs(const HwRefusalKey &at, LogVersion version,
                               HwRefusal reason, bool byRebuild) {
  HwRefusalRecord r;
  r.at = at;
  r.logVersion = version;
  r.reason = static_cast<std::uint32_t>(reason);
  r.byRebuild = byRebuild ? 1 : 0;
  collection_.insert(r);
}

void HwRefusalSlate::refusalDel(const HwRefusalKey &at) {
  if (collection_.count() != 0) {
    collection_.erase(at);
  }
}

void HwRefusalSlate::refusalDelUnit(std::uint32_t tableId, UnitId unit) {
  if (collection_.count() == 0) {
    return;
  }
  std::vector<HwRefusalKey> gone;
  for (auto k = collection_.firstKey(); k; k = collection_.nextKey(*k)) {
    if (k->tableId == tableId && k->unit == unit) {
      gone.push_back(*k);
    }
  }
  for (const HwRefusalKey &k : gone) {
    collection_.erase(k);
  }
}

Fwk::Ptr<HwRefusalSlate>
mountHwRefusalSlate(const Fwk::Ptr<Shm::EntityManager> &em,
                    const std::string &groupName) {
  return Shm::mountOne<HwRefusalSlate>(em, HwRefusalSlate::path(groupName));
}

} // namespace Asic
