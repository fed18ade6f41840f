// The helper hooks of the LEM table (OrderedTable/InfraTypes.h): derive
// from MplsLemSwTableHelperBase and install it with swTableHelperIs() to run
// code when a change commits, fails, or when its resource changes.
#pragma once

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsLemBinding.h"
#include "OrderedTable/InfraTypes.h"

namespace MicaMpls {

class MICA_MPLS_API MplsLemSwTableHelperBase
    : public Asic::SwTableHelper<MplsLemBinding> {
public:
  MplsLemSwTableHelperBase() = default;
  template <typename... Args>
  static Fwk::Ptr<MplsLemSwTableHelperBase> MplsLemSwTableHelperBaseIs(Args &&...args) {
    return Fwk::make<MplsLemSwTableHelperBase>(std::forward<Args>(args)...);
  }

protected:
  ~MplsLemSwTableHelperBase() override;
};

// The same as MplsLemSwTableHelperBase::MplsLemSwTableHelperBaseIs.
template <typename... Args> Fwk::Ptr<MplsLemSwTableHelperBase> mplsLemSwTableHelperBaseFactory(Args &&...args) {
  return MplsLemSwTableHelperBase::MplsLemSwTableHelperBaseIs(std::forward<Args>(args)...);
}

} // namespace MicaMpls
