#include "MicaMpls/MplsIsem2InfraTypes.h"

#include "MicaMpls/MplsIsem2SwTable.h"

namespace MicaMpls {

Fwk::Ptr<MplsIsem2EntryWrapper> MplsIsem2EntryWrapper::MplsIsem2EntryWrapperIs(
    const MplsIsem2Entry &entry, const Fwk::Ptr<Handle> &handle) {
  return Fwk::make<MplsIsem2EntryWrapper>(entry, handle);
}

Fwk::Ptr<MplsIsem2EntryWrapper> mplsIsem2EntryWrapperFactory(
    const MplsIsem2Entry &entry,
    const Fwk::Ptr<Asic::OrderedSwTable::EntryHandle> &handle) {
  return MplsIsem2EntryWrapper::MplsIsem2EntryWrapperIs(entry, handle);
}

Fwk::Ptr<MplsIsem2ResolverEntry> MplsIsem2ResolverEntry::MplsIsem2ResolverEntryIs(
    Fwk::Ptr<const Asic::DependencyEntryHandle> dependency, Asic::EntryFlags flags,
    MplsIsem2SwTable *table, Fwk::Ptr<MplsIsem2EntryWrapper> wrapper) {
  return Fwk::make<MplsIsem2ResolverEntry>(std::move(dependency), flags, table,
                                        std::move(wrapper));
}

Fwk::Ptr<MplsIsem2ResolverEntry> mplsIsem2ResolverEntryFactory(
    Fwk::Ptr<const Asic::DependencyEntryHandle> dependency, Asic::EntryFlags flags,
    MplsIsem2SwTable *table, Fwk::Ptr<MplsIsem2EntryWrapper> wrapper) {
  return MplsIsem2ResolverEntry::MplsIsem2ResolverEntryIs(std::move(dependency), flags,
                                                      table, std::move(wrapper));
}

} // namespace MicaMpls
