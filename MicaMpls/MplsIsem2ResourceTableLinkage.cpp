#include "MicaMpls/MplsIsem2ResourceTableLinkage.h"

#include "MicaMpls/MplsIsem2SwTable.h"

namespace MicaMpls {

MplsIsem2InLifLinkage::~MplsIsem2InLifLinkage() = default;

Fwk::Ptr<MplsIsem2InLifLinkage> MplsIsem2InLifLinkage::MplsIsem2InLifLinkageIs(MplsIsem2SwTable *table,
                                                  Fwk::Ptr<ClientInstance> client) {
  return Fwk::make<MplsIsem2InLifLinkage>(table, std::move(client));
}

Fwk::Ptr<MplsIsem2InLifLinkage> mplsIsem2InLifLinkageFactory(MplsIsem2SwTable *table,
                            Fwk::Ptr<MplsIsem2InLifLinkage::ClientInstance> client) {
  return MplsIsem2InLifLinkage::MplsIsem2InLifLinkageIs(table, std::move(client));
}

} // namespace MicaMpls
