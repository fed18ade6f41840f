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
  template <typename... Args>
  static Fwk::Ptr<MplsLemEntryWrapper> MplsLemEntryWrapperIs(Args &&...args) {
    return Fwk::make<MplsLemEntryWrapper>(std::forward<Args>(args)...);
  }

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

protected:
  ~MplsLemEntryWrapper() override;
};

// The same as MplsLemEntryWrapper::MplsLemEntryWrapperIs.
template <typename... Args> Fwk::Ptr<MplsLemEntryWrapper> mplsLemEntryWrapperFactory(Args &&...args) {
  return MplsLemEntryWrapper::MplsLemEntryWrapperIs(std::forward<Args>(args)...);
}

class MICA_MPLS_API MplsLemResolverEntry
    : public Asic::TableResolverEntry<MplsLemBinding> {
public:
  using TableResolverEntry::TableResolverEntry;
  template <typename... Args>
  static Fwk::Ptr<MplsLemResolverEntry> MplsLemResolverEntryIs(Args &&...args) {
    return Fwk::make<MplsLemResolverEntry>(std::forward<Args>(args)...);
  }

protected:
  ~MplsLemResolverEntry() override;
};

// The same as MplsLemResolverEntry::MplsLemResolverEntryIs.
template <typename... Args> Fwk::Ptr<MplsLemResolverEntry> mplsLemResolverEntryFactory(Args &&...args) {
  return MplsLemResolverEntry::MplsLemResolverEntryIs(std::forward<Args>(args)...);
}

} // namespace MicaMpls
