// The input loop against real kernel processes: reads, split and joined
// messages, malformed input, closed sockets, and handlers that change the
// set of connections and processes while the loop walks over it.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/ioctl.h>

#include "uds/ScriptedKernel.h"

using namespace tamixtest;

namespace {

std::vector<std::string> events;
TAM_KernelImpl* victim = nullptr;     // deleted by a handler
TAM_KernelImpl* created = nullptr;    // created by a handler
const Scenario* nextScenario = nullptr;

void onReady(TAM_KernelImpl* k) { events.push_back("ready:" + std::to_string(TAM_get_client_id(k))); }
void onOutput(TAM_KernelImpl*, void*, const char*, const char*, const char* text) {
    events.push_back(std::string("output:") + text);
}
void onFinished(TAM_KernelImpl*, void*) { events.push_back("finished"); }

std::vector<std::string> clientFiles;

// Launches a scripted kernel, announces one client and waits for its id.
TAM_KernelImpl* launchBound(const char* name = nullptr) {
    TAM_KernelImpl* k = TAM_new_uds_kernel(Scenario::kernelPath(), name);
    if (!k)
        return nullptr;
    clientFiles.push_back(boundPath(TAM_get_client_fd(k)));
    TAM_set_on_kernel_ready_handler(k, onReady);
    TAM_set_on_output_handler(k, onOutput);
    TAM_set_on_finished_handler(k, onFinished);
    if (TAM_send_new_client(k, nullptr, nullptr, 0) != 1 ||
        !pumpUntil([k] { return TAM_get_client_id(k) >= 0; })) {
        TAM_delete_kernel(k);
        return nullptr;
    }
    return k;
}

class UdsInput : public ::testing::Test {
protected:
    void SetUp() override {
        events.clear();
        victim = created = nullptr;
        nextScenario = nullptr;
        // A loop that blocks for good fails the test instead of the suite.
        alarm(30);
    }
    void TearDown() override {
        alarm(0);
        for (const std::string& p : clientFiles)
            unlink(p.c_str());
    }
};

const char* kBound = "listen\naccept\nwait_for <newclient\nsend <ready cl=\"1\"/>\n";

} // namespace

TEST_F(UdsInput, NothingRegisteredReturnsAtOnce) {
    TAM_handle_uds_input(0);
    TAM_handle_uds_input(1);
    TAM_read_uds_input(0);
    TAM_read_uds_input(-1);
    char** names = TAM_get_uds_kernel_names();
    ASSERT_NE(names, nullptr);
    EXPECT_EQ(names[0], nullptr);
    TAM_free(names);
}

TEST_F(UdsInput, MessageSplitAcrossReadsIsDeliveredOnce) {
    Scenario s(std::string(kBound) +
               "wait_for <stop\n"
               "send <output cl=\"1\" cid=\"0\"><text format=\"_lan\">hel\n"
               "wait_for <stop\n"
               "send lo</text></output><finished cl=\"1\" cid=\"0\"/>\n"
               "drain\nexit 0\n");
    TAM_KernelImpl* k = launchBound();
    ASSERT_NE(k, nullptr);
    events.clear();
    // Nothing pending: a poll returns without delivering anything.
    TAM_handle_uds_input(0);
    // Blocks until the first half is there, then reads it.
    ASSERT_EQ(TAM_send_stop(k), 1);
    TAM_handle_uds_input(1);
    EXPECT_TRUE(events.empty());
    ASSERT_EQ(TAM_send_stop(k), 1);
    TAM_handle_uds_input(1);
    EXPECT_EQ(events, (std::vector<std::string>{"output:hello", "finished"}));
    TAM_handle_uds_input(0);
    EXPECT_EQ(events.size(), 2u);
    TAM_delete_kernel(k);
}

TEST_F(UdsInput, PiecesWithPausesAcrossTicks) {
    Scenario s(std::string(kBound) +
               "send <out\nsleep_ms 150\nsend put cl=\"1\" cid=\"0\"><te\nsleep_ms 150\n"
               "send xt format=\"_lan\">a\\nb</text></output\nsleep_ms 150\nsend >\n"
               "drain\nexit 0\n");
    TAM_KernelImpl* k = launchBound();
    ASSERT_NE(k, nullptr);
    events.clear();
    ASSERT_TRUE(pumpUntil([] { return !events.empty(); }));
    EXPECT_EQ(events, std::vector<std::string>{"output:a\nb"});
    TAM_delete_kernel(k);
}

TEST_F(UdsInput, SeveralMessagesInOneReadInStreamOrder) {
    Scenario s(std::string(kBound) +
               "wait_for <stop\n"
               "send <output cl=\"1\" cid=\"0\"><text format=\"_lan\">a</text></output>"
               "<output cl=\"1\" cid=\"0\"><text format=\"_lan\">b</text></output>"
               "<finished cl=\"1\" cid=\"0\"/>\n"
               "drain\nexit 0\n");
    TAM_KernelImpl* k = launchBound();
    ASSERT_NE(k, nullptr);
    events.clear();
    ASSERT_EQ(TAM_send_stop(k), 1);
    TAM_handle_uds_input(1);
    EXPECT_EQ(events, (std::vector<std::string>{"output:a", "output:b", "finished"}));
    TAM_delete_kernel(k);
}

TEST_F(UdsInput, AtMost1024BytesPerProcessAndCall) {
    // 3000 characters of text in 3059 bytes: three reads.
    Scenario s(std::string(kBound) +
               "wait_for <stop\n"
               "send <output cl=\"1\" cid=\"0\"><text format=\"_lan\">\n"
               "sendrep 3000 x\n"
               "send </text></output>\n"
               "drain\nexit 0\n");
    TAM_KernelImpl* k = launchBound();
    ASSERT_NE(k, nullptr);
    events.clear();
    ASSERT_EQ(TAM_send_stop(k), 1);
    // Wait until all of it is in the socket.
    int fd = TAM_get_client_fd(k);
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    int queued = 0;
    const int total = static_cast<int>(strlen("<output cl=\"1\" cid=\"0\"><text format=\"_lan\">") +
                                       3000 + strlen("</text></output>"));
    while (ioctl(fd, FIONREAD, &queued) == 0 && queued < total &&
           std::chrono::steady_clock::now() < end)
        usleep(10000);
    ASSERT_EQ(queued, total);
    int calls = 0;
    while (events.empty() && calls < 10) {
        TAM_handle_uds_input(1);
        ++calls;
    }
    EXPECT_EQ(calls, 3);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], "output:" + std::string(3000, 'x'));
    TAM_delete_kernel(k);
}

TEST_F(UdsInput, MalformedInputEndsDeliveryButNotTheConnection) {
    Scenario s(std::string(kBound) +
               "wait_for <stop\n"
               "send <output cl=\"1\" cid=\"0\"><text format=\"_lan\">ok</text></output><<oops>\n"
               "sleep_ms 100\nsend <finished cl=\"1\" cid=\"0\"/>\n"
               "wait_for <cmd\ndrain\nexit 0\n");
    TAM_KernelImpl* k = launchBound();
    ASSERT_NE(k, nullptr);
    events.clear();
    ASSERT_EQ(TAM_send_stop(k), 1);
    pumpUntil([] { return false; }, 500);
    // What came before the error was delivered, nothing after it.
    EXPECT_EQ(events, std::vector<std::string>{"output:ok"});
    // Requests still reach the kernel.
    EXPECT_EQ(TAM_send_cmd(k, nullptr, "still there"), 1);
    TAM_delete_kernel(k);
    EXPECT_NE(s.received().find("still there"), std::string::npos);
}

TEST_F(UdsInput, ClosedSocketWithoutQuitKeepsTheProcess) {
    Scenario s(std::string(kBound) + "close\nsleep_ms 300\nexit 0\n");
    TAM_KernelImpl* k = launchBound("gone");
    ASSERT_NE(k, nullptr);
    int fd = TAM_get_client_fd(k);
    usleep(100000);
    // Each call finds the socket readable and reads 0 bytes; none blocks.
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i)
        TAM_handle_uds_input(1);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 1.0);
    EXPECT_EQ(TAM_get_client_fd(k), fd);
    // A send to the closed peer fails instead of raising SIGPIPE.
    EXPECT_EQ(TAM_send_cmd(k, nullptr, "anyone?"), 0);
    char** names = TAM_get_uds_kernel_names();
    ASSERT_NE(names, nullptr);
    ASSERT_NE(names[0], nullptr);
    EXPECT_STREQ(names[0], "gone");
    TAM_free(names[0]);
    TAM_free(names);
    TAM_delete_kernel(k);
}

TEST_F(UdsInput, ReadInputForOneDescriptor) {
    Scenario s(std::string(kBound) +
               "wait_for <stop\nsend <finished cl=\"1\" cid=\"0\"/>\ndrain\nexit 0\n");
    TAM_KernelImpl* k = launchBound();
    ASSERT_NE(k, nullptr);
    events.clear();
    ASSERT_EQ(TAM_send_stop(k), 1);
    usleep(200000);
    int fd = TAM_get_client_fd(k);
    // Descriptors of no registered process are ignored.
    TAM_read_uds_input(fd + 100);
    TAM_read_uds_input(-1);
    EXPECT_TRUE(events.empty());
    TAM_read_uds_input(fd);
    EXPECT_EQ(events, std::vector<std::string>{"finished"});
    TAM_delete_kernel(k);
}

TEST_F(UdsInput, ReadInputDropsAQuittingProcess) {
    Scenario s(std::string(kBound) + "wait_for <stop\nsend <quit/>\ndrain\nexit 0\n");
    TAM_KernelImpl* k = launchBound("rq");
    ASSERT_NE(k, nullptr);
    ASSERT_EQ(TAM_send_stop(k), 1);
    usleep(200000);
    TAM_read_uds_input(TAM_get_client_fd(k));
    EXPECT_EQ(TAM_get_client_fd(k), -1);
    char** names = TAM_get_uds_kernel_names();
    ASSERT_NE(names, nullptr);
    EXPECT_EQ(names[0], nullptr);
    TAM_free(names);
    TAM_delete_kernel(k);
}

namespace {
void finishedDeletesItself(TAM_KernelImpl* k, void*) {
    events.push_back("finished");
    TAM_delete_kernel(k);
}
} // namespace

TEST_F(UdsInput, HandlerDeletesItsOwnConnection) {
    // The messages after "finished" in the same read must not reach the
    // deleted client, and the process goes away once the read is done.
    Scenario s(std::string(kBound) +
               "wait_for <stop\n"
               "send <finished cl=\"1\" cid=\"0\"/>"
               "<output cl=\"1\" cid=\"0\"><text format=\"_lan\">late</text></output>"
               "<ready cl=\"1\"/>\n"
               "drain\nexit 0\n");
    TAM_KernelImpl* k = launchBound("self");
    ASSERT_NE(k, nullptr);
    TAM_set_on_finished_handler(k, finishedDeletesItself);
    pid_t pid = s.pid();
    events.clear();
    ASSERT_EQ(TAM_send_stop(k), 1);
    // The deletion waits for the kernel, which ends when its socket closes.
    TAM_handle_uds_input(1);
    EXPECT_EQ(events, std::vector<std::string>{"finished"});
    EXPECT_FALSE(processExists(pid));
    char** names = TAM_get_uds_kernel_names();
    ASSERT_NE(names, nullptr);
    EXPECT_EQ(names[0], nullptr);
    TAM_free(names);
    EXPECT_NE(s.received().find("<quit cl=\"1\"/>"), std::string::npos);
}

namespace {
void readyDeletesVictim(TAM_KernelImpl* k) {
    onReady(k);
    if (victim) {
        TAM_delete_kernel(victim);
        victim = nullptr;
    }
}
void readyRecordsOther(TAM_KernelImpl*) { events.push_back("victim ready"); }
} // namespace

TEST_F(UdsInput, HandlerDeletesAnotherProcessDuringTheWalk) {
    Scenario sa("listen\naccept\nwait_for <newclient\nwait_for <stop\nsleep_ms 100\n"
                "send <ready cl=\"4\"/>\ndrain\nexit 0\n", "a");
    TAM_KernelImpl* a = TAM_new_uds_kernel(Scenario::kernelPath(), "a");
    ASSERT_NE(a, nullptr);
    clientFiles.push_back(boundPath(TAM_get_client_fd(a)));
    Scenario sb("listen\naccept\nwait_for <newclient\nwait_for <stop\nsleep_ms 100\n"
                "send <ready cl=\"6\"/>\ndrain\nexit 0\n", "b");
    TAM_KernelImpl* b = TAM_new_uds_kernel(Scenario::kernelPath(), "b");
    ASSERT_NE(b, nullptr);
    clientFiles.push_back(boundPath(TAM_get_client_fd(b)));
    TAM_set_on_kernel_ready_handler(a, readyDeletesVictim);
    TAM_set_on_kernel_ready_handler(b, readyRecordsOther);
    ASSERT_EQ(TAM_send_new_client(a, nullptr, nullptr, 0), 1);
    ASSERT_EQ(TAM_send_new_client(b, nullptr, nullptr, 0), 1);
    victim = b;
    ASSERT_EQ(TAM_send_stop(a), 1);
    ASSERT_EQ(TAM_send_stop(b), 1);
    // Both sockets are readable in the same call; a comes first and takes b
    // (its process and socket) away before the walk reaches it.
    pollfd both[2] = {{TAM_get_client_fd(a), POLLIN, 0}, {TAM_get_client_fd(b), POLLIN, 0}};
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < end &&
           (poll(both, 2, 100) < 2 || !(both[0].revents & POLLIN) || !(both[1].revents & POLLIN))) {
    }
    ASSERT_TRUE((both[0].revents & POLLIN) && (both[1].revents & POLLIN));
    TAM_handle_uds_input(0);
    EXPECT_EQ(events, std::vector<std::string>{"ready:4"});
    EXPECT_EQ(victim, nullptr);
    pumpUntil([] { return false; }, 100);
    EXPECT_EQ(events.size(), 1u);
    char** names = TAM_get_uds_kernel_names();
    ASSERT_NE(names, nullptr);
    ASSERT_NE(names[0], nullptr);
    EXPECT_STREQ(names[0], "a");
    EXPECT_EQ(names[1], nullptr);
    TAM_free(names[0]);
    TAM_free(names);
    TAM_delete_kernel(a);
}

namespace {
void readyCreatesConnection(TAM_KernelImpl* k) {
    onReady(k);
    if (!created && nextScenario) {
        nextScenario->activate();
        created = TAM_new_uds_kernel(Scenario::kernelPath(), "second");
        if (created) {
            clientFiles.push_back(boundPath(TAM_get_client_fd(created)));
            TAM_set_on_kernel_ready_handler(created, onReady);
            TAM_send_new_client(created, nullptr, nullptr, 0);
        }
    }
}
} // namespace

TEST_F(UdsInput, HandlerCreatesAProcessDuringTheWalk) {
    Scenario s1("listen\naccept\nwait_for <newclient\nwait_for <stop\n"
                "send <ready cl=\"1\"/>\ndrain\nexit 0\n", "one");
    TAM_KernelImpl* k = TAM_new_uds_kernel(Scenario::kernelPath(), "first");
    ASSERT_NE(k, nullptr);
    clientFiles.push_back(boundPath(TAM_get_client_fd(k)));
    TAM_set_on_kernel_ready_handler(k, readyCreatesConnection);
    ASSERT_EQ(TAM_send_new_client(k, nullptr, nullptr, 0), 1);
    Scenario s2("listen\naccept\nwait_for <newclient\nsend <ready cl=\"2\"/>\ndrain\nexit 0\n",
                "two");
    nextScenario = &s2;
    ASSERT_EQ(TAM_send_stop(k), 1);
    TAM_handle_uds_input(1);
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(events, std::vector<std::string>{"ready:1"});
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 2; }));
    EXPECT_EQ(events, (std::vector<std::string>{"ready:1", "ready:2"}));
    TAM_delete_kernel(created);
    TAM_delete_kernel(k);
    EXPECT_EQ(countOf(s2.received(), "<newclient"), 1u);
}
