#include "MicaMpls/MplsLemResourceTableLinkage.h"

#include "MicaMpls/MplsLemSwTable.h"

namespace MicaMpls {

MplsLemL2AdjToFecLinkage::~MplsLemL2AdjToFecLinkage() = default;

} // namespace MicaMpls
