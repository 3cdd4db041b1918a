// Puts a switch configuration on the simulated platform.
#pragma once

#include "switch_config.h"

namespace swcfg {

// Before dhcpSnoopInit: the switch model (unit, port counts large enough for
// the ports named, MAC), every port's snooping record, the snooped VLANs, the
// table-update status, the source-guard switches and the debug switch.
void applyToSim(const SwitchConfig& cfg);

// After dhcpSnoopInit: the module's own settings (debug level bits).
// Returns the result of dhcpSnoopSetDebugLevel.
uint32_t applyToModule(const SwitchConfig& cfg);

}  // namespace swcfg
