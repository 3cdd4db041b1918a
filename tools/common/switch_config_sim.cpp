#include "switch_config_sim.h"

#include <algorithm>

#include "platform/sim/sim.h"
#include "snooping/dhcpSnoop.h"

namespace swcfg {

namespace {

// The simulation's default switch: 28 ports, 8 port channels.
constexpr uint32_t kDefaultPorts = 28;
constexpr uint32_t kDefaultPortChannels = 8;

}  // namespace

void applyToSim(const SwitchConfig& cfg)
{
    sim::setUnit(cfg.unit);
    sim::setUnits({cfg.unit});
    uint32_t ports = kDefaultPorts;
    uint32_t channels = kDefaultPortChannels;
    for (const auto& p : cfg.ports) {
        if (UP_KIND(p.handle) == UP_TYPE_PHYSICAL)
            ports = std::max(ports, UP_PORT(p.handle));
        else
            channels = std::max(channels, UP_PORT(p.handle));
    }
    sim::setPortCount(cfg.unit, ports);
    sim::setPortChannelCount(channels);
    if (cfg.hasMac) {
        sim::Mac mac;
        std::copy(cfg.mac.begin(), cfg.mac.end(), mac.begin());
        sim::setSwitchMac(mac);
    }
    for (const auto& p : cfg.ports) {
        sim::portCfg(p.handle) = swcfg::snoopRecord(p);
    }
    for (uint16_t vid : cfg.snoopingVlans)
        sim::setVlanSnooping(vid, true);
    sim::setQAddStatus(cfg.tableUpdates ? 1 : 0);
    sim::setIncludeIpFilter(cfg.ipFilter);
    sim::setIncludeArpDefend(cfg.arpDefend);
    sim::setDebugFlag(cfg.debug ? 1 : 0);
}

uint32_t applyToModule(const SwitchConfig& cfg)
{
    if (cfg.debugLevel == 0)
        return 0;
    return dhcpSnoopSetDebugLevel(cfg.debugLevel, 0);
}

}  // namespace swcfg
