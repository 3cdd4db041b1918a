// Fuzz target: the binding file loader over arbitrary file contents.
//
// Each input is written to the module's binding file in a private directory
// and loaded into a freshly started module, as start-up does. Afterwards the
// pool must still add up and the loader must have given back its buffer.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "platform/sim/sim.h"
#include "snooping/dhcpSnoopInternal.h"

namespace {

std::string gDir;

void removeDir()
{
    remove((gDir + "/dhcpSnoop.cfg").c_str());
    rmdir(gDir.c_str());
}

const std::string& fileRoot()
{
    static const std::string dir = [] {
        const char* base = getenv("TMPDIR");
        std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/dhcpsnoop-fuzz-XXXXXX";
        std::string buf = templ;
        if (mkdtemp(&buf[0]) == nullptr)
            abort();
        gDir = buf;
        atexit(removeDir);
        return buf;
    }();
    return dir;
}

// Bounded walk: a chain that does not end is a finding.
uint32_t filed(DhcpSnoopElement** table)
{
    uint32_t n = 0;
    for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; b++)
        for (DhcpSnoopElement* e = table[b]; e != nullptr; e = e->next)
            if (++n > DHCP_SNOOP_POOL_SIZE)
                abort();
    return n;
}

uint32_t freeCount()
{
    uint32_t n = 0;
    for (DhcpSnoopElement* e = tableMemPoolUnused; e != nullptr; e = e->next)
        if (++n > DHCP_SNOOP_POOL_SIZE)
            abort();
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string path = fileRoot() + "/dhcpSnoop.cfg";

    dhcpSnoopResetState();
    sim::reset();
    sim::setFileRoot(fileRoot());
    // Start without a file, then put the input in place.
    remove(path.c_str());
    if (dhcpSnoopInit() != 0)
        abort();
    dhcpSnoopGetFdbEntryTaskStart();
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr)
        abort();
    if (size > 0 && fwrite(data, size, 1, f) != 1)
        abort();
    fclose(f);

    // Debug lines on: their formats see the file's text too.
    sim::setDebugFlag(1);
    size_t allocs = sim::outstandingAllocs();
    initFlag = 1;
    uint32_t rv = dhcpSnoopLoadDynEntry(DHCP_SNOOP_CFG_FILE_PATH);
    initFlag = 0;
    (void)rv;

    // Left-out lines keep their element: one per "update flash." line.
    uint32_t leftOut = (uint32_t)sim::countMessage("update flash.");
    // The loader also logs the file's whole text: a file reading just
    // "update flash." is no left-out line.
    size_t textLen = strnlen(reinterpret_cast<const char*>(data), size < 34370 ? size : 34370);
    if (std::string(reinterpret_cast<const char*>(data), textLen) == "update flash.")
        leftOut--;
    uint32_t inTable = filed(dynamicTable) + filed(requestTable);
    if (mallocCounter != inTable + leftOut || freeCount() + inTable + leftOut != DHCP_SNOOP_POOL_SIZE)
        abort();
    if (sim::outstandingAllocs() != allocs || sim::badFrees() != 0)
        abort();
    // No save request while loading.
    if (sim::queueDepth(sim::queueByName(DHCP_SNOOP_SAVE_QUEUE_NAME)) != 0)
        abort();

    dhcpSnoopResetState();
    sim::reset();
    return 0;
}
