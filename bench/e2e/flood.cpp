// Sends 60-byte Ethernet frames (IPv4, UDP) out of an interface as fast as
// one thread can, for a number of seconds, and prints the frames sent, the
// seconds taken and the frames a second. For nftcost.sh: through a veth
// pair into a bridge, the sender's processor pays for the whole way across
// the bridge, so frames a second measure what the bridge's hooks cost.
//
//   flood IFNAME SRC-MAC DST-MAC SRC-IP DST-IP SECONDS
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

bool parseMac(const char* text, uint8_t* mac)
{
    return sscanf(text, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", mac, mac + 1, mac + 2, mac + 3, mac + 4, mac + 5) == 6;
}

uint16_t ipChecksum(const uint8_t* p, size_t len)
{
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < len; i += 2)
        sum += (uint32_t)(p[i] << 8 | p[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return (uint16_t)~sum;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 7) {
        fprintf(stderr, "usage: flood IFNAME SRC-MAC DST-MAC SRC-IP DST-IP SECONDS\n");
        return 2;
    }
    uint8_t f[60] = {};
    struct in_addr src, dst;
    double seconds = atof(argv[6]);
    unsigned ifindex = if_nametoindex(argv[1]);
    if (ifindex == 0 || !parseMac(argv[3], f) || !parseMac(argv[2], f + 6) || inet_pton(AF_INET, argv[4], &src) != 1 ||
        inet_pton(AF_INET, argv[5], &dst) != 1 || seconds < 0) {
        fprintf(stderr, "flood: bad argument\n");
        return 2;
    }
    f[12] = 0x08;  // IPv4
    uint8_t* ip = f + 14;
    ip[0] = 0x45;
    ip[3] = 46;  // total length: 20 + 8 + 18 bytes of payload
    ip[8] = 64;
    ip[9] = 17;  // UDP
    memcpy(ip + 12, &src, 4);
    memcpy(ip + 16, &dst, 4);
    uint16_t sum = ipChecksum(ip, 20);
    ip[10] = (uint8_t)(sum >> 8);
    ip[11] = (uint8_t)sum;
    uint8_t* udp = ip + 20;
    udp[0] = 0x9C, udp[1] = 0x40;  // 40000
    udp[3] = 9;                    // discard
    udp[5] = 26;                   // length; checksum 0: none

    int s = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    struct sockaddr_ll to;
    memset(&to, 0, sizeof to);
    to.sll_family = AF_PACKET;
    to.sll_ifindex = (int)ifindex;
    if (s < 0 || bind(s, reinterpret_cast<struct sockaddr*>(&to), sizeof to) != 0) {
        perror("flood: packet socket");
        return 1;
    }
    constexpr size_t kBatch = 64;
    std::vector<struct iovec> iov(kBatch);
    std::vector<struct mmsghdr> msgs(kBatch);
    for (size_t i = 0; i < kBatch; ++i) {
        iov[i] = {f, sizeof f};
        memset(&msgs[i], 0, sizeof msgs[i]);
        msgs[i].msg_hdr.msg_iov = &iov[i];
        msgs[i].msg_hdr.msg_iovlen = 1;
    }
    auto start = std::chrono::steady_clock::now();
    unsigned long long sent = 0;
    double took = 0;
    do {
        int n = sendmmsg(s, msgs.data(), kBatch, 0);
        if (n < 0 && errno != ENOBUFS && errno != EINTR) {
            perror("flood: sendmmsg");
            return 1;
        }
        if (n > 0)
            sent += (unsigned)n;
        took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    } while (took < seconds);
    printf("%llu %.3f %.0f\n", sent, took, took > 0 ? sent / took : 0.0);
    close(s);
    return 0;
}
