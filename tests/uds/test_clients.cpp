// Several clients on one kernel process: client ids, quit, deletion, names.
#include <gtest/gtest.h>

#include "uds/ScriptedKernel.h"

using namespace tamixtest;

namespace {

// What the handlers saw, in order: "<event>:<client index>".
std::vector<std::string> events;
std::vector<TAM_KernelImpl*> clients;

std::string who(TAM_KernelImpl* k) {
    for (size_t i = 0; i < clients.size(); ++i) {
        if (clients[i] == k)
            return std::to_string(i);
    }
    return "?";
}

void onReady(TAM_KernelImpl* k) { events.push_back("ready:" + who(k)); }
void onOutput(TAM_KernelImpl* k, void*, const char*, const char*, const char* text) {
    events.push_back("output:" + who(k) + ":" + text);
}
void onQuit(TAM_KernelImpl* k) { events.push_back("quit:" + who(k)); }

void watch(TAM_KernelImpl* k) {
    clients.push_back(k);
    TAM_set_on_kernel_ready_handler(k, onReady);
    TAM_set_on_output_handler(k, onOutput);
    TAM_set_on_quit_handler(k, onQuit);
}

std::vector<std::string> names() {
    std::vector<std::string> out;
    char** n = TAM_get_uds_kernel_names();
    if (!n)
        return out;
    for (char** p = n; *p; ++p) {
        out.push_back(*p);
        TAM_free(*p);
    }
    TAM_free(n);
    return out;
}

class UdsClients : public ::testing::Test {
protected:
    void SetUp() override {
        events.clear();
        clients.clear();
    }
    void TearDown() override {
        for (const std::string& p : clientFiles_)
            unlink(p.c_str());
    }
    void noteSocketFile(TAM_KernelImpl* k) { clientFiles_.push_back(boundPath(TAM_get_client_fd(k))); }

private:
    std::vector<std::string> clientFiles_;
};

} // namespace

TEST_F(UdsClients, PendingClientsAreBoundInAnnouncementOrder) {
    Scenario s("listen\naccept\n"
               "wait_for <newclient\nwait_for <newclient\n"
               "send <ready cl=\"11\"/><ready cl=\"7\"/><ready cl=\"9\"/>"
               "<output cl=\"7\" cid=\"0\"><text format=\"_lan\">for seven</text></output>"
               "<ready cl=\"-2\"/><ready cl=\"12\"/>\n"
               "wait_for <cmd cl=\"7\"\ndrain\nexit 0\n");
    TAM_KernelImpl* first = TAM_new_uds_kernel(Scenario::kernelPath(), "calc");
    ASSERT_NE(first, nullptr);
    noteSocketFile(first);
    TAM_KernelImpl* second = TAM_get_uds_kernel(nullptr, "calc", 0);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(TAM_get_client_fd(first), TAM_get_client_fd(second));
    EXPECT_EQ(names(), std::vector<std::string>{"calc"});
    watch(first);
    watch(second);

    ASSERT_EQ(TAM_send_new_client(first, "one", nullptr, TAM_FEATURE_CAN_QUIT), 1);
    // Waiting for its id: a second announcement is refused.
    EXPECT_EQ(TAM_send_new_client(first, "again", nullptr, 0), 0);
    ASSERT_EQ(TAM_send_new_client(second, "two", nullptr, TAM_FEATURE_CAN_QUIT), 1);

    ASSERT_TRUE(pumpUntil([] { return events.size() >= 3; }));
    // Give stray deliveries a chance to show up.
    pumpUntil([] { return false; }, 200);
    // Id 11 came first, taking the first client; 7 the second; 9 and later
    // ids find nobody waiting, nor does a negative one.
    EXPECT_EQ(events, (std::vector<std::string>{"ready:0", "ready:1", "output:1:for seven"}));
    EXPECT_EQ(TAM_get_client_id(first), 11);
    EXPECT_EQ(TAM_get_client_id(second), 7);
    // Bound: announcing again is refused and sends nothing.
    EXPECT_EQ(TAM_send_new_client(first, "again", nullptr, 0), 0);

    ASSERT_EQ(TAM_send_cmd(second, nullptr, "x"), 1);
    TAM_delete_kernel(second);
    TAM_delete_kernel(first);
    std::string got = s.received();
    EXPECT_EQ(countOf(got, "<newclient"), 2u);
    EXPECT_NE(got.find("<newclient name =\"one\" frame=\"\""), std::string::npos);
    EXPECT_LT(got.find("name =\"one\""), got.find("name =\"two\""));
    EXPECT_NE(got.find("<cmd cl=\"7\" cid=\"0\">"), std::string::npos) << got;
    EXPECT_NE(got.find("<quit cl=\"7\"/><quit cl=\"11\"/>"), std::string::npos) << got;
}

TEST_F(UdsClients, IdsSevenAndNineAndBackToSeven) {
    Scenario s("listen\naccept\n"
               "wait_for <newclient\nwait_for <newclient\n"
               "send <ready cl=\"7\"/><ready cl=\"9\"/>"
               "<output cl=\"7\" cid=\"0\"><text format=\"_lan\">again seven</text></output>\n"
               "drain\nexit 0\n");
    TAM_KernelImpl* a = TAM_new_uds_kernel(Scenario::kernelPath(), "k");
    ASSERT_NE(a, nullptr);
    noteSocketFile(a);
    TAM_KernelImpl* b = TAM_get_uds_kernel(Scenario::kernelPath(), "k", 1);
    ASSERT_NE(b, nullptr);
    watch(a);
    watch(b);
    ASSERT_EQ(TAM_send_new_client(a, nullptr, nullptr, 0), 1);
    ASSERT_EQ(TAM_send_new_client(b, nullptr, nullptr, 0), 1);
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 3; }));
    EXPECT_EQ(events, (std::vector<std::string>{"ready:0", "ready:1", "output:0:again seven"}));
    EXPECT_EQ(TAM_get_client_id(a), 7);
    EXPECT_EQ(TAM_get_client_id(b), 9);
    pid_t pid = s.pid();
    // Deleting one of two clients leaves the kernel running and returns at
    // once; the last one waits for it.
    TAM_delete_kernel(a);
    EXPECT_TRUE(processExists(pid));
    TAM_delete_kernel(b);
    EXPECT_FALSE(processExists(pid));
}

TEST_F(UdsClients, DeletingAPendingClient) {
    Scenario s("listen\naccept\n"
               "wait_for <newclient\nwait_for <newclient\nsleep_ms 200\n"
               "send <ready cl=\"7\"/>\ndrain\nexit 0\n");
    TAM_KernelImpl* a = TAM_new_uds_kernel(Scenario::kernelPath(), "k");
    ASSERT_NE(a, nullptr);
    noteSocketFile(a);
    TAM_KernelImpl* b = TAM_get_uds_kernel(nullptr, "k", 0);
    ASSERT_NE(b, nullptr);
    watch(a);
    watch(b);
    ASSERT_EQ(TAM_send_new_client(a, nullptr, nullptr, 0), 1);
    ASSERT_EQ(TAM_send_new_client(b, nullptr, nullptr, 0), 1);
    TAM_delete_kernel(a);
    clients[0] = nullptr;
    // The first new id now goes to the client that is still waiting.
    ASSERT_TRUE(pumpUntil([] { return !events.empty(); }));
    EXPECT_EQ(events, std::vector<std::string>{"ready:1"});
    EXPECT_EQ(TAM_get_client_id(b), 7);
    TAM_delete_kernel(b);
    std::string got = s.received();
    // Only the bound client said goodbye.
    EXPECT_EQ(countOf(got, "<quit"), 1u) << got;
    EXPECT_NE(got.find("<quit cl=\"7\"/>"), std::string::npos);
}

TEST_F(UdsClients, KernelQuitReachesEveryClient) {
    Scenario s("listen\naccept\n"
               "wait_for <newclient\nwait_for <newclient\nwait_for <newclient\n"
               "send <ready cl=\"5\"/><ready cl=\"2\"/>\n"
               "wait_for <stop\n"
               "send <quit/><ready cl=\"5\"/>\ndrain\nexit 0\n");
    TAM_KernelImpl* a = TAM_new_uds_kernel(Scenario::kernelPath(), "q");
    ASSERT_NE(a, nullptr);
    noteSocketFile(a);
    TAM_KernelImpl* b = TAM_get_uds_kernel(nullptr, "q", 0);
    TAM_KernelImpl* c = TAM_get_uds_kernel(nullptr, "q", 0);
    ASSERT_NE(b, nullptr);
    ASSERT_NE(c, nullptr);
    watch(a);
    watch(b);
    watch(c);
    for (TAM_KernelImpl* k : clients)
        ASSERT_EQ(TAM_send_new_client(k, nullptr, nullptr, 0), 1);
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 2; }));
    EXPECT_EQ(TAM_get_client_id(a), 5);
    EXPECT_EQ(TAM_get_client_id(b), 2);
    EXPECT_EQ(TAM_get_client_id(c), -1);
    events.clear();

    ASSERT_EQ(TAM_send_stop(a), 1);
    ASSERT_TRUE(pumpUntil([] { return !events.empty(); }));
    // Bound clients in order of their ids, then the waiting one; each once.
    // The message after the quit reaches nobody: the socket is closed.
    EXPECT_EQ(events, (std::vector<std::string>{"quit:1", "quit:0", "quit:2"}));
    EXPECT_EQ(TAM_get_client_fd(a), -1);
    EXPECT_EQ(TAM_get_client_fd(c), -1);
    // Dropped from the registry at the end of the same call.
    EXPECT_TRUE(names().empty());
    EXPECT_EQ(TAM_get_uds_kernel(nullptr, "q", 0), nullptr);
    // The clients keep the process; requests fail.
    EXPECT_EQ(std::string(TAM_get_kernel_name(b)), "q");
    EXPECT_EQ(TAM_send_cmd(a, nullptr, "1"), 0);
    EXPECT_EQ(TAM_send_status_wanted(b), 0);
    EXPECT_EQ(TAM_send_new_client(c, nullptr, nullptr, 0), 0);

    pid_t pid = s.pid();
    TAM_delete_kernel(a);
    TAM_delete_kernel(b);
    TAM_delete_kernel(c);
    EXPECT_FALSE(processExists(pid));
    EXPECT_EQ(countOf(s.received(), "<quit"), 0u);
}

namespace {
TAM_KernelImpl* doomedB = nullptr;
void quitDeletingBoth(TAM_KernelImpl* k) {
    events.push_back("quit:" + who(k));
    TAM_delete_kernel(doomedB);
    clients[1] = nullptr;
    TAM_delete_kernel(k);
    clients[0] = nullptr;
}
} // namespace

TEST_F(UdsClients, QuitHandlerMayDeleteClients) {
    Scenario s("listen\naccept\n"
               "wait_for <newclient\nwait_for <newclient\n"
               "send <ready cl=\"1\"/><ready cl=\"2\"/><quit/>\n"
               "wait_for <quit cl=\"2\"/>\nwait_for <quit cl=\"1\"/>\nexit 0\n");
    TAM_KernelImpl* a = TAM_new_uds_kernel(Scenario::kernelPath(), "q");
    ASSERT_NE(a, nullptr);
    noteSocketFile(a);
    TAM_KernelImpl* b = TAM_get_uds_kernel(nullptr, "q", 0);
    watch(a);
    watch(b);
    doomedB = b;
    TAM_set_on_quit_handler(a, quitDeletingBoth);
    ASSERT_EQ(TAM_send_new_client(a, nullptr, nullptr, 0), 1);
    ASSERT_EQ(TAM_send_new_client(b, nullptr, nullptr, 0), 1);
    pid_t pid = s.pid();
    // The last deletion inside the handler waits for the kernel, which ends
    // once both quit requests have arrived.
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 3; }));
    pumpUntil([] { return false; }, 100);
    // b was deleted by a's handler before its own turn came.
    EXPECT_EQ(events, (std::vector<std::string>{"ready:0", "ready:1", "quit:0"}));
    EXPECT_FALSE(processExists(pid));
    EXPECT_TRUE(names().empty());
}

TEST_F(UdsClients, NamesAndLookUpByName) {
    EXPECT_EQ(TAM_get_uds_kernel(Scenario::kernelPath(), "nobody", 0), nullptr);
    EXPECT_TRUE(names().empty());
    EXPECT_EQ(TAM_get_uds_kernel(nullptr, nullptr, 1), nullptr);

    Scenario s("listen\naccept\ndrain\nexit 0\n");
    TAM_KernelImpl* alpha = TAM_get_uds_kernel(Scenario::kernelPath(), "alpha", 1);
    ASSERT_NE(alpha, nullptr);
    TAM_KernelImpl* dup1 = TAM_new_uds_kernel(Scenario::kernelPath(), "dup");
    TAM_KernelImpl* dup2 = TAM_new_uds_kernel(Scenario::kernelPath(), "dup");
    ASSERT_NE(dup1, nullptr);
    ASSERT_NE(dup2, nullptr);
    for (TAM_KernelImpl* k : {alpha, dup1, dup2})
        noteSocketFile(k);
    EXPECT_EQ(names(), (std::vector<std::string>{"alpha", "dup", "dup"}));

    // The first process of a name is found.
    TAM_KernelImpl* again = TAM_get_uds_kernel(nullptr, "dup", 0);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(TAM_get_client_fd(again), TAM_get_client_fd(dup1));

    ASSERT_EQ(TAM_set_kernel_name(alpha, "gamma"), 1);
    EXPECT_EQ(TAM_set_kernel_name(alpha, nullptr), 0);
    EXPECT_EQ(names(), (std::vector<std::string>{"gamma", "dup", "dup"}));
    EXPECT_EQ(TAM_get_uds_kernel(nullptr, "alpha", 0), nullptr);

    TAM_delete_kernel(dup1);
    // Still held by the second connection.
    EXPECT_EQ(names(), (std::vector<std::string>{"gamma", "dup", "dup"}));
    TAM_delete_kernel(again);
    EXPECT_EQ(names(), (std::vector<std::string>{"gamma", "dup"}));
    TAM_delete_kernel(alpha);
    TAM_delete_kernel(dup2);
    EXPECT_TRUE(names().empty());
}
