// The dynamic table and the source-guard table as sorted text lines, so that
// two runs of the module (or two builds of it) can be compared field by
// field. Shared by the stack tests and the interop program.
#pragma once

#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/sim/sim.h"
#include "snooping/dhcpSnoopInternal.h"

namespace stacktext {

// Every binding field that travels; the transient frame offsets and the
// links are the unit's own.
inline std::string bindingLine(const DhcpSnoopElement &e)
{
    char buf[160];
    snprintf(buf, sizeof buf,
             "binding ip=%u.%u.%u.%u vlan=%u mac=%02x:%02x:%02x:%02x:%02x:%02x port=%08x ttl=%u type=%u "
             "reuse=%u bcast=%u xid=%02x%02x%02x%02x",
             e.clientIp[0], e.clientIp[1], e.clientIp[2], e.clientIp[3], (unsigned)e.vlan, e.clientMac[0],
             e.clientMac[1], e.clientMac[2], e.clientMac[3], e.clientMac[4], e.clientMac[5], (unsigned)e.up,
             (unsigned)e.ttl, (unsigned)e.type, (unsigned)e.isReuse, (unsigned)e.isBroadcast, e.xid[0], e.xid[1],
             e.xid[2], e.xid[3]);
    return buf;
}

inline std::vector<std::string> tableLines()
{
    std::vector<std::string> out;
    if (dynamicTable == nullptr)
        return out;
    for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; b++) {
        uint32_t n = 0;
        for (DhcpSnoopElement *e = dynamicTable[b]; e != nullptr && n < DHCP_SNOOP_POOL_SIZE; e = e->next, n++)
            out.push_back(bindingLine(*e));
    }
    for (const SwQTableEntry &q : sim::qtable()) {
        char buf[96];
        snprintf(buf, sizeof buf, "guard ip=%u.%u.%u.%u vlan=%u mac=%02x:%02x:%02x:%02x:%02x:%02x port=%08x",
                 q.ip[0], q.ip[1], q.ip[2], q.ip[3], (unsigned)q.vlan, q.mac[0], q.mac[1], q.mac[2], q.mac[3],
                 q.mac[4], q.mac[5], (unsigned)q.port);
        out.push_back(buf);
    }
    std::sort(out.begin(), out.end());
    return out;
}

inline bool readFile(const std::string &path, std::vector<uint8_t> &bytes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

inline bool writeFile(const std::string &path, const std::vector<uint8_t> &bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), (std::streamsize)bytes.size());
    return (bool)out;
}

inline bool readLines(const std::string &path, std::vector<std::string> &lines)
{
    std::ifstream in(path);
    if (!in)
        return false;
    lines.clear();
    std::string line;
    while (std::getline(in, line))
        if (!line.empty())
            lines.push_back(line);
    return true;
}

}  // namespace stacktext
