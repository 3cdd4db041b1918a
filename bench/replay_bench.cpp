// The replay tool at the scale of a real capture: generates captures of
// made-up access-switch traffic (tests/support/traffic.h: DHCP exchanges of
// many clients mixed with ordinary frames, or DHCP alone) into a scratch
// directory laid out as a replay example, replays each with
// dhcpsnoop-replay and reads the same files with tcpdump, --runs times each
// (the medians are reported: single runs on a shared machine move by a
// fifth), and reports wall time, frames a second and peak resident size of
// both, then whether the targets were met. Not a test: run by hand (see the
// README).
//
//   bench_replay [--replay PATH] [--scratch DIR] [--sizes N,N,...] [--mix mixed|dhcp|both]
//                [--runs N] [--keep]
#include <fcntl.h>
#include <pcap/pcap.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/traffic.h"

namespace fs = std::filesystem;

namespace {

struct RunStats {
    bool ok = false;
    double seconds = 0;     // wall clock
    double cpuSeconds = 0;  // user and system: what a loaded machine does not distort
    long maxRssKb = 0;
};

// Runs argv with standard output (and error unless keepStderr) to
// /dev/null; wall time and the child's peak resident size.
RunStats runChild(const std::vector<std::string>& argv, bool keepStderr = false)
{
    RunStats r;
    auto start = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid < 0)
        return r;
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        if (!keepStderr)
            dup2(null, 2);
        std::vector<char*> args;
        for (const auto& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    struct rusage ru;
    memset(&ru, 0, sizeof ru);
    if (wait4(pid, &status, 0, &ru) < 0)
        return r;
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    r.maxRssKb = ru.ru_maxrss;
    r.cpuSeconds = ru.ru_utime.tv_sec + ru.ru_utime.tv_usec / 1e6 + ru.ru_stime.tv_sec +
                   ru.ru_stime.tv_usec / 1e6;
    r.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return r;
}

bool generate(const fs::path& dir, const traffic::Spec& spec)
{
    fs::create_directories(dir);
    std::ofstream(dir / "switch.toml") << traffic::switchToml();
    pcap_t* dead = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t* d[2];
    for (size_t i = 0; i < 2; ++i) {
        std::string name = traffic::portOf(i);
        for (auto& c : name)
            if (c == '/')
                c = '_';
        d[i] = pcap_dump_open(dead, (dir / (name + ".pcap")).string().c_str());
        if (d[i] == nullptr) {
            fprintf(stderr, "bench_replay: %s\n", pcap_geterr(dead));
            return false;
        }
    }
    traffic::Generator gen(spec);
    size_t input;
    int64_t ts;
    const fb::Bytes* bytes;
    while (gen.next(&input, &ts, &bytes)) {
        struct pcap_pkthdr h;
        h.ts.tv_sec = (time_t)(ts / 1000000);
        h.ts.tv_usec = (suseconds_t)(ts % 1000000);
        h.caplen = h.len = (bpf_u_int32)bytes->size();
        pcap_dump(reinterpret_cast<u_char*>(d[input]), &h, bytes->data());
    }
    bool ok = true;
    for (auto* x : d) {
        ok = pcap_dump_flush(x) == 0 && ok;
        pcap_dump_close(x);
    }
    pcap_close(dead);
    return ok;
}

// The median run by wall time (CPU time of the same run), the highest
// peak resident size of all; not ok when any run failed.
RunStats medianOf(std::vector<RunStats> runs)
{
    RunStats m;
    if (runs.empty())
        return m;
    long rss = 0;
    bool ok = true;
    for (const RunStats& r : runs) {
        rss = std::max(rss, r.maxRssKb);
        ok = ok && r.ok;
    }
    std::sort(runs.begin(), runs.end(),
              [](const RunStats& a, const RunStats& b) { return a.seconds < b.seconds; });
    m = runs[runs.size() / 2];
    m.maxRssKb = rss;
    m.ok = ok;
    return m;
}

RunStats runMedian(const std::vector<std::string>& argv, unsigned runs, bool keepStderr = false)
{
    std::vector<RunStats> all;
    for (unsigned i = 0; i < runs; ++i)
        all.push_back(runChild(argv, keepStderr));
    return medianOf(all);
}

std::vector<uint64_t> parseSizes(const char* text)
{
    std::vector<uint64_t> out;
    std::string s = text;
    size_t at = 0;
    while (at <= s.size()) {
        size_t comma = s.find(',', at);
        std::string part = s.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
        if (!part.empty())
            out.push_back(std::strtoull(part.c_str(), nullptr, 10));
        if (comma == std::string::npos)
            break;
        at = comma + 1;
    }
    return out;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string replay = DHCPSNOOP_REPLAY_TOOL;
    std::string scratch = (fs::temp_directory_path() / "dhcpsnoop-bench-replay").string();
    std::vector<uint64_t> sizes = {100000, 1000000, 10000000};
    std::string mix = "both";
    bool keep = false;
    unsigned runs = 3;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--replay" && i + 1 < argc)
            replay = argv[++i];
        else if (a == "--scratch" && i + 1 < argc)
            scratch = argv[++i];
        else if (a == "--sizes" && i + 1 < argc)
            sizes = parseSizes(argv[++i]);
        else if (a == "--mix" && i + 1 < argc)
            mix = argv[++i];
        else if (a == "--runs" && i + 1 < argc)
            runs = (unsigned)std::max(1L, std::strtol(argv[++i], nullptr, 10));
        else if (a == "--keep")
            keep = true;
        else {
            fprintf(stderr,
                    "usage: bench_replay [--replay PATH] [--scratch DIR] [--sizes N,N,...] "
                    "[--mix mixed|dhcp|both] [--runs N] [--keep]\n");
            return 2;
        }
    }
    struct Mix {
        const char* name;
        unsigned percent;
    };
    std::vector<Mix> mixes;
    if (mix == "mixed" || mix == "both")
        mixes.push_back({"mixed", 10});
    if (mix == "dhcp" || mix == "both")
        mixes.push_back({"dhcp", 100});

    printf("medians of %u runs each\n\n", runs);
    printf("| capture | frames | DHCP frames | replay s (CPU s) | frames/s (per CPU s) | "
           "DHCP frames/s (per CPU s) | replay peak RSS | tcpdump -r s (CPU s) | tcpdump peak RSS |\n");
    printf("|---|---|---|---|---|---|---|---|---|\n");
    fflush(stdout);
    int rc = 0;
    // Targets: a million frames a second of the mixed capture, half a
    // million DHCP frames a second, under 64 MB resident and no growth
    // from the smallest capture to the largest.
    struct Seen {
        double worstMixed = -1, worstDhcp = -1;
        long rssMin = -1, rssMax = -1;
    } seen;
    for (const Mix& m : mixes) {
        for (uint64_t n : sizes) {
            traffic::Spec spec;
            spec.frames = n;
            spec.dhcpPercent = m.percent;
            fs::path dir = fs::path(scratch) / (std::string(m.name) + "-" + std::to_string(n));
            if (!fs::exists(dir / "switch.toml") && !generate(dir, spec)) {
                rc = 1;
                continue;
            }
            traffic::Counts c = traffic::Generator(spec).counts();
            uint64_t dhcp = c.dhcp[0] + c.dhcp[1];
            RunStats r = runMedian({replay, "--quiet", "--example", dir.string()}, runs, true);
            // tcpdump decodes and prints every frame of both files: what
            // reading the capture costs anyway.
            RunStats t[2];
            for (size_t i = 0; i < 2; ++i) {
                std::string name = traffic::portOf(i);
                for (auto& ch : name)
                    if (ch == '/')
                        ch = '_';
                t[i] = runMedian({"tcpdump", "-n", "-r", (dir / (name + ".pcap")).string()}, runs);
            }
            if (!r.ok) {
                rc = 1;
            } else {
                double fps = n / r.seconds, dps = dhcp / r.seconds;
                if (m.percent < 100 && (seen.worstMixed < 0 || fps < seen.worstMixed))
                    seen.worstMixed = fps;
                if (m.percent == 100 && (seen.worstDhcp < 0 || dps < seen.worstDhcp))
                    seen.worstDhcp = dps;
                seen.rssMin = seen.rssMin < 0 ? r.maxRssKb : std::min(seen.rssMin, r.maxRssKb);
                seen.rssMax = std::max(seen.rssMax, r.maxRssKb);
            }
            printf("| %s | %llu | %llu | %.2f (%.2f) | %.0f (%.0f) | %.0f (%.0f) | %.1f MB | %.2f (%.2f) | "
                   "%.1f MB |\n",
                   m.name, (unsigned long long)n, (unsigned long long)dhcp, r.seconds, r.cpuSeconds,
                   n / r.seconds, n / r.cpuSeconds, dhcp / r.seconds, dhcp / r.cpuSeconds,
                   r.maxRssKb / 1024.0, t[0].ok && t[1].ok ? t[0].seconds + t[1].seconds : -1.0,
                   t[0].cpuSeconds + t[1].cpuSeconds, std::max(t[0].maxRssKb, t[1].maxRssKb) / 1024.0);
            fflush(stdout);
            if (!keep)
                fs::remove_all(dir);
        }
    }
    printf("\ntargets (lowest median of each kind):\n");
    auto verdict = [](bool met) { return met ? "met" : "NOT met"; };
    if (seen.worstMixed >= 0)
        printf("  mixed capture >= 1,000,000 frames/s: %.0f, %s\n", seen.worstMixed,
               verdict(seen.worstMixed >= 1e6));
    if (seen.worstDhcp >= 0)
        printf("  DHCP frames >= 500,000 frames/s: %.0f, %s\n", seen.worstDhcp, verdict(seen.worstDhcp >= 5e5));
    if (seen.rssMax >= 0) {
        // "The same": within a tenth of the smallest (page-cache and
        // allocator noise), whatever the capture's size.
        bool flat = seen.rssMax <= seen.rssMin + seen.rssMin / 10;
        printf("  peak RSS < 64 MB and flat: %.1f to %.1f MB, %s\n", seen.rssMin / 1024.0, seen.rssMax / 1024.0,
               verdict(seen.rssMax < 64 * 1024 && flat));
    }
    return rc;
}
