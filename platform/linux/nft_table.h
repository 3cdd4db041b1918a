// nftables commands through libnftables: one text buffer, one netlink
// transaction, never the nft program. Native builds only.
#pragma once

#include <mutex>
#include <string>

struct nft_ctx;

namespace live {
namespace nft {

class Runner {
public:
    Runner();
    ~Runner();
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;
    // Runs every command of text at once; output (when given) gets what
    // the commands print. False with error, the library's message on one
    // line, when the kernel or the parser refused them: nothing changed.
    bool run(const std::string& text, std::string* output, std::string& error);

private:
    std::mutex lock_;
    struct nft_ctx* ctx_ = nullptr;
};

}  // namespace nft
}  // namespace live
