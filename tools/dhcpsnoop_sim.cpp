// Starts the snooping module on the simulated switch, lets a few seconds of
// virtual time pass with some administrative messages, and prints what the
// module did to the switch: resources, log lines, system-log entries.
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/sim/runner.h"
#include "platform/sim/sim.h"
#include "snooping/dhcpSnoop.h"

namespace {

void printSection(const char *title) { std::printf("\n== %s\n", title); }

void post(uint8_t type, up port)
{
    DhcpSnoopMsg msg;
    std::memset(&msg, 0, sizeof(msg));
    msg.type = type;
    msg.element.up = port;
    dhcpSnoopSendMsgToMainQueue(&msg, 0);
}

}  // namespace

int main()
{
    sim::reset();
    sim::setDebugFlag(1);
    sim::setVlanSnooping(10, true);

    uint32_t rv = dhcpSnoopInit();
    printSection("start-up");
    std::printf("dhcpSnoopInit() = %u\n", rv);
    for (const auto &e : sim::events())
        std::printf("  %s\n", e.c_str());
    if (rv != 0)
        return 1;
    simrun::startTasks();

    post(DHCP_SNOOP_MSG_CFG_CHANGE, 0);
    post(DHCP_SNOOP_MSG_PORT_CFG_9, sim::physicalPort(1, 3));
    simrun::advance(3000);

    printSection("module log (3 s of virtual time)");
    for (const auto &l : sim::logs())
        std::printf("  %s%s\n", l.error ? "ERROR " : "", l.message().c_str());
    printSection("system log");
    for (const auto &s : sim::syslog())
        std::printf("  0x%08X %s\n", s.code, s.text.c_str());
    printSection("port configuration calls");
    for (const auto &c : sim::setPortCfgCalls())
        std::printf("  %s\n", sim::portName(c.port).c_str());
    std::printf("\nmodule running: %u timer(s), %zu task(s), clock %llu ms\n",
                (unsigned)sim::timers().size(), sim::threads().size(),
                (unsigned long long)sim::nowMs());
    return 0;
}
