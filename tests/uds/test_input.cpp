// The input loop against real kernel processes: split and joined messages,
// malformed input, closed sockets, and handlers that change the set of
// connections and processes while the loop walks over it.
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <cerrno>

#include "common/AllocCount.h"
#include "common/ScriptedKernel.h"

using namespace tamixtest;
using UdsInput = UdsTest;

namespace {

// A kernel that gives its one client id 1.
const std::string kBound = "listen\naccept\nwait_for <newclient\nsend <ready cl=\"1\"/>\n";
const std::string kText = "<output cl=\"1\" cid=\"0\"><text format=\"_lan\">",
                  kEnd = "</text></output>";
const std::string kFinished = "<finished cl=\"1\" cid=\"0\"/>";

int queued(int fd)
{
    int n = 0;
    return ioctl(fd, FIONREAD, &n) == 0 ? n : -1;
}

// Waits until at least n bytes wait in the socket.
bool waitQueued(int fd, int n = 1)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (queued(fd) < n && std::chrono::steady_clock::now() < end)
        usleep(2000);
    return queued(fd) >= n;
}

// Waits for the kernel's next piece and lets the input loop take all of it.
bool consumeNextPiece(TAM_KernelImpl* k)
{
    const int fd = TAM_get_client_fd(k);
    return waitQueued(fd) && pumpUntil([fd] { return queued(fd) == 0; });
}

} // namespace

// A stream of messages split, joined and long, cut short by a handler that
// deletes its own client.
TEST_F(UdsInput, MessagesSplitJoinedLongAndCutShort)
{
    const std::string big = kText + std::string(3000, 'x') + kEnd;
    Scenario s(kBound +
               "wait_for <stop\nsend <out\nwait_for <stop\nsend put cl=\"1\" cid=\"0\"><te\n"
               "wait_for <stop\nsend xt format=\"_lan\">a\\nb</text></output\nwait_for <stop\n"
               "send >" +
               kText + "c" + kEnd + kFinished + "\nwait_for <stop\nsend " + big +
               "\n"
               "wait_for <stop\nsend " +
               kFinished + kText + "late" + kEnd + "<ready cl=\"1\"/>\ndrain\n");
    TAM_KernelImpl* k = watch(launch("k"));
    ASSERT_EQ(TAM_send_new_client(k, nullptr, nullptr, 0), 1);
    ASSERT_TRUE(pumpUntil([] { return TAM_get_client_id(clients[0]) == 1; }));
    events.clear();
    // Nothing pending: a poll returns without delivering anything.
    TAM_handle_uds_input(0);
    ASSERT_EQ(TAM_send_stop(k), 1);
    // The wait blocks until the first piece comes; no piece completes the
    // message until the last one. The kernel sends each piece only when the
    // previous one has been read.
    TAM_handle_uds_input(1);
    for (int piece = 2; piece <= 3; ++piece) {
        ASSERT_TRUE(pumpUntil([k] { return queued(TAM_get_client_fd(k)) == 0; }));
        EXPECT_TRUE(events.empty()) << "before piece " << piece;
        ASSERT_EQ(TAM_send_stop(k), 1);
        ASSERT_TRUE(consumeNextPiece(k));
    }
    EXPECT_TRUE(events.empty()) << "the end tag's last byte is still to come";
    ASSERT_EQ(TAM_send_stop(k), 1);
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 3; }));
    EXPECT_EQ(events, (Strings{"output:0:a\nb", "output:0:c", "finished:0"}));
    // 3059 bytes take three calls of one read each.
    events.clear();
    ASSERT_EQ(TAM_send_stop(k), 1);
    ASSERT_TRUE(waitQueued(TAM_get_client_fd(k), static_cast<int>(big.size())));
    int calls = 0;
    for (; events.empty() && calls < 10; ++calls)
        TAM_handle_uds_input(1);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(events, Strings{"output:0:" + std::string(3000, 'x')});
    // The messages after "finished" in the same read reach nobody; the
    // deletion waits for the kernel, which ends when its socket closes.
    TAM_set_on_finished_handler(k, [](TAM_KernelImpl* k, void*) {
        events.push_back("finished");
        TAM_delete_kernel(k);
    });
    events.clear();
    ASSERT_EQ(TAM_send_stop(k), 1);
    TAM_handle_uds_input(1);
    EXPECT_EQ(events, Strings{"finished"});
    EXPECT_FALSE(alive(s.pid()));
    EXPECT_TRUE(names().empty());
    EXPECT_NE(s.received().find("<quit cl=\"1\"/>"), std::string::npos);
}

// In steady state a short command and the input-loop call that delivers its
// answer allocate nothing, counted for the whole process.
TEST_F(UdsInput, ShortCommandsAndTheirAnswersAllocateNothing)
{
    if (!allocationsCounted())
        GTEST_SKIP() << "AddressSanitizer owns malloc here";
    const int rounds = 40;
    std::string steps = kBound;
    for (int i = 0; i < rounds; ++i)
        steps += "wait_for </cmd>\nsend " + kText + "r" + kEnd + kFinished + "\n";
    Scenario s(steps + "drain\n");
    static int outputs = 0, finished = 0;
    TAM_KernelImpl* k = launch("k");
    TAM_set_on_output_handler(
        k, [](TAM_KernelImpl*, void*, const char*, const char*, const char*) { ++outputs; });
    TAM_set_on_finished_handler(k, [](TAM_KernelImpl*, void*) { ++finished; });
    ASSERT_EQ(TAM_send_new_client(k, nullptr, nullptr, 0), 1);
    ASSERT_TRUE(pumpUntil([k] { return TAM_get_client_id(k) == 1; }));
    const int fd = TAM_get_client_fd(k);
    long sendAllocs = 0, loopAllocs = 0;
    for (int i = 0; i < rounds; ++i) {
        const bool warm = i >= rounds / 2;
        int sent = 0;
        const long a = allocationsDuring([&] { sent = TAM_send_cmd(k, nullptr, "1+1"); });
        ASSERT_EQ(sent, 1);
        // The whole answer waits in the socket: one call reads and delivers it.
        ASSERT_TRUE(
            waitQueued(fd, static_cast<int>(kText.size() + kEnd.size() + kFinished.size()) + 1));
        const long b = allocationsDuring([] { TAM_handle_uds_input(0); });
        sendAllocs += warm ? a : 0;
        loopAllocs += warm ? b : 0;
    }
    EXPECT_EQ(sendAllocs, 0);
    EXPECT_EQ(loopAllocs, 0);
    EXPECT_EQ(outputs, rounds);
    EXPECT_EQ(finished, rounds);
    TAM_delete_kernel(k);
}

TEST_F(UdsInput, MalformedInputThenAClosedSocket)
{
    Scenario s(kBound + "wait_for <stop\nsend " + kText + "ok" + kEnd +
               "<<oops>\nwait_for <stop\nsend " + kFinished +
               "\nwait_for still there\nclose\nsleep_ms 300\nexit 0\n");
    TAM_KernelImpl* k = watch(launch("k"));
    ASSERT_EQ(TAM_send_new_client(k, nullptr, nullptr, 0), 1);
    ASSERT_TRUE(pumpUntil([] { return TAM_get_client_id(clients[0]) == 1; }));
    events.clear();
    ASSERT_EQ(TAM_send_stop(k), 1);
    ASSERT_TRUE(consumeNextPiece(k));
    ASSERT_EQ(TAM_send_stop(k), 1);
    ASSERT_TRUE(consumeNextPiece(k));
    // What came before the error was delivered, nothing after it, and
    // requests still reach the kernel.
    EXPECT_EQ(events, Strings{"output:0:ok"});
    const int fd = TAM_get_client_fd(k);
    ASSERT_EQ(TAM_send_cmd(k, nullptr, "still there"), 1);
    // The kernel closes its end without quitting: the call that reads the
    // end returns; after it the socket is no longer waited on, so a wait
    // blocks (here until a signal) instead of returning at once for ever.
    // Reading it directly still gives nothing at once; the process stays.
    ASSERT_TRUE(waitFor(
        [fd] {
            char c;
            return recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
        },
        5000));
    TAM_handle_uds_input(1);
    const Cost cost = untilSignal([] { TAM_handle_uds_input(1); }, 300);
    EXPECT_GE(cost.wallMs, 250);
    EXPECT_LT(cost.cpuMs, 100);
    TAM_read_uds_input(fd);
    EXPECT_EQ(TAM_get_client_fd(k), fd);
    EXPECT_EQ(names(), "k");
    // A send to the closed peer fails instead of raising SIGPIPE.
    EXPECT_EQ(TAM_send_cmd(k, nullptr, "anyone?"), 0);
    TAM_delete_kernel(k);
    EXPECT_NE(s.received().find("still there"), std::string::npos);
}

TEST_F(UdsInput, HandlerDeletesAndCreatesProcessesDuringTheWalk)
{
    const std::string steps =
        "listen\naccept\nwait_for <newclient\nwait_for <stop\nsend <ready cl=\"";
    Scenario sa(steps + "4\"/>\ndrain\nexit 0\n");
    TAM_KernelImpl* a = watch(launch("a"));
    Scenario sb(steps + "6\"/>\ndrain\nexit 0\n");
    TAM_KernelImpl* b = watch(launch("b"));
    ASSERT_TRUE(a && b);
    Scenario sc(kBound + "drain\nexit 0\n"); // played by the next kernel
    // a's handler takes b (its process and socket) away and starts c, which
    // may well take b's place in memory and b's descriptor.
    TAM_set_on_kernel_ready_handler(a, [](TAM_KernelImpl* k) {
        events.push_back("ready:" + who(k));
        TAM_delete_kernel(clients[1]);
        clients[1] = nullptr;
        TAM_send_new_client(watch(launch("c")), nullptr, nullptr, 0);
    });
    for (TAM_KernelImpl* k : {a, b}) {
        ASSERT_EQ(TAM_send_new_client(k, nullptr, nullptr, 0), 1);
        ASSERT_EQ(TAM_send_stop(k), 1);
    }
    // Both sockets are readable in the same call; a comes first. The walk
    // neither touches b nor reads c.
    ASSERT_TRUE(waitQueued(TAM_get_client_fd(a)) && waitQueued(TAM_get_client_fd(b)));
    TAM_handle_uds_input(0);
    EXPECT_EQ(events, Strings{"ready:0"});
    ASSERT_EQ(clients.size(), 3u);
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 2; }));
    for (int i = 0; i < 3; ++i) // whatever else has come is read now
        TAM_handle_uds_input(0);
    EXPECT_EQ(events, (Strings{"ready:0", "ready:2"}));
    EXPECT_EQ(names(), "a c");
    TAM_delete_kernel(clients[2]);
    TAM_delete_kernel(a);
    // c was announced once, by the handler.
    EXPECT_EQ(sc.received(), newClient("", "") + "<quit cl=\"1\"/>");
}

// What a front end with its own poll loop learns of a kernel that goes: the
// state that ended its stream, and the exit status of a launched kernel,
// reaped by the library so that the deletion does not wait.
TEST_F(UdsInput, KernelStateAndExitStatus)
{
    EXPECT_EQ(TAM_get_kernel_state(nullptr), -1);
    EXPECT_EQ(TAM_get_kernel_exit_status(nullptr, nullptr), 0);
    struct Case {
        const char* steps;
        int state;
        bool ends; // the kernel ends by itself once its stream has ended
        bool (*status)(int);
    };
    const Case cases[] = {
        {"close\nsleep_ms 300\nexit 3\n", TAM_KERNEL_CLOSED, true,
         [](int st) { return WIFEXITED(st) && WEXITSTATUS(st) == 3; }},
        {"kill\n", TAM_KERNEL_CLOSED, true,
         [](int st) { return WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL; }},
        {"send <<oops>\ndrain\nexit 0\n", TAM_KERNEL_MALFORMED, false, nullptr},
        {"send <quit/>\nsleep_ms 500\nexit 0\n", TAM_KERNEL_QUIT, false, nullptr},
        {"send <output cl=\"1\">\nrepeat 300 <a>\ndrain\nexit 0\n", TAM_KERNEL_OVER_LIMIT, false,
         nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.steps);
        Scenario s(kBound + c.steps);
        TAM_KernelImpl* k = launch();
        ASSERT_EQ(TAM_send_new_client(k, nullptr, nullptr, 0), 1);
        EXPECT_EQ(TAM_get_kernel_state(k), TAM_KERNEL_RUNNING);
        ASSERT_TRUE(pumpUntil([k] { return TAM_get_kernel_state(k) != TAM_KERNEL_RUNNING; }));
        EXPECT_EQ(TAM_get_kernel_state(k), c.state);
        int status = -1;
        if (c.ends) {
            // Reaped once the process is gone, by the loop or the query.
            ASSERT_TRUE(waitFor([&] { return TAM_get_kernel_exit_status(k, &status) == 1; }, 5000));
            EXPECT_TRUE(c.status(status)) << status;
            EXPECT_EQ(TAM_get_kernel_exit_status(k, nullptr), 1);
        } else {
            EXPECT_EQ(TAM_get_kernel_exit_status(k, &status), 0);
            EXPECT_EQ(status, -1);
        }
        // The state stays, and the loop goes on reading the socket as before.
        TAM_handle_uds_input(0);
        EXPECT_EQ(TAM_get_kernel_state(k), c.state);
        // Whatever ended the stream, a blocking call does not spin on it.
        ASSERT_TRUE(pumpUntil([k] { return queued(TAM_get_client_fd(k)) <= 0; }));
        const Cost cost = untilSignal([] { TAM_handle_uds_input(1); }, 200);
        EXPECT_GE(cost.wallMs, 150);
        EXPECT_LT(cost.cpuMs, 100);
        EXPECT_EQ(TAM_get_kernel_state(k), c.state);
        TAM_delete_kernel(k);
        EXPECT_FALSE(alive(s.pid()));
        errno = 0;
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    }
}

TEST_F(UdsInput, AJoinedKernelHasNoExitStatus)
{
    Scenario s("listen\naccept\naccept\nclose\nsleep_ms 100\nexit 0\n");
    TAM_KernelImpl* owner = launch();
    ASSERT_NE(owner, nullptr);
    TAM_KernelImpl* joined =
        withoutSocketFile(TAM_connect_uds_kernel(TAM_get_listen_path(owner), nullptr));
    ASSERT_NE(joined, nullptr);
    // The kernel closes the joined connection, then ends, closing the other.
    ASSERT_TRUE(pumpUntil([&] {
        return TAM_get_kernel_state(joined) == TAM_KERNEL_CLOSED &&
               TAM_get_kernel_state(owner) == TAM_KERNEL_CLOSED;
    }));
    ASSERT_TRUE(waitFor([&] { return TAM_get_kernel_exit_status(owner, nullptr) == 1; }, 5000));
    EXPECT_EQ(TAM_get_kernel_exit_status(joined, nullptr), 0);
    TAM_delete_kernel(joined);
    TAM_delete_kernel(owner);
}
