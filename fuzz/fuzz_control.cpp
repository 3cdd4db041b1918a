// Fuzz target: the control protocol as the daemon sees it, from a client it
// does not trust: one request line (as the server cuts it) through the
// decoder and the commands, against a backend that answers with fixed data
// and with texts taken from the input.
//
// Whatever comes in: a refusal is one printable line, a JSON answer holds no
// raw control character, a reply survives its encoding, and words that the
// decoder accepted encode back to the same words.
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "tools/daemon/command.h"
#include "tools/daemon/control.h"

namespace {

bool printableLine(const std::string& s)
{
    for (char ch : s) {
        unsigned char c = (unsigned char)ch;
        if (c < 0x20 || c == 0x7F)
            return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string input(reinterpret_cast<const char*>(data), size);
    // The server reads up to the first newline, at most kRequestMax bytes.
    size_t nl = input.find('\n');
    std::string line = input.substr(0, nl);
    if (line.size() >= ctl::kRequestMax)
        return 0;
    // Texts for the backend's answers: what follows the request.
    std::string extra = nl == std::string::npos ? std::string() : input.substr(nl + 1);

    std::vector<std::string> words;
    std::string error;
    if (!ctl::decodeRequest(line, words, error)) {
        if (!printableLine(error))
            abort();
        return 0;
    }

    ctl::Backend b;
    b.bindings = [&](std::vector<ctl::Binding>& out, std::string&) {
        ctl::Binding x;
        x.ip = {198, 18, 0, 23};
        x.mac = {2, 0, 0, 0, 0, 3};
        x.vlan = 10;
        x.port = "1/0/3";
        x.lease = extra.size() % 2 ? ctl::kLeaseForever : 3597;
        out = {x};
        return true;
    };
    b.remove = [](const ctl::BindingKey&, std::string&) { return true; };
    b.setDebug = [](bool) {};
    b.setDebugLevel = [](uint32_t level, uint32_t) { return level > 3 ? 1u : 0u; };
    b.counters = [&] {
        live::PortCounters c;
        c.name = "1/0/3";
        c.interface = extra;
        c.dropped[extra] = 1;
        return std::vector<live::PortCounters>{c};
    };
    b.events = [&] {
        live::Event e;
        e.unixMs = (uint64_t)extra.size() * 1000003u;
        e.text = extra;
        return std::vector<live::Event>{e};
    };
    b.saveStatus = [&] {
        live::SaveStatus s;
        s.path = extra;
        s.saving = extra.empty();
        return s;
    };
    b.latency = [&](bool) {
        live::Latency l;
        l.frames = extra.size();
        l.p50Us = (double)extra.size() / 3;
        l.p99Us = (double)extra.size() * 7;
        l.maxUs = 1e300 * (double)extra.size();
        return l;
    };

    ctl::Command cmd;
    bool parsed = ctl::parseCommand(words, cmd, error);
    ctl::Reply reply = ctl::runCommand(words, b);
    if (!parsed && reply.ok)
        abort();
    if (!reply.ok && !printableLine(reply.body))
        abort();
    if (reply.ok && parsed && cmd.json) {
        for (char ch : reply.body) {
            unsigned char c = (unsigned char)ch;
            if (c < 0x20 && c != '\n')
                abort();
        }
    }
    ctl::Reply back;
    if (!ctl::decodeReply(ctl::encodeReply(reply), back, error) || back.ok != reply.ok || back.body != reply.body)
        abort();

    std::string request;
    if (ctl::encodeRequest(words, request, error)) {
        std::vector<std::string> again;
        if (request.empty() || request.back() != '\n' ||
            !ctl::decodeRequest(request.substr(0, request.size() - 1), again, error) || again != words)
            abort();
    }
    return 0;
}
