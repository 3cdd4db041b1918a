// nftables commands through libnftables (see nft_table.h).
#include "platform/linux/nft_table.h"

#include <nftables/libnftables.h>

namespace live {
namespace nft {

Runner::Runner()
{
    ctx_ = nft_ctx_new(NFT_CTX_DEFAULT);
    if (ctx_) {
        nft_ctx_buffer_output(ctx_);
        nft_ctx_buffer_error(ctx_);
    }
}

Runner::~Runner()
{
    if (ctx_)
        nft_ctx_free(ctx_);
}

bool Runner::run(const std::string& text, std::string* output, std::string& error)
{
    std::lock_guard<std::mutex> g(lock_);
    if (!ctx_) {
        error = "nftables: no library context";
        return false;
    }
    int rc = nft_run_cmd_from_buffer(ctx_, text.c_str());
    // The buffers are read even when not wanted: each run starts them anew.
    const char* out = nft_ctx_get_output_buffer(ctx_);
    const char* err = nft_ctx_get_error_buffer(ctx_);
    if (output)
        *output = out ? out : "";
    if (rc != 0) {
        std::string e = err && *err ? err : "refused";
        // The library's message spans lines (the command, a marker): the
        // first one says what is wrong.
        size_t nl = e.find('\n');
        error = "nftables: " + (nl == std::string::npos ? e : e.substr(0, nl));
        return false;
    }
    return true;
}

}  // namespace nft
}  // namespace live
