// How quickly tamix answers a person, beside what the library itself takes
// for the same work, measured in one run: the console's start to its first
// prompt (and to the answer of a first command) against launching a kernel
// until it is ready, and a typed 1+1 until its answer is on the screen
// against sending the command and receiving its result through the library.
// Times are wall-clock: waiting is what is measured.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include <tamix/tamix.h>

#include "console/Pty.h"

namespace {

const std::string kBin = TAMIX_BIN_DIR;

// ---- The library alone ---------------------------------------------------------------

struct Client {
    bool ready = false;
    bool finished = false;
    std::string result;
};

Client& clientOf(TAM_KernelImpl* k)
{
    return *static_cast<Client*>(TAM_get_client_data(k));
}

TAM_KernelImpl* launch(Client& c)
{
    TAM_KernelImpl* k = TAM_new_uds_kernel((kBin + "/tamkern").c_str(), nullptr);
    if (!k)
        return nullptr;
    TAM_set_client_data(k, &c);
    TAM_set_on_init_wanted_handler(k, [](TAM_KernelImpl* k) {
        const std::string lib = kBin + "/../lib";
        const char* args[] = {"-l", lib.c_str()};
        TAM_send_init(k, 2, args);
    });
    TAM_set_on_kernel_ready_handler(k, [](TAM_KernelImpl* k) { clientOf(k).ready = true; });
    TAM_set_on_output_handler(k, [](TAM_KernelImpl* k, void*, const char*, const char*,
                                    const char* text) { clientOf(k).result = text; });
    TAM_set_on_finished_handler(k, [](TAM_KernelImpl* k, void*) { clientOf(k).finished = true; });
    TAM_send_new_client(k, nullptr, nullptr, TAM_FEATURE_CAN_QUIT);
    return k;
}

// The library's input loop in a poll loop of the caller's, until flag.
bool pumpUntil(TAM_KernelImpl* k, const bool& flag)
{
    while (!flag) {
        pollfd p = {TAM_get_client_fd(k), POLLIN, 0};
        if (poll(&p, 1, 10000) <= 0 || TAM_get_kernel_state(k) != TAM_KERNEL_RUNNING)
            return false;
        TAM_read_uds_input(p.fd);
    }
    return true;
}

void BM_Library_LaunchToReady(benchmark::State& state)
{
    for (auto _ : state) {
        Client c;
        TAM_KernelImpl* k = launch(c);
        if (!k || !pumpUntil(k, c.ready)) {
            state.SkipWithError("the kernel did not get ready");
            return;
        }
        state.PauseTiming();
        TAM_delete_kernel(k);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_Library_LaunchToReady)->Iterations(20)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_Library_RoundTrip(benchmark::State& state)
{
    Client c;
    TAM_KernelImpl* k = launch(c);
    if (!k || !pumpUntil(k, c.ready)) {
        state.SkipWithError("the kernel did not get ready");
        return;
    }
    for (auto _ : state) {
        c.finished = false;
        TAM_send_cmd(k, &c, "1+1");
        if (!pumpUntil(k, c.finished) || c.result != "2") {
            state.SkipWithError("no answer");
            break;
        }
    }
    TAM_delete_kernel(k);
}
BENCHMARK(BM_Library_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);

// ---- tamix in a terminal ---------------------------------------------------------------

// A terminal session of tamix with a history of its own.
struct Session {
    std::string home;
    Session()
    {
        char tmpl[] = "/tmp/tamixbenchXXXXXX";
        home = mkdtemp(tmpl) ? tmpl : "/tmp";
    }
    ~Session() { std::system(("rm -rf '" + home + "'").c_str()); }
    std::vector<std::string> env() const
    {
        return {"TERM=xterm-256color", "XDG_STATE_HOME=" + home, "INPUTRC=/dev/null"};
    }
};

void BM_Tamix_StartToPrompt(benchmark::State& state)
{
    Session s;
    for (auto _ : state) {
        tamixtest::Pty t({kBin + "/tamix"}, s.env());
        if (!t.expect(">> ", 10000)) {
            state.SkipWithError("no prompt");
            return;
        }
        state.PauseTiming();
        t.type("\004");
        t.exitStatus();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_Tamix_StartToPrompt)->Iterations(20)->UseRealTime()->Unit(benchmark::kMillisecond);

// The prompt comes before the kernel is ready; a command typed at once is
// answered once it is.
void BM_Tamix_StartToFirstAnswer(benchmark::State& state)
{
    Session s;
    for (auto _ : state) {
        tamixtest::Pty t({kBin + "/tamix"}, s.env());
        if (!t.expect(">> ", 10000)) {
            state.SkipWithError("no prompt");
            return;
        }
        t.type("1+1\r");
        if (!t.expect("1+1\n2\n>> ", 10000)) {
            state.SkipWithError("no answer");
            return;
        }
        state.PauseTiming();
        t.type("\004");
        t.exitStatus();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_Tamix_StartToFirstAnswer)
    ->Iterations(20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_Tamix_KeystrokeToAnswer(benchmark::State& state)
{
    Session s;
    tamixtest::Pty t({kBin + "/tamix"}, s.env());
    // Ready once a first command has been answered.
    t.type("0\r");
    if (!t.expect("0\n0\n>> ", 10000)) {
        state.SkipWithError("no first answer");
        return;
    }
    for (auto _ : state) {
        t.type("1+1\r");
        if (!t.expect("1+1\n2\n>> ", 10000)) {
            state.SkipWithError("no answer");
            break;
        }
    }
    t.type("\004");
    t.exitStatus();
}
BENCHMARK(BM_Tamix_KeystrokeToAnswer)->UseRealTime()->Unit(benchmark::kMicrosecond);

class Recorder : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                seconds[run.benchmark_name()] = run.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
    // measured / baseline, or a negative number when either is missing.
    double ratio(const std::string& measured, const std::string& baseline) const
    {
        auto m = seconds.find(measured), b = seconds.find(baseline);
        return m == seconds.end() || b == seconds.end() || b->second <= 0 ? -1
                                                                          : m->second / b->second;
    }
    std::map<std::string, double> seconds; // in each benchmark's own unit
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    Recorder r;
    benchmark::RunSpecifiedBenchmarks(&r);
    benchmark::Shutdown();
    // Both sides of each ratio are in the same unit.
    const struct {
        const char* what;
        const char* measured;
        const char* baseline;
    } ratios[] = {
        {"tamix start to first prompt / library launch to ready",
         "BM_Tamix_StartToPrompt/iterations:20/real_time",
         "BM_Library_LaunchToReady/iterations:20/real_time"},
        {"tamix start to first answer / library launch to ready",
         "BM_Tamix_StartToFirstAnswer/iterations:20/real_time",
         "BM_Library_LaunchToReady/iterations:20/real_time"},
        {"tamix keystroke to answer (1+1) / library round trip",
         "BM_Tamix_KeystrokeToAnswer/real_time", "BM_Library_RoundTrip/real_time"},
    };
    std::printf("\n%-56s %8s\n", "ratio", "value");
    for (const auto& x : ratios) {
        const double v = r.ratio(x.measured, x.baseline);
        if (v < 0)
            std::printf("%-56s %8s\n", x.what, "n/a");
        else
            std::printf("%-56s %8.2f\n", x.what, v);
    }
    return 0;
}
