// Fuzz target: the switch configuration file (TOML) over arbitrary text.
//
// A refused file gives one printable line naming the file; an accepted one
// holds only what the daemon and the module can take: ports of this unit that
// the module's receive walk reaches, VLANs in range, option 82 texts that fit
// their fields.
#include <stdint.h>
#include <stdlib.h>

#include <set>
#include <string>

#include "tools/common/switch_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    swcfg::SwitchConfig cfg;
    std::string error;
    if (!swcfg::parseSwitchConfig(text, "fuzz.toml", cfg, error)) {
        if (error.rfind("fuzz.toml:", 0) != 0)
            abort();
        for (char ch : error) {
            unsigned char c = (unsigned char)ch;
            if (c < 0x20 || c == 0x7F)
                abort();  // one printable line
        }
        return 0;
    }
    if (cfg.unit < 1 || cfg.unit > 8)
        abort();
    for (uint16_t v : cfg.snoopingVlans)
        if (v < 1 || v > 4094)
            abort();
    std::set<up> handles;
    for (const swcfg::PortConfig& p : cfg.ports) {
        if (!handles.insert(p.handle).second)
            abort();
        if (!swcfg::receivePortReachable(cfg.unit, p.handle, nullptr))
            abort();
        up again = UP_INVALID;
        if (!swcfg::parsePortName(p.name, &again) || again != p.handle)
            abort();
        if (p.vlan < 1 || p.vlan > 4094 || p.tags(p.vlan))
            abort();
        if (p.circuitId.size() > swcfg::kOp82TextMax || p.remoteId.size() > swcfg::kOp82TextMax)
            abort();
        DhcpSnoopPortCfg r = swcfg::snoopRecord(p);
        if (r.circuitId[sizeof r.circuitId - 1] != 0 || r.remoteId[sizeof r.remoteId - 1] != 0)
            abort();
        if (cfg.port(p.handle) == nullptr || cfg.port(p.name) == nullptr)
            abort();
    }
    return 0;
}
