#include "platform/asic/TableVersionSlate.h"

#include "platform/asic/Constants.h"

namespace Asic {

namespace {
const Shm::EntityTypeRegistrar<TableVersionSlate> kTableVersionSlateType;
} // namespace

std::string TableVersionSlate::path(const std::string &groupName) {
  return "ordered/" + Constants::canonicalizeGroupName(groupName) + "/tableVersion";
}

Shm::EntityLayout TableVersionSlate::layout() {
  return Shm::EntityLayout(kTypeName).collection<TableVersionRecordTraits>(kCollection);
}

TableVersionSlate::TableVersionSlate(Shm::EntityInit &init)
    : Shm::Entity(init), tableVersion_(init, kCollection) {}

TableVersionSlate::~TableVersionSlate() = default;

void TableVersionSlate::tableVersionIs(SwTableId tableId, LogVersion version) {
  TableVersionRecord r;
  r.tableId = tableId.packed();
  r.version = version;
  tableVersion_.insert(r);
}

Fwk::Ptr<TableVersionSlate> mountTableVersionSlate(const Fwk::Ptr<Shm::EntityManager> &em,
                                                   const std::string &groupName) {
  const std::string p = TableVersionSlate::path(groupName);
  const bool reader = em->access() == Shm::Access::read;
  Shm::MountInfo info(reader ? Shm::MountInfo::kReaderMount
                             : Shm::MountInfo::kWriterMount);
  if (!reader) {
    info.collectionInfoIs(TableVersionSlate::kCollection, TableVersionSlate::kCapacity);
  }
  auto group = em->mountGroup();
  group->doMount(p, TableVersionSlate::kTypeName, info);
  group->doClose();
  return Fwk::ptrCast<TableVersionSlate>(em->entity(p));
}

} // namespace Asic
