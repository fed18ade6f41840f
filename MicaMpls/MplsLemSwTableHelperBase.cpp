#include "MicaMpls/MplsLemSwTableHelperBase.h"

#include "MicaMpls/MplsLemSwTable.h"

namespace MicaMpls {

MplsLemSwTableHelperBase::~MplsLemSwTableHelperBase() = default;

Fwk::Ptr<MplsLemSwTableHelperBase> MplsLemSwTableHelperBase::MplsLemSwTableHelperBaseIs() {
  return Fwk::make<MplsLemSwTableHelperBase>();
}

Fwk::Ptr<MplsLemSwTableHelperBase> mplsLemSwTableHelperBaseFactory() {
  return MplsLemSwTableHelperBase::MplsLemSwTableHelperBaseIs();
}

} // namespace MicaMpls
