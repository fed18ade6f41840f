// The entry wrapper and resolver entry of the LEM table: thin names over
// the generic ones (OrderedTable/InfraTypes.h).
#pragma once

#include <cstdint>

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsLemBinding.h"
#include "OrderedTable/InfraTypes.h"

namespace MicaMpls {

class MICA_MPLS_API MplsLemEntryWrapper
    : public Asic::EntryWrapperBase<MplsLemBinding> {
public:
  using EntryWrapperBase::EntryWrapperBase;
  static Fwk::Ptr<MplsLemEntryWrapper>
  MplsLemEntryWrapperIs(const MplsLemEntry &entry, const Fwk::Ptr<Handle> &handle);

  // The FEC id and the FEC's error code of the resource; 0 without one.
  std::uint32_t fecId() const noexcept {
    return resourcePtr() ? resourcePtr()->data().fecId : 0;
  }
  std::uint32_t errorCode() const noexcept {
    return resourcePtr() ? resourcePtr()->data().errorCode : 0;
  }
  const Fwk::Ptr<const ResourceHandle> &l2AdjIdResPtr() const noexcept {
    return resourcePtr();
  }
  void l2AdjIdResPtrIs(Fwk::Ptr<const ResourceHandle> h) noexcept {
    resourcePtrIs(std::move(h));
  }
};

MICA_MPLS_API Fwk::Ptr<MplsLemEntryWrapper>
mplsLemEntryWrapperFactory(const MplsLemEntry &entry,
                          const Fwk::Ptr<Asic::OrderedSwTable::EntryHandle> &handle);

class MICA_MPLS_API MplsLemResolverEntry
    : public Asic::TableResolverEntry<MplsLemBinding> {
public:
  using TableResolverEntry::TableResolverEntry;
  static Fwk::Ptr<MplsLemResolverEntry>
  MplsLemResolverEntryIs(Fwk::Ptr<const Asic::DependencyEntryHandle> dependency,
                          Asic::EntryFlags flags, MplsLemSwTable *table,
                          Fwk::Ptr<MplsLemEntryWrapper> wrapper);
};

MICA_MPLS_API Fwk::Ptr<MplsLemResolverEntry>
mplsLemResolverEntryFactory(Fwk::Ptr<const Asic::DependencyEntryHandle> dependency,
                             Asic::EntryFlags flags, MplsLemSwTable *table,
                             Fwk::Ptr<MplsLemEntryWrapper> wrapper);

} // namespace MicaMpls
