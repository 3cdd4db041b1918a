// Byte-order interoperability of the stack records: one build produces a
// snapshot and runtime records, another build (of the other byte order)
// applies them and must end with the same dynamic table.
//
//   stack_interop produce DIR   run as unit 1, write snapshot.bin,
//                               runtime-<n>.bin and expected.txt
//   stack_interop apply DIR     run as unit 2, apply them, compare
//
// Exit status 0 when everything matched, 1 otherwise.
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "platform/sim/runner.h"
#include "platform/sim/sim.h"
#include "snooping/dhcpSnoopInternal.h"
#include "snooping/dhcpSnoopWire.h"
#include "stack_table_text.h"

namespace {

using Bytes = std::vector<uint8_t>;

bool start(uint32_t unit, const std::string &dir)
{
    dhcpSnoopResetState();
    sim::reset();
    sim::setUnits({1, 2});
    sim::setUnit(unit);
    sim::setFileRoot(dir);
    if (dhcpSnoopInit() != DHCP_SNOOP_OK) {
        fprintf(stderr, "dhcpSnoopInit failed\n");
        return false;
    }
    simrun::startTasks();
    return true;
}

bool file(const uint8_t ip[4], uint16_t vlan, const uint8_t mac[6], up port, uint32_t ttl, uint8_t type,
          uint8_t reuse, uint8_t bcast, uint32_t xid)
{
    DhcpSnoopElement v;
    memset(&v, 0, sizeof v);
    memcpy(v.clientIp, ip, 4);
    v.vlan = vlan;
    memcpy(v.clientMac, mac, 6);
    v.up = port;
    v.ttl = ttl;
    v.type = type;
    v.isReuse = reuse;
    v.isBroadcast = bcast;
    v.opt82Pos = 0x1234;  // transient: never applied elsewhere
    v.endOptPos = 0x5678;
    dhcpSnoopPutU32(v.xid, xid);
    DhcpSnoopElement *e = dhcpSnoopGetMem();
    if (e == nullptr)
        return false;
    dhcpSnoopElementStore(e, &v);
    uint32_t rv = dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC);
    if (rv != 0) {
        fprintf(stderr, "dhcpSnoopElementAddNew: %u\n", rv);
        return false;
    }
    return true;
}

int produce(const std::string &dir)
{
    if (!start(1, dir))
        return 1;
    const uint8_t macA[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const uint8_t macB[6] = {0x02, 0xA0, 0xB1, 0xC2, 0xD3, 0xE4};
    const uint8_t macC[6] = {0xF0, 0x0D, 0xCA, 0xFE, 0x00, 0x07};
    const uint8_t ip1[4] = {10, 0, 0, 5}, ip2[4] = {10, 0, 1, 133}, ip3[4] = {192, 168, 200, 250};
    const uint8_t ip4[4] = {172, 16, 3, 4}, ip5[4] = {10, 0, 0, 5}, ip6[4] = {100, 64, 0, 1};
    bool ok = file(ip1, 10, macA, sim::physicalPort(1, 3), 3600, DHCP_SNOOP_TYPE_ACK, 0, 1, 0xDEADBEEFu) &&
              file(ip2, 10, macB, sim::physicalPort(1, 28), DHCP_SNOOP_TTL_FOREVER, DHCP_SNOOP_TYPE_ACK, 1, 0,
                   0x01020304u) &&
              file(ip3, 4094, macC, sim::portChannel(2), 86400, DHCP_SNOOP_TYPE_BOOTP_REPLY, 1, 1, 0xA5A55A5Au) &&
              file(ip4, 1, macA, sim::physicalPort(2, 7), 70000, DHCP_SNOOP_TYPE_ACK, 0, 0, 0x00000001u) &&
              /* Same IP on another VLAN. On a port channel: the source guard
               * keeps one entry per IP, and the receiver files the pair in
               * the other order. */
              file(ip5, 300, macC, sim::portChannel(8), 1, DHCP_SNOOP_TYPE_ACK, 0, 0, 0x80000000u);
    if (!ok)
        return 1;

    UsoData d{nullptr, 0};
    if (dhcpSnoopDataSyncGetCb(&d) != 0)
        return 1;
    Bytes snap(static_cast<uint8_t *>(d.data), static_cast<uint8_t *>(d.data) + d.len);
    dhcpSnoopDataSyncFreeCb(&d);
    if (!stacktext::writeFile(dir + "/snapshot.bin", snap))
        return 1;

    // Changes after the snapshot travel as runtime records.
    sim::clearRuntimeRecords();
    if (!file(ip6, 77, macB, sim::physicalPort(1, 12), 12345, DHCP_SNOOP_TYPE_ACK, 0, 1, 0x0BADF00Du))
        return 1;
    if (!file(ip2, 10, macA, sim::physicalPort(2, 2), 600, DHCP_SNOOP_TYPE_ACK, 0, 0, 0x11223344u))
        return 1;  // replaces: a delete record, then an add record
    DhcpSnoopElement key;
    memset(&key, 0, sizeof key);
    memcpy(key.clientIp, ip3, 4);
    key.vlan = 4094;
    memcpy(key.clientMac, macC, 6);
    if (dhcpSnoopElementDelete(dhcpSnoopElementSearchByIpVlanMac(&key, DHCP_SNOOP_ELEMENT_DYNAMIC),
                               DHCP_SNOOP_ELEMENT_DYNAMIC) != 0)
        return 1;
    const std::vector<Bytes> &records = sim::runtimeRecords();
    for (size_t i = 0; i < records.size(); i++)
        if (!stacktext::writeFile(dir + "/runtime-" + std::to_string(i + 1) + ".bin", records[i]))
            return 1;

    FILE *f = fopen((dir + "/expected.txt").c_str(), "w");
    if (f == nullptr)
        return 1;
    for (const std::string &line : stacktext::tableLines())
        fprintf(f, "%s\n", line.c_str());
    fclose(f);
    printf("produced %u records in the snapshot, %zu runtime records\n", (unsigned)(snap.size() - 8) / 48,
           records.size());
    return 0;
}

int apply(const std::string &dir)
{
    Bytes snap;
    std::vector<std::string> expected;
    if (!stacktext::readFile(dir + "/snapshot.bin", snap) || !stacktext::readLines(dir + "/expected.txt", expected)) {
        fprintf(stderr, "%s: snapshot.bin or expected.txt missing\n", dir.c_str());
        return 1;
    }
    if (!start(2, dir))
        return 1;
    int status = 0;
    UsoData d{snap.data(), (uint32_t)snap.size()};
    uint32_t rv = dhcpSnoopDataSyncSetCb(&d, nullptr);
    if (rv != 0) {
        fprintf(stderr, "dhcpSnoopDataSyncSetCb: %u\n", rv);
        status = 1;
    }
    size_t n = 0;
    for (int i = 1;; i++) {
        Bytes r;
        if (!stacktext::readFile(dir + "/runtime-" + std::to_string(i) + ".bin", r))
            break;
        n++;
        UsoData rd{r.data(), (uint32_t)r.size()};
        rv = dhcpSnoopRuntimeDataHnd(&rd);
        if (rv != 0) {
            fprintf(stderr, "dhcpSnoopRuntimeDataHnd(runtime-%d.bin): %u\n", i, rv);
            status = 1;
        }
    }
    std::vector<std::string> got = stacktext::tableLines();
    if (got != expected) {
        status = 1;
        for (const std::string &l : expected)
            fprintf(stderr, "expected: %s\n", l.c_str());
        for (const std::string &l : got)
            fprintf(stderr, "got:      %s\n", l.c_str());
    }
    printf("applied %u snapshot records and %zu runtime records: %s\n", (unsigned)(snap.size() - 8) / 48, n,
           status == 0 ? "tables equal" : "MISMATCH");
    return status;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s produce|apply DIR\n", argv[0]);
        return 2;
    }
    std::string cmd = argv[1];
    if (cmd == "produce")
        return produce(argv[2]);
    if (cmd == "apply")
        return apply(argv[2]);
    fprintf(stderr, "usage: %s produce|apply DIR\n", argv[0]);
    return 2;
}
