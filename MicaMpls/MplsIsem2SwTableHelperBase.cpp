#include "MicaMpls/MplsIsem2SwTableHelperBase.h"

#include "MicaMpls/MplsIsem2SwTable.h"

namespace MicaMpls {

MplsIsem2SwTableHelperBase::~MplsIsem2SwTableHelperBase() = default;

Fwk::Ptr<MplsIsem2SwTableHelperBase> MplsIsem2SwTableHelperBase::MplsIsem2SwTableHelperBaseIs() {
  return Fwk::make<MplsIsem2SwTableHelperBase>();
}

Fwk::Ptr<MplsIsem2SwTableHelperBase> mplsIsem2SwTableHelperBaseFactory() {
  return MplsIsem2SwTableHelperBase::MplsIsem2SwTableHelperBaseIs();
}

} // namespace MicaMpls
