#include "MicaMpls/MplsIsem2ResourceTableLinkage.h"

#include "MicaMpls/MplsIsem2SwTable.h"

namespace MicaMpls {

MplsIsem2InLifLinkage::~MplsIsem2InLifLinkage() = default;

} // namespace MicaMpls
