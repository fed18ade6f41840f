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
  template <typename... Args>
  static Fwk::Ptr<MplsIsem2EntryWrapper> MplsIsem2EntryWrapperIs(Args &&...args) {
    return Fwk::make<MplsIsem2EntryWrapper>(std::forward<Args>(args)...);
  }

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

protected:
  ~MplsIsem2EntryWrapper() override;
};

// The same as MplsIsem2EntryWrapper::MplsIsem2EntryWrapperIs.
template <typename... Args> Fwk::Ptr<MplsIsem2EntryWrapper> mplsIsem2EntryWrapperFactory(Args &&...args) {
  return MplsIsem2EntryWrapper::MplsIsem2EntryWrapperIs(std::forward<Args>(args)...);
}

class MICA_MPLS_API MplsIsem2ResolverEntry
    : public Asic::TableResolverEntry<MplsIsem2Binding> {
public:
  using TableResolverEntry::TableResolverEntry;
  template <typename... Args>
  static Fwk::Ptr<MplsIsem2ResolverEntry> MplsIsem2ResolverEntryIs(Args &&...args) {
    return Fwk::make<MplsIsem2ResolverEntry>(std::forward<Args>(args)...);
  }

protected:
  ~MplsIsem2ResolverEntry() override;
};

// The same as MplsIsem2ResolverEntry::MplsIsem2ResolverEntryIs.
template <typename... Args> Fwk::Ptr<MplsIsem2ResolverEntry> mplsIsem2ResolverEntryFactory(Args &&...args) {
  return MplsIsem2ResolverEntry::MplsIsem2ResolverEntryIs(std::forward<Args>(args)...);
}

} // namespace MicaMpls
