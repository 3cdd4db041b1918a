// Measures the two ways of asking the kernel bridge's FDB: the mirror kept
// by notifications and one RTM_GETNEIGH per look-up (see rtnl_fdb.h).
//   fdb_lookup_bench BRIDGE MAC [COUNT]
// The bridge data plane keeps the faster one; the README gives the figures.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/linux/rtnl_fdb.h"

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: fdb_lookup_bench BRIDGE MAC [COUNT]\n");
        return 2;
    }
    unsigned m[6];
    if (sscanf(argv[2], "%x:%x:%x:%x:%x:%x", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]) != 6) {
        fprintf(stderr, "fdb_lookup_bench: %s is not a MAC address\n", argv[2]);
        return 2;
    }
    uint8_t mac[6];
    for (int i = 0; i < 6; ++i)
        mac[i] = (uint8_t)m[i];
    long count = argc > 3 ? atol(argv[3]) : 10000;
    std::string error;
    live::rtnl::Link br;
    if (!live::rtnl::getLink(argv[1], br, error)) {
        fprintf(stderr, "fdb_lookup_bench: %s\n", error.c_str());
        return 1;
    }
    live::rtnl::FdbMirror mirror;
    if (!mirror.start(br.ifindex, error)) {
        fprintf(stderr, "fdb_lookup_bench: %s\n", error.c_str());
        return 1;
    }
    using Clock = std::chrono::steady_clock;
    int port = 0;
    long found = 0;
    auto t0 = Clock::now();
    for (long i = 0; i < count; ++i)
        found += mirror.lookup(mac, 0, &port) ? 1 : 0;
    auto t1 = Clock::now();
    long foundQ = 0;
    for (long i = 0; i < count; ++i)
        foundQ += live::rtnl::queryFdb(br.ifindex, mac, 0, &port) ? 1 : 0;
    auto t2 = Clock::now();
    double mirrorNs = std::chrono::duration<double, std::nano>(t1 - t0).count() / (double)count;
    double queryNs = std::chrono::duration<double, std::nano>(t2 - t1).count() / (double)count;
    printf("FDB entries mirrored: %zu\n", mirror.size());
    printf("mirror:               %10.0f ns a look-up (%ld of %ld found)\n", mirrorNs, found, count);
    printf("RTM_GETNEIGH query:   %10.0f ns a look-up (%ld of %ld found)\n", queryNs, foundQ, count);
    mirror.stop();
    return found == count && foundQ == count ? 0 : 1;
}
