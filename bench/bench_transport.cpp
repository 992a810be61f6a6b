// The library against the sockets: receiving large results, command round
// trips, allocations of the input loop and the command writer, and a
// kernel's start-up. Every baseline is what a program needs that does the
// same without the library: a raw Unix-socket client of the same trivial
// kernel, or a program that only starts Giac.
#include <sys/wait.h>
#include <unistd.h>

#include <list>
#include <memory>
#include <string>

#include "bench_budgets.h"
#include "bench_clients.h"
#include "bench_wire.h"
#include "common/AllocCount.h"

namespace {

using benchwire::kResultSizes;
using tamixtest::allocationsDuring;

const char* sizeName(long n)
{
    switch (n) {
    case 10000:
        return "10^4";
    case 100000:
        return "10^5";
    case 1000000:
        return "10^6";
    default:
        return "10^7";
    }
}

std::string bigCommand(long n)
{
    return "big " + std::to_string(n);
}

// ---- one large result ---------------------------------------------------------

// Both readers fresh in their own processes, joining one kernel.
void BM_ResultFirstInProcess(benchmark::State& state)
{
    const long n = state.range(0);
    std::unique_ptr<LibClient> kernel(LibClient::launch(TAMIX_BENCH_KERNEL));
    if (!kernel)
        return state.SkipWithError("no kernel");
    Pairs pairs(state, Clock::Wall);
    int round = 0;
    for (auto _ : state) {
        const bool libFirst = ++round % 2;
        const double first = timeInChild(libFirst ? "lib" : "raw", kernel->listenPath(), n);
        const double second = timeInChild(libFirst ? "raw" : "lib", kernel->listenPath(), n);
        const double lib = libFirst ? first : second, raw = libFirst ? second : first;
        if (lib < 0 || raw < 0)
            return state.SkipWithError("a helper process failed");
        pairs.add(lib, raw);
    }
    pairs.report(Goal::AtMost);
}

// A new kernel process (connection) for each round, in this process.
void BM_ResultFirstOnConnection(benchmark::State& state)
{
    const long n = state.range(0);
    const std::string command = bigCommand(n);
    Pairs pairs(state, Clock::Wall);
    for (auto _ : state) {
        std::unique_ptr<LibClient> lib(LibClient::launch(TAMIX_BENCH_KERNEL));
        RawClient raw;
        if (!lib || !raw.open(lib->listenPath()))
            return state.SkipWithError("no kernel");
        bool ok = true;
        pairs.round([&] { ok &= lib->run(command.c_str()); }, [&] { ok &= raw.run(command); });
        if (!ok || raw.received() < n)
            return state.SkipWithError("a result did not come whole");
    }
    pairs.report(Goal::AtMost);
}

// The same connections again and again.
void BM_ResultRepeated(benchmark::State& state)
{
    const long n = state.range(0);
    const std::string command = bigCommand(n);
    std::unique_ptr<LibClient> lib(LibClient::launch(TAMIX_BENCH_KERNEL));
    RawClient raw;
    if (!lib || !raw.open(lib->listenPath()))
        return state.SkipWithError("no kernel");
    lib->measureOutput(true);
    if (!lib->run(command.c_str()) || lib->lastOutputLength() != n || !raw.run(command))
        return state.SkipWithError("a result did not come whole");
    lib->measureOutput(false);
    Pairs pairs(state, Clock::Wall);
    bool ok = true;
    for (auto _ : state)
        pairs.round([&] { ok &= lib->run(command.c_str()); }, [&] { ok &= raw.run(command); });
    if (!ok)
        return state.SkipWithError("a request failed");
    pairs.report(Goal::AtMost);
}

// Fewer rounds for the larger sizes, which take long.
const bool kReceiveRegistered = [] {
    for (long n : kResultSizes) {
        const int rounds = n >= 10000000 ? 9 : n >= 100000 ? 15 : 21;
        struct Variant {
            const char* name;
            void (*fn)(benchmark::State&);
            const char* what;
        } const variants[] = {
            {"BM_ResultFirstInProcess", BM_ResultFirstInProcess, "first in the process"},
            {"BM_ResultFirstOnConnection", BM_ResultFirstOnConnection, "first on a connection"},
            {"BM_ResultRepeated", BM_ResultRepeated, "again on a connection"},
        };
        for (const Variant& v : variants) {
            benchmark::RegisterBenchmark(v.name, v.fn)
                ->Arg(n)
                ->Iterations(rounds)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
            // The table keeps pointers to the texts: they stay here.
            static std::list<std::string> texts;
            texts.push_back(std::string("one result of ") + sizeName(n) + " characters, " + v.what +
                            ", vs raw read");
            const char* row = texts.back().c_str();
            texts.push_back(std::string(v.name) + "/" + std::to_string(n) +
                            "/iterations:" + std::to_string(rounds) + "/manual_time");
            addBudget({row, texts.back().c_str(), "ratio", Goal::AtMost, 3.0});
        }
    }
    return true;
}();

// ---- round trips --------------------------------------------------------------

const int kTrips = 200;

bool trips(LibClient& c, const char* command)
{
    for (int i = 0; i < kTrips; ++i)
        if (!c.run(command))
            return false;
    return true;
}

bool trips(RawClient& c, const char* command)
{
    for (int i = 0; i < kTrips; ++i)
        if (!c.run(command))
            return false;
    return true;
}

void roundTrips(benchmark::State& state, LibClient* measured)
{
    std::unique_ptr<LibClient> owner(measured);
    std::unique_ptr<LibClient> floorKernel(LibClient::launch(TAMIX_BENCH_KERNEL));
    RawClient raw;
    if (!measured || !floorKernel || !raw.open(floorKernel->listenPath()))
        return state.SkipWithError("no kernel");
    bool ok = trips(*measured, "1") && trips(raw, "1"); // warm-up
    Pairs pairs(state, Clock::Wall);
    for (auto _ : state)
        pairs.round([&] { ok &= trips(*measured, "1"); }, [&] { ok &= trips(raw, "1"); });
    if (!ok)
        return state.SkipWithError("a round trip failed");
    pairs.report(Goal::AtMost, kTrips);
}

void BM_RoundTrip(benchmark::State& state)
{
    roundTrips(state, LibClient::launch(TAMIX_BENCH_KERNEL));
}
BENCHMARK(BM_RoundTrip)->Iterations(15)->UseManualTime();
const bool kRoundTripBudget =
    addBudget({"command round trip through the library vs raw client, trivial kernel",
               "BM_RoundTrip/iterations:15/manual_time", "ratio", Goal::AtMost, 1.1});

// ---- allocations ----------------------------------------------------------------

// Whole-process allocations of the input loop and the command writer in
// steady state, per call.
void BM_AllocationsPerCall(benchmark::State& state)
{
    if (!tamixtest::allocationsCounted())
        return state.SkipWithError("allocations are not counted in this build");
    std::unique_ptr<LibClient> c(LibClient::launch(TAMIX_BENCH_KERNEL));
    if (!c || !trips(*c, "x"))
        return state.SkipWithError("no kernel");
    long sendAllocs = 0, loopAllocs = 0, loopCalls = 0, sends = 0;
    TAM_KernelImpl* k = c->kernel();
    for (auto _ : state) {
        for (int i = 0; i < 100; ++i) {
            int sent = 0;
            sendAllocs += allocationsDuring([&] { sent = TAM_send_cmd(k, nullptr, "x"); });
            if (!sent)
                return state.SkipWithError("a request failed");
            ++sends;
            // The answer comes in one piece: one call reads and delivers it.
            loopAllocs += allocationsDuring([] { TAM_handle_uds_input(1); });
            ++loopCalls;
        }
    }
    state.counters["allocs_per_send_cmd"] = double(sendAllocs) / double(sends);
    state.counters["allocs_per_input_call"] = double(loopAllocs) / double(loopCalls);
}
BENCHMARK(BM_AllocationsPerCall)->Iterations(10);
const bool kAllocBudgets =
    addBudget({"heap allocations per TAM_handle_uds_input call (whole process)",
               "BM_AllocationsPerCall/iterations:10", "allocs_per_input_call", Goal::AtMost, 0}) &&
    addBudget({"heap allocations per short TAM_send_cmd (whole process)",
               "BM_AllocationsPerCall/iterations:10", "allocs_per_send_cmd", Goal::AtMost, 0});

#ifdef TAMIX_TAMKERN

void BM_RoundTripTamkern(benchmark::State& state)
{
    roundTrips(state, LibClient::launch(TAMIX_TAMKERN, TAMIX_TAMKERN_LIBDIR));
}
BENCHMARK(BM_RoundTripTamkern)->Iterations(9)->UseManualTime();
const bool kTamkernTripBudget =
    addBudget({"round trip of 1 through tamkern vs raw client, trivial kernel",
               "BM_RoundTripTamkern/iterations:9/manual_time", "ratio", Goal::AtMost, 2.0});

// ---- kernel start-up ----------------------------------------------------------

// Launch to the first moment Giac can compute: the bare program has made its
// context and evaluated 1+1 when it writes its byte.
double bareGiacStart()
{
    int out[2];
    if (pipe(out) != 0)
        return -1;
    const double t0 = now(Clock::Wall);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        close(out[0]);
        close(out[1]);
        execl(TAMIX_BENCH_GIAC, "tamix_bench_giac", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    char c;
    const bool ok = pid > 0 && read(out[0], &c, 1) == 1 && c == '1'; // 1+1 gave 2
    const double seconds = now(Clock::Wall) - t0;
    close(out[0]);
    if (pid > 0)
        waitpid(pid, nullptr, 0);
    return ok ? seconds : -1;
}

void BM_KernelStart(benchmark::State& state)
{
    Pairs pairs(state, Clock::Wall);
    int round = 0;
    for (auto _ : state) {
        double lib = -1, bare = -1;
        auto launch = [&] {
            const double t0 = now(Clock::Wall);
            LibClient* c = LibClient::launch(TAMIX_TAMKERN, TAMIX_TAMKERN_LIBDIR);
            lib = c ? now(Clock::Wall) - t0 : -1;
            delete c; // waits for the kernel to end
        };
        if (++round % 2) {
            launch();
            bare = bareGiacStart();
        } else {
            bare = bareGiacStart();
            launch();
        }
        if (lib < 0 || bare < 0)
            return state.SkipWithError("a start failed");
        pairs.add(lib, bare);
    }
    pairs.report(Goal::AtMost);
}
BENCHMARK(BM_KernelStart)->Iterations(21)->UseManualTime()->Unit(benchmark::kMillisecond);
const bool kStartBudget =
    addBudget({"tamkern launch to ready through the library vs bare Giac start",
               "BM_KernelStart/iterations:21/manual_time", "ratio", Goal::AtMost, 1.15});

#endif

} // namespace
