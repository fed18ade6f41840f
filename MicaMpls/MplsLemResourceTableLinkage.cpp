#include "MicaMpls/MplsLemResourceTableLinkage.h"

#include "MicaMpls/MplsLemSwTable.h"

namespace MicaMpls {

MplsLemL2AdjToFecLinkage::~MplsLemL2AdjToFecLinkage() = default;

Fwk::Ptr<MplsLemL2AdjToFecLinkage> MplsLemL2AdjToFecLinkage::MplsLemL2AdjToFecLinkageIs(MplsLemSwTable *table,
                                                  Fwk::Ptr<ClientInstance> client) {
  return Fwk::make<MplsLemL2AdjToFecLinkage>(table, std::move(client));
}

Fwk::Ptr<MplsLemL2AdjToFecLinkage> mplsLemL2AdjToFecLinkageFactory(MplsLemSwTable *table,
                            Fwk::Ptr<MplsLemL2AdjToFecLinkage::ClientInstance> client) {
  return MplsLemL2AdjToFecLinkage::MplsLemL2AdjToFecLinkageIs(table, std::move(client));
}

} // namespace MicaMpls
