// The ISEM2 table's linkage to its resource table (OrderedTable/ResourceLinkage.h).
#pragma once

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsIsem2Binding.h"
#include "OrderedTable/ResourceLinkage.h"

namespace MicaMpls {

class MICA_MPLS_API MplsIsem2InLifLinkage : public Asic::ResourceLinkage<MplsIsem2Binding> {
public:
  using ResourceLinkage::ResourceLinkage;
  template <typename... Args>
  static Fwk::Ptr<MplsIsem2InLifLinkage> MplsIsem2InLifLinkageIs(Args &&...args) {
    return Fwk::make<MplsIsem2InLifLinkage>(std::forward<Args>(args)...);
  }

protected:
  ~MplsIsem2InLifLinkage() override;
};

// The same as MplsIsem2InLifLinkage::MplsIsem2InLifLinkageIs.
template <typename... Args> Fwk::Ptr<MplsIsem2InLifLinkage> mplsIsem2InLifLinkageFactory(Args &&...args) {
  return MplsIsem2InLifLinkage::MplsIsem2InLifLinkageIs(std::forward<Args>(args)...);
}

} // namespace MicaMpls
