// The LEM table's linkage to its resource table (OrderedTable/ResourceLinkage.h).
#pragma once

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsLemBinding.h"
#include "OrderedTable/ResourceLinkage.h"

namespace MicaMpls {

class MICA_MPLS_API MplsLemL2AdjToFecLinkage : public Asic::ResourceLinkage<MplsLemBinding> {
public:
  using ResourceLinkage::ResourceLinkage;
  static Fwk::Ptr<MplsLemL2AdjToFecLinkage> MplsLemL2AdjToFecLinkageIs(MplsLemSwTable *table,
                                                Fwk::Ptr<ClientInstance> client);

protected:
  ~MplsLemL2AdjToFecLinkage() override;
};

MICA_MPLS_API Fwk::Ptr<MplsLemL2AdjToFecLinkage>
mplsLemL2AdjToFecLinkageFactory(MplsLemSwTable *table, Fwk::Ptr<MplsLemL2AdjToFecLinkage::ClientInstance> client);

} // namespace MicaMpls
