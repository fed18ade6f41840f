#include "OrderedTable/EntryLog.h"

namespace Asic {

EntryLogMessages registerEntryLogMessages() {
  EntryLogMessages m;
  m.exception = AgentLog::registerMessage(
      {"HW_ABSTRACTION_EXCEPTION", "%s", "Exception", 1, 3});
  m.relaunchError = AgentLog::registerMessage(
      {"HW_ABSTRACTION_RELAUNCH_ERROR", "%s",
       "Duplicate Writer Detected, slate path not cleaned up", 1, 3});
  m.error = AgentLog::registerMessage(
      {"HW_ABSTRACTION_ERROR",
       "Hardware abstraction error: unable to load item: %s",
       "Hardware abstraction error: unable to load some persistent items. "
       "Some agents will be restarted",
       1, 3});
  return m;
}

} // namespace Asic
