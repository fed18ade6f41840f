// The LEM table's linkage to its resource table (OrderedTable/ResourceLinkage.h).
#pragma once

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsLemBinding.h"
#include "OrderedTable/ResourceLinkage.h"

namespace MicaMpls {

class MICA_MPLS_API MplsLemL2AdjToFecLinkage : public Asic::ResourceLinkage<MplsLemBinding> {
public:
  using ResourceLinkage::ResourceLinkage;
  template <typename... Args>
  static Fwk::Ptr<MplsLemL2AdjToFecLinkage> MplsLemL2AdjToFecLinkageIs(Args &&...args) {
    return Fwk::make<MplsLemL2AdjToFecLinkage>(std::forward<Args>(args)...);
  }

protected:
  ~MplsLemL2AdjToFecLinkage() override;
};

// The same as MplsLemL2AdjToFecLinkage::MplsLemL2AdjToFecLinkageIs.
template <typename... Args> Fwk::Ptr<MplsLemL2AdjToFecLinkage> mplsLemL2AdjToFecLinkageFactory(Args &&...args) {
  return MplsLemL2AdjToFecLinkage::MplsLemL2AdjToFecLinkageIs(std::forward<Args>(args)...);
}

} // namespace MicaMpls
