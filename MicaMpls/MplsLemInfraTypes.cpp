#include "MicaMpls/MplsLemInfraTypes.h"

#include "MicaMpls/MplsLemSwTable.h"

namespace MicaMpls {

Fwk::Ptr<MplsLemEntryWrapper> MplsLemEntryWrapper::MplsLemEntryWrapperIs(
    const MplsLemEntry &entry, const Fwk::Ptr<Handle> &handle) {
  return Fwk::make<MplsLemEntryWrapper>(entry, handle);
}

Fwk::Ptr<MplsLemEntryWrapper> mplsLemEntryWrapperFactory(
    const MplsLemEntry &entry,
    const Fwk::Ptr<Asic::OrderedSwTable::EntryHandle> &handle) {
  return MplsLemEntryWrapper::MplsLemEntryWrapperIs(entry, handle);
}

Fwk::Ptr<MplsLemResolverEntry> MplsLemResolverEntry::MplsLemResolverEntryIs(
    Fwk::Ptr<const Asic::DependencyEntryHandle> dependency, Asic::EntryFlags flags,
    MplsLemSwTable *table, Fwk::Ptr<MplsLemEntryWrapper> wrapper) {
  return Fwk::make<MplsLemResolverEntry>(std::move(dependency), flags, table,
                                        std::move(wrapper));
}

Fwk::Ptr<MplsLemResolverEntry> mplsLemResolverEntryFactory(
    Fwk::Ptr<const Asic::DependencyEntryHandle> dependency, Asic::EntryFlags flags,
    MplsLemSwTable *table, Fwk::Ptr<MplsLemEntryWrapper> wrapper) {
  return MplsLemResolverEntry::MplsLemResolverEntryIs(std::move(dependency), flags,
                                                      table, std::move(wrapper));
}

} // namespace MicaMpls
