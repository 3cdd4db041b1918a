// dhcpsnoop-replay: what a snooping switch would have done with captured
// DHCP traffic. See the README's "dhcpsnoop-replay" section.
#include <stdlib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "pcap_io.h"
#include "platform/sim/sim.h"
#include "replay.h"

namespace fs = std::filesystem;

namespace {

enum Exit {
    kOk = 0,
    kFailed = 1,      // the module did not start, or another failure of the run
    kUsage = 2,
    kBadConfig = 3,
    kBadCapture = 4,
    kBadOutput = 5,
};

// Examples: $DHCPSNOOP_EXAMPLES, ../share/dhcpsnoop/examples beside an
// installed binary, or the source tree the tool was built from. An installed
// tool uses its own examples even where its source tree is still around.
std::string examplesDir()
{
    const char* env = getenv("DHCPSNOOP_EXAMPLES");
    if (env != nullptr && *env != '\0')
        return env;
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        fs::path p = exe.parent_path() / ".." / "share" / "dhcpsnoop" / "examples";
        if (fs::is_directory(p))
            return p.lexically_normal().string();
    }
#ifdef DHCPSNOOP_EXAMPLES_DIR
    if (fs::is_directory(DHCPSNOOP_EXAMPLES_DIR))
        return DHCPSNOOP_EXAMPLES_DIR;
#endif
    return "examples";
}

int fail(int code, const std::string& message)
{
    std::cerr << "dhcpsnoop-replay: " << message << "\n";
    return code;
}

// A line on standard error that keeps being rewritten while a long replay
// runs: frames so far, switch time, frames a second. Shown once the run has
// taken a second, on a terminal only.
class ProgressLine {
public:
    explicit ProgressLine(bool on) : on_(on), start_(Clock::now()), last_(start_) {}

    void update(const replay::Progress& p)
    {
        if (!on_)
            return;
        Clock::time_point now = Clock::now();
        double running = std::chrono::duration<double>(now - start_).count();
        if (running < 1.0 || (shown_ && std::chrono::duration<double>(now - last_).count() < 0.25))
            return;
        last_ = now;
        char line[160];
        snprintf(line, sizeof line, "\r%llu frames, %s s of switch time, %.0f frames/s\x1b[K",
                 (unsigned long long)p.frames, replay::relTime((int64_t)p.switchMs * 1000).c_str(),
                 (double)p.frames / running);
        fputs(line, stderr);
        fflush(stderr);
        shown_ = true;
    }

    // Takes the line away, before anything else is written to the terminal.
    void clear()
    {
        if (!shown_)
            return;
        fputs("\r\x1b[K", stderr);
        fflush(stderr);
        shown_ = false;
    }

private:
    using Clock = std::chrono::steady_clock;
    bool on_;
    bool shown_ = false;
    Clock::time_point start_;
    Clock::time_point last_;
};

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{
        "Replays captured DHCP traffic through the DHCP snooping module on a simulated switch\n"
        "and shows what the switch would have done: frames sent per port, frames dropped and\n"
        "why, bindings learned, the binding file, system-log events.\n"
        "Without --config and --in it runs the built-in example.",
        "dhcpsnoop-replay"};
    std::string configPath;
    std::vector<std::string> ins;
    std::string outDir;
    double drainSeconds = 0;
    bool debug = false;
    bool quiet = false;
    size_t listed = 20;
    std::string example;
    app.add_option("--config", configPath, "The switch, in TOML (see the README)")
        ->type_name("FILE");
    app.add_option("--in", ins,
                   "Frames received on PORT (\"1/0/3\", \"po1\"), from a pcap or pcapng file; "
                   "repeat for more captures")
        ->type_name("PORT=PCAP");
    app.add_option("--out", outDir,
                   "Write per-port pcaps, bindings.json, events.json and the binding file here")
        ->type_name("DIR");
    app.add_option("--drain", drainSeconds,
                   "Let the switch clock run on this long after the last frame (aging, timers)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 86400.0 * 366));
    app.add_flag("--debug", debug, "Also print the module's debug lines");
    app.add_flag("--quiet", quiet, "No progress line on standard error");
    app.add_option("--list", listed,
                   "Show at most N dropped frames, bindings and system-log entries (default 20; "
                   "the files of --out hold them all)")
        ->type_name("N");
    app.add_option("--example", example,
                   "Run a shipped example (a name under the examples directory, or a directory "
                   "holding switch.toml and captures named after ports, e.g. 1_0_3.pcap); "
                   "the default when no --config is given is \"basic\"")
        ->type_name("NAME|DIR");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kUsage;
    }

    if (!example.empty() && (!configPath.empty() || !ins.empty()))
        return fail(kUsage, "--example cannot be combined with --config or --in");
    if (configPath.empty() && !ins.empty())
        return fail(kUsage, "--in needs --config: the switch the captures were taken on");
    if (!configPath.empty() && ins.empty())
        return fail(kUsage, "no captures: name them with --in PORT=PCAP");

    std::string error;
    swcfg::SwitchConfig cfg;
    std::vector<replay::Input> inputs;
    std::vector<std::string> paths;
    if (configPath.empty()) {
        // A name is looked up among the shipped examples; a path is taken as it is.
        fs::path dir = example.empty() ? "basic" : example;
        if (example.empty() || (example.find('/') == std::string::npos && !fs::is_directory(dir)))
            dir = fs::path(examplesDir()) / dir;
        if (!fs::is_directory(dir))
            return fail(kUsage, "example " + dir.string() +
                                    ": no such directory (set DHCPSNOOP_EXAMPLES to the "
                                    "examples directory)");
        if (!replay::loadExample(dir.string(), cfg, inputs, paths, error))
            return fail(error.find("switch.toml") != std::string::npos ? kBadConfig : kUsage, error);
        std::cout << "Example " << dir.string() << "\n";
    } else {
        if (!swcfg::loadSwitchConfig(configPath, cfg, error))
            return fail(kBadConfig, error);
        for (const auto& spec : ins) {
            size_t eq = spec.find('=');
            if (eq == std::string::npos || eq == 0 || eq + 1 == spec.size())
                return fail(kUsage, "--in " + spec + ": expected PORT=PCAP");
            std::string port = spec.substr(0, eq);
            std::string path = spec.substr(eq + 1);
            if (cfg.port(port) == nullptr) {
                up h;
                return fail(kUsage, "--in " + spec + ": " +
                                        (swcfg::parsePortName(port, &h)
                                             ? "port " + port + " is not in " + configPath
                                             : "\"" + port + "\" is not a port name"));
            }
            inputs.push_back({port, fs::path(path).filename().string()});
            paths.push_back(path);
        }
    }
    for (const auto& in : inputs)
        std::cout << "  " << in.port << " <- " << in.file << "\n";
    std::cout << "\n";

    // Every capture is opened before the first frame: a missing or foreign
    // file stops the run before it starts.
    std::vector<std::unique_ptr<replay::CaptureSource>> captures;
    std::vector<replay::Source*> sources;
    for (const auto& path : paths) {
        captures.push_back(std::make_unique<replay::CaptureSource>());
        if (!captures.back()->open(path, error))
            return fail(kBadCapture, error);
        sources.push_back(captures.back().get());
    }
    replay::OutputDir out;
    if (!outDir.empty() && !out.open(outDir, inputs, error))
        return fail(kBadOutput, error);

    ProgressLine progress(!quiet && isatty(2) != 0);
    replay::Options opt;
    opt.drainMs = (uint64_t)std::llround(drainSeconds * 1000);
    if (debug || cfg.debug)
        opt.debugOut = &std::cout;
    if (!outDir.empty())
        opt.output = &out;
    opt.listed = listed;
    opt.progress = [&progress](const replay::Progress& p) { progress.update(p); };
    opt.note = [&progress](const std::string& line) {
        progress.clear();
        std::cerr << line << "\n";
    };
    replay::Result r;
    bool ran = replay::run(cfg, inputs, sources, opt, r, error);
    progress.clear();
    if (!ran && r.failure == replay::Result::Failure::setup)
        return fail(kFailed, error);
    // A capture that fails half-way still gives what was replayed up to
    // there: the summary and the outputs, then the error.
    if (opt.debugOut != nullptr)
        std::cout << "\n";
    std::cout << replay::summary(cfg, inputs, r, listed);
    if (!ran && r.failure == replay::Result::Failure::output)
        return fail(kBadOutput, error);
    if (!outDir.empty()) {
        std::string outError;
        if (!out.finish(r, outError))
            return fail(kBadOutput, outError);
        std::cout << "\nOutputs in " << outDir << "\n";
    }
    if (!ran)
        return fail(kBadCapture, error + " (the frames before it were replayed)");
    return kOk;
}
