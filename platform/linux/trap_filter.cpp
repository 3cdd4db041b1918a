// The trap sockets' classic BPF program (see trap_filter.h).
#include "platform/linux/trap_filter.h"

namespace live {
namespace trapfilter {
namespace {

struct sock_filter stmt(uint16_t code, uint32_t k) { return BPF_STMT(code, k); }
struct sock_filter jump(uint16_t code, uint32_t k, uint8_t jt, uint8_t jf) { return BPF_JUMP(code, k, jt, jf); }

}  // namespace

std::vector<struct sock_filter> program()
{
    // Jump offsets count from the next instruction; the labels are the
    // indexes written beside each line.
    return {
        /* 0 */ stmt(BPF_LD | BPF_H | BPF_ABS, 12),
        /* 1 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 0x0800, 0, 2),    // else -> 4
        // Untagged IPv4, nearly every frame a port receives: its protocol
        // sits at a fixed place whatever the header's length, so all but
        // UDP are refused here.
        /* 2 */ stmt(BPF_LD | BPF_B | BPF_ABS, 23),
        /* 3 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 17, 8, 31),       // -> 12 (IPv4 at 14), else -> 35
        /* 4 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 0x8100, 9, 0),    // -> 14 (tag in the frame)
        /* 5 */ jump(BPF_JMP | BPF_JGT | BPF_K, 0x05DC, 29, 0),   // -> 35 reject: another type
        // 802.3 with SNAP: AA AA 03, OUI 00 00 00, type 08 00.
        /* 6 */ stmt(BPF_LD | BPF_W | BPF_ABS, 14),
        /* 7 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 0xAAAA0300, 0, 27),  // else -> 35
        /* 8 */ stmt(BPF_LD | BPF_W | BPF_ABS, 18),
        /* 9 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 0x00000800, 0, 25),  // else -> 35
        /* 10 */ stmt(BPF_LDX | BPF_W | BPF_IMM, 22),
        /* 11 */ stmt(BPF_JMP | BPF_JA, 6),                         // -> 18
        /* 12 */ stmt(BPF_LDX | BPF_W | BPF_IMM, 14),
        /* 13 */ stmt(BPF_JMP | BPF_JA, 4),                         // -> 18
        /* 14 */ stmt(BPF_LD | BPF_H | BPF_ABS, 16),
        /* 15 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 0x0800, 0, 19),    // else -> 35
        /* 16 */ stmt(BPF_LDX | BPF_W | BPF_IMM, 18),
        /* 17 */ stmt(BPF_JMP | BPF_JA, 0),                         // -> 18
        // X: where the IPv4 header starts. Version 4, header 20 bytes or more.
        /* 18 */ stmt(BPF_LD | BPF_B | BPF_IND, 0),
        /* 19 */ stmt(BPF_ALU | BPF_RSH | BPF_K, 4),
        /* 20 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 4, 0, 14),         // else -> 35
        /* 21 */ stmt(BPF_LD | BPF_B | BPF_IND, 9),
        /* 22 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 17, 0, 12),        // UDP, else -> 35
        // A later fragment has no UDP header.
        /* 23 */ stmt(BPF_LD | BPF_H | BPF_IND, 6),
        /* 24 */ jump(BPF_JMP | BPF_JSET | BPF_K, 0x1FFF, 10, 0),   // -> 35
        /* 25 */ stmt(BPF_LD | BPF_B | BPF_IND, 0),
        /* 26 */ stmt(BPF_ALU | BPF_AND | BPF_K, 0x0F),
        /* 27 */ jump(BPF_JMP | BPF_JGE | BPF_K, 5, 0, 7),          // else -> 35
        /* 28 */ stmt(BPF_ALU | BPF_LSH | BPF_K, 2),
        /* 29 */ stmt(BPF_ALU | BPF_ADD | BPF_X, 0),
        /* 30 */ stmt(BPF_MISC | BPF_TAX, 0),
        /* 31 */ stmt(BPF_LD | BPF_H | BPF_IND, 2),                 // UDP destination port
        /* 32 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 67, 1, 0),         // -> 34
        /* 33 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 68, 0, 1),         // else -> 35
        /* 34 */ stmt(BPF_RET | BPF_K, 0xFFFF),
        /* 35 */ stmt(BPF_RET | BPF_K, 0),
    };
}

uint32_t run(const std::vector<struct sock_filter>& prog, const uint8_t* f, size_t len)
{
    uint32_t a = 0, x = 0;
    size_t pc = 0;
    auto load = [&](size_t at, size_t n, bool* ok) -> uint32_t {
        if (at + n > len || at + n < at) {
            *ok = false;
            return 0;
        }
        uint32_t v = 0;
        for (size_t i = 0; i < n; ++i)
            v = (v << 8) | f[at + i];
        return v;
    };
    while (pc < prog.size()) {
        const struct sock_filter& i = prog[pc++];
        bool ok = true;
        uint16_t cls = BPF_CLASS(i.code);
        if (cls == BPF_LD || cls == BPF_LDX) {
            size_t n = BPF_SIZE(i.code) == BPF_W ? 4 : BPF_SIZE(i.code) == BPF_H ? 2 : 1;
            uint32_t v;
            switch (BPF_MODE(i.code)) {
            case BPF_ABS: v = load(i.k, n, &ok); break;
            case BPF_IND: v = load((size_t)x + i.k, n, &ok); break;
            case BPF_IMM: v = i.k; break;
            default: return 0;
            }
            if (!ok)
                return 0;
            (cls == BPF_LD ? a : x) = v;
        } else if (cls == BPF_ALU) {
            uint32_t k = BPF_SRC(i.code) == BPF_X ? x : i.k;
            switch (BPF_OP(i.code)) {
            case BPF_ADD: a += k; break;
            case BPF_AND: a &= k; break;
            case BPF_LSH: a <<= k; break;
            case BPF_RSH: a >>= k; break;
            default: return 0;
            }
        } else if (cls == BPF_JMP) {
            if (BPF_OP(i.code) == BPF_JA) {
                pc += i.k;
                continue;
            }
            bool t;
            switch (BPF_OP(i.code)) {
            case BPF_JEQ: t = a == i.k; break;
            case BPF_JGT: t = a > i.k; break;
            case BPF_JGE: t = a >= i.k; break;
            case BPF_JSET: t = (a & i.k) != 0; break;
            default: return 0;
            }
            pc += t ? i.jt : i.jf;
        } else if (cls == BPF_RET) {
            return i.k;
        } else if (cls == BPF_MISC) {
            x = a;
        } else {
            return 0;
        }
    }
    return 0;
}

}  // namespace trapfilter
}  // namespace live
