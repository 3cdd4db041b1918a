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
        /* 1 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 0x0800, 0, 8),    // else -> 10
        // Untagged IPv4, nearly every frame a port receives: its protocol
        // and destination port are read in four loads (the header's length
        // in one), and only a frame for port 67 or 68 is looked at closely.
        /* 2 */ stmt(BPF_LD | BPF_B | BPF_ABS, 23),
        /* 3 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 17, 0, 34),       // else -> 38
        /* 4 */ stmt(BPF_LDX | BPF_B | BPF_MSH, 14),
        /* 5 */ stmt(BPF_LD | BPF_H | BPF_IND, 16),
        /* 6 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 67, 1, 0),        // -> 8
        /* 7 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 68, 0, 30),       // else -> 38
        /* 8 */ stmt(BPF_LDX | BPF_W | BPF_IMM, 14),
        /* 9 */ stmt(BPF_JMP | BPF_JA, 11),                        // -> 21
        /* 10 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 0x8100, 7, 0),   // -> 18 (tag in the frame)
        /* 11 */ jump(BPF_JMP | BPF_JGT | BPF_K, 0x05DC, 26, 0),  // -> 38 reject: another type
        // 802.3 with SNAP: AA AA 03, OUI 00 00 00, type 08 00.
        /* 12 */ stmt(BPF_LD | BPF_W | BPF_ABS, 14),
        /* 13 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 0xAAAA0300, 0, 24),  // else -> 38
        /* 14 */ stmt(BPF_LD | BPF_W | BPF_ABS, 18),
        /* 15 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 0x00000800, 0, 22),  // else -> 38
        /* 16 */ stmt(BPF_LDX | BPF_W | BPF_IMM, 22),
        /* 17 */ stmt(BPF_JMP | BPF_JA, 3),                         // -> 21
        /* 18 */ stmt(BPF_LD | BPF_H | BPF_ABS, 16),
        /* 19 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 0x0800, 0, 18),    // else -> 38
        /* 20 */ stmt(BPF_LDX | BPF_W | BPF_IMM, 18),
        // X: where the IPv4 header starts. Version 4, header 20 bytes or more.
        /* 21 */ stmt(BPF_LD | BPF_B | BPF_IND, 0),
        /* 22 */ stmt(BPF_ALU | BPF_RSH | BPF_K, 4),
        /* 23 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 4, 0, 14),         // else -> 38
        /* 24 */ stmt(BPF_LD | BPF_B | BPF_IND, 9),
        /* 25 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 17, 0, 12),        // UDP, else -> 38
        // A later fragment has no UDP header.
        /* 26 */ stmt(BPF_LD | BPF_H | BPF_IND, 6),
        /* 27 */ jump(BPF_JMP | BPF_JSET | BPF_K, 0x1FFF, 10, 0),   // -> 38
        /* 28 */ stmt(BPF_LD | BPF_B | BPF_IND, 0),
        /* 29 */ stmt(BPF_ALU | BPF_AND | BPF_K, 0x0F),
        /* 30 */ jump(BPF_JMP | BPF_JGE | BPF_K, 5, 0, 7),          // else -> 38
        /* 31 */ stmt(BPF_ALU | BPF_LSH | BPF_K, 2),
        /* 32 */ stmt(BPF_ALU | BPF_ADD | BPF_X, 0),
        /* 33 */ stmt(BPF_MISC | BPF_TAX, 0),
        /* 34 */ stmt(BPF_LD | BPF_H | BPF_IND, 2),                 // UDP destination port
        /* 35 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 67, 1, 0),         // -> 37
        /* 36 */ jump(BPF_JMP | BPF_JEQ | BPF_K, 68, 0, 1),         // else -> 38
        /* 37 */ stmt(BPF_RET | BPF_K, 0xFFFF),
        /* 38 */ stmt(BPF_RET | BPF_K, 0),
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
            case BPF_MSH:
                if (cls != BPF_LDX || n != 1)
                    return 0;
                v = (load(i.k, 1, &ok) & 0x0F) * 4;
                break;
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
