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
  static Fwk::Ptr<MplsLemSwTableHelperBase> MplsLemSwTableHelperBaseIs();

protected:
  ~MplsLemSwTableHelperBase() override;
};

MICA_MPLS_API Fwk::Ptr<MplsLemSwTableHelperBase> mplsLemSwTableHelperBaseFactory();

} // namespace MicaMpls
