#include "platform/asic/TableVersionSlate.h"

#include "platform/asic/Constants.h"

namespace Asic {

namespace {
const Shm::EntityTypeRegistrar<TableVersionSlate> kTableVersionSlateType;
} // namespace

std::string TableVersionSlate::path(const std::string &groupName) {
  return "ordered/" + Constants::canonicalizeGroupName(groupName) + "/tableVersion";
}

void TableVersionSlate::tableVersionIs(SwTableId tableId, LogVersion version) {
  TableVersionRecord r;
  r.tableId = tableId.packed();
  r.version = version;
  collection_.insert(r);
}

Fwk::Ptr<TableVersionSlate> mountTableVersionSlate(const Fwk::Ptr<Shm::EntityManager> &em,
                                                   const std::string &groupName) {
  return Shm::mountOne<TableVersionSlate>(em, TableVersionSlate::path(groupName));
}

} // namespace Asic
