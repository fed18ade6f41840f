// The interface of the ISEM2 table type: the generic table interface
// (OrderedTable/SwTableInterface.h) over the ISEM2 family, registered as
// "MicaMpls::MplsIsem2Interface".
//
//   auto intf = MicaMpls::MplsIsem2Interface::getIntf(orderedTableIntf);
//   auto table = intf->makeSwTable(unit, nullptr, false);
#pragma once

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsIsem2Binding.h"
#include "MicaMpls/MplsIsem2SwTable.h"
#include "OrderedTable/SwTableInterface.h"

namespace Asic {
// Instantiated once, in the library.
extern template class SwTableInterface<MicaMpls::MplsIsem2Binding>;
} // namespace Asic

namespace MicaMpls {

class MICA_MPLS_API MplsIsem2Interface
    : public Asic::SwTableInterface<MplsIsem2Binding> {
public:
  using SwTableInterface::SwTableInterface;

protected:
  ~MplsIsem2Interface() override;
};

} // namespace MicaMpls
