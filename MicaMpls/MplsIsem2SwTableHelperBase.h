// The helper hooks of the ISEM2 table (OrderedTable/InfraTypes.h): derive
// from MplsIsem2SwTableHelperBase and install it with swTableHelperIs() to run
// code when a change commits, fails, or when its resource changes.
#pragma once

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsIsem2Binding.h"
#include "OrderedTable/InfraTypes.h"

namespace MicaMpls {

class MICA_MPLS_API MplsIsem2SwTableHelperBase
    : public Asic::SwTableHelper<MplsIsem2Binding> {
public:
  MplsIsem2SwTableHelperBase() = default;
  template <typename... Args>
  static Fwk::Ptr<MplsIsem2SwTableHelperBase> MplsIsem2SwTableHelperBaseIs(Args &&...args) {
    return Fwk::make<MplsIsem2SwTableHelperBase>(std::forward<Args>(args)...);
  }

protected:
  ~MplsIsem2SwTableHelperBase() override;
};

// The same as MplsIsem2SwTableHelperBase::MplsIsem2SwTableHelperBaseIs.
template <typename... Args> Fwk::Ptr<MplsIsem2SwTableHelperBase> mplsIsem2SwTableHelperBaseFactory(Args &&...args) {
  return MplsIsem2SwTableHelperBase::MplsIsem2SwTableHelperBaseIs(std::forward<Args>(args)...);
}

} // namespace MicaMpls
