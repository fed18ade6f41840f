// The entry wrapper and resolver entry of the ISEM2 table: thin names over
// the generic ones (OrderedTable/InfraTypes.h).
#pragma once

#include <cstdint>

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsIsem2Binding.h"
#include "OrderedTable/InfraTypes.h"

namespace MicaMpls {

class MICA_MPLS_API MplsIsem2EntryWrapper
    : public Asic::EntryWrapperBase<MplsIsem2Binding> {
public:
  using EntryWrapperBase::EntryWrapperBase;
  static Fwk::Ptr<MplsIsem2EntryWrapper>
  MplsIsem2EntryWrapperIs(const MplsIsem2Entry &entry, const Fwk::Ptr<Handle> &handle);

  // The in-LIF 0 index and the in-LIF 2/3 index of the resource; 0 without one.
  std::uint32_t inLif0Index() const noexcept {
    return resourcePtr() ? resourcePtr()->data().inLif0Index : 0;
  }
  std::uint32_t inLif23Index() const noexcept {
    return resourcePtr() ? resourcePtr()->data().inLif23Index : 0;
  }
  const Fwk::Ptr<const ResourceHandle> &inLifKeyResPtr() const noexcept {
    return resourcePtr();
  }
  void inLifKeyResPtrIs(Fwk::Ptr<const ResourceHandle> h) noexcept {
    resourcePtrIs(std::move(h));
  }
};

MICA_MPLS_API Fwk::Ptr<MplsIsem2EntryWrapper>
mplsIsem2EntryWrapperFactory(const MplsIsem2Entry &entry,
                          const Fwk::Ptr<Asic::OrderedSwTable::EntryHandle> &handle);

class MICA_MPLS_API MplsIsem2ResolverEntry
    : public Asic::TableResolverEntry<MplsIsem2Binding> {
public:
  using TableResolverEntry::TableResolverEntry;
  static Fwk::Ptr<MplsIsem2ResolverEntry>
  MplsIsem2ResolverEntryIs(Fwk::Ptr<const Asic::DependencyEntryHandle> dependency,
                          Asic::EntryFlags flags, MplsIsem2SwTable *table,
                          Fwk::Ptr<MplsIsem2EntryWrapper> wrapper);
};

MICA_MPLS_API Fwk::Ptr<MplsIsem2ResolverEntry>
mplsIsem2ResolverEntryFactory(Fwk::Ptr<const Asic::DependencyEntryHandle> dependency,
                             Asic::EntryFlags flags, MplsIsem2SwTable *table,
                             Fwk::Ptr<MplsIsem2EntryWrapper> wrapper);

} // namespace MicaMpls
