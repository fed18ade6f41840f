// The ISEM2 table's linkage to its resource table (OrderedTable/ResourceLinkage.h).
#pragma once

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsIsem2Binding.h"
#include "OrderedTable/ResourceLinkage.h"

namespace MicaMpls {

class MICA_MPLS_API MplsIsem2InLifLinkage : public Asic::ResourceLinkage<MplsIsem2Binding> {
public:
  using ResourceLinkage::ResourceLinkage;
  static Fwk::Ptr<MplsIsem2InLifLinkage> MplsIsem2InLifLinkageIs(MplsIsem2SwTable *table,
                                                Fwk::Ptr<ClientInstance> client);

protected:
  ~MplsIsem2InLifLinkage() override;
};

MICA_MPLS_API Fwk::Ptr<MplsIsem2InLifLinkage>
mplsIsem2InLifLinkageFactory(MplsIsem2SwTable *table, Fwk::Ptr<MplsIsem2InLifLinkage::ClientInstance> client);

} // namespace MicaMpls
