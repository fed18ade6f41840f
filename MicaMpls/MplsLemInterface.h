// The interface of the LEM table type: the generic table interface
// (OrderedTable/SwTableInterface.h) over the LEM family, registered as
// "MicaMpls::MplsLemInterface".
//
//   auto intf = MicaMpls::MplsLemInterface::getIntf(orderedTableIntf);
//   auto table = intf->makeSwTable(unit, nullptr, false);
#pragma once

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsLemBinding.h"
#include "MicaMpls/MplsLemSwTable.h"
#include "OrderedTable/SwTableInterface.h"

namespace Asic {
// Instantiated once, in the library.
extern template class SwTableInterface<MicaMpls::MplsLemBinding>;
} // namespace Asic

namespace MicaMpls {

class MICA_MPLS_API MplsLemInterface
    : public Asic::SwTableInterface<MplsLemBinding> {
public:
  using SwTableInterface::SwTableInterface;

protected:
  ~MplsLemInterface() override;
};

} // namespace MicaMpls
