// Several clients on one kernel process: client ids, quit, deletion, names.
#include "uds/ScriptedKernel.h"

using namespace tamixtest;
using UdsClients = UdsTest;

namespace {

std::string newClient(const std::string& name, const std::string& features) {
    return "<newclient name =\"" + name + "\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" features=\"" +
           features + "\"/>";
}

} // namespace

TEST_F(UdsClients, PendingClientsAreBoundInAnnouncementOrder) {
    Scenario s("listen\naccept\nwait_for <newclient\nwait_for <newclient\nwait_for <newclient\n"
               "send <ready cl=\"7\"/><ready cl=\"9\"/>"
               "<output cl=\"7\" cid=\"0\"><text format=\"_lan\">for seven</text></output>"
               "<ready cl=\"-2\"/><ready cl=\"12\"/>\n"
               "wait_for <cmd cl=\"9\"\ndrain\nexit 0\n");
    TAM_KernelImpl* gone = launch("calc");
    ASSERT_NE(gone, nullptr);
    TAM_KernelImpl* first = watch(TAM_get_uds_kernel(nullptr, "calc", 0));
    TAM_KernelImpl* second = watch(TAM_get_uds_kernel(nullptr, "calc", 0));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(TAM_get_client_fd(second), TAM_get_client_fd(gone));
    EXPECT_EQ(names(), Strings{"calc"});
    ASSERT_EQ(TAM_send_new_client(gone, "gone", nullptr, 0), 1);
    ASSERT_EQ(TAM_send_new_client(first, "one", nullptr, TAM_FEATURE_CAN_QUIT), 1);
    // Waiting for its id: a second announcement is refused and sends nothing.
    EXPECT_EQ(TAM_send_new_client(first, "again", nullptr, 0), 0);
    ASSERT_EQ(TAM_send_new_client(second, "two", nullptr, 0), 1);
    // A waiting client that goes away sends nothing and leaves the queue.
    TAM_delete_kernel(gone);
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 3; }));
    pumpUntil([] { return false; }, 200);  // room for stray deliveries
    // A later message for 7 goes to the first client again; ids -2 and 12
    // find nobody waiting.
    EXPECT_EQ(events, (Strings{"ready:0", "ready:1", "output:0:for seven"}));
    EXPECT_EQ(TAM_get_client_id(first), 7);
    EXPECT_EQ(TAM_get_client_id(second), 9);
    EXPECT_EQ(TAM_send_new_client(first, "again", nullptr, 0), 0);
    ASSERT_EQ(TAM_send_cmd(second, nullptr, "x"), 1);
    // Deleting one of two clients leaves the kernel running; deleting the
    // last one waits for it.
    const pid_t pid = s.pid();
    TAM_delete_kernel(first);
    EXPECT_TRUE(alive(pid));
    TAM_delete_kernel(second);
    EXPECT_FALSE(alive(pid));
    EXPECT_EQ(s.received(), newClient("gone", "") + newClient("one", "can_quit ") + newClient("two", "") +
                                "<cmd cl=\"9\" cid=\"0\"><text format=\"_lan\">x</text></cmd>"
                                "<quit cl=\"7\"/><quit cl=\"9\"/>");
}

TEST_F(UdsClients, KernelQuitReachesEveryClient) {
    Scenario s("listen\naccept\nwait_for <newclient\nwait_for <newclient\nwait_for <newclient\n"
               "send <ready cl=\"5\"/><ready cl=\"2\"/>\nwait_for <stop\n"
               "send <quit/><ready cl=\"5\"/>\ndrain\nexit 0\n");
    TAM_KernelImpl* a = watch(launch("q"));
    TAM_KernelImpl* b = watch(TAM_get_uds_kernel(nullptr, "q", 0));
    TAM_KernelImpl* c = watch(TAM_get_uds_kernel(nullptr, "q", 0));
    ASSERT_TRUE(a && b && c);
    for (TAM_KernelImpl* k : clients)
        ASSERT_EQ(TAM_send_new_client(k, nullptr, nullptr, 0), 1);
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 2; }));
    EXPECT_EQ(TAM_get_client_id(a), 5);
    EXPECT_EQ(TAM_get_client_id(b), 2);
    events.clear();
    ASSERT_EQ(TAM_send_stop(a), 1);
    ASSERT_TRUE(pumpUntil([] { return !events.empty(); }));
    // Bound clients in order of their ids, then the waiting one, each once;
    // the message after the quit reaches nobody.
    EXPECT_EQ(events, (Strings{"quit:1", "quit:0", "quit:2"}));
    EXPECT_EQ(TAM_get_client_fd(a), -1);
    // Dropped from the registry in the same call; the clients keep the
    // process, and their requests fail.
    EXPECT_TRUE(names().empty());
    EXPECT_EQ(TAM_get_uds_kernel(nullptr, "q", 0), nullptr);
    EXPECT_STREQ(TAM_get_kernel_name(b), "q");
    EXPECT_EQ(TAM_send_cmd(a, nullptr, "1"), 0);
    EXPECT_EQ(TAM_send_status_wanted(b), 0);
    EXPECT_EQ(TAM_send_new_client(c, nullptr, nullptr, 0), 0);
    const pid_t pid = s.pid();
    for (TAM_KernelImpl* k : {a, b, c})
        TAM_delete_kernel(k);
    EXPECT_FALSE(alive(pid));
    EXPECT_EQ(s.received().find("<quit"), std::string::npos);
}

TEST_F(UdsClients, QuitHandlerMayDeleteEveryClient) {
    Scenario s("listen\naccept\nwait_for <newclient\nwait_for <newclient\n"
               "send <ready cl=\"1\"/><ready cl=\"2\"/><quit/>\n"
               "wait_for <quit cl=\"2\"/>\nwait_for <quit cl=\"1\"/>\nexit 0\n");
    TAM_KernelImpl* a = watch(launch("q"));
    TAM_KernelImpl* b = watch(TAM_get_uds_kernel(nullptr, "q", 0));
    ASSERT_TRUE(a && b);
    // a's handler deletes b, which comes later in the quit notification,
    // then a itself: the last deletion waits for the kernel, which ends once
    // both quit requests have come.
    TAM_set_on_quit_handler(a, [](TAM_KernelImpl* k) {
        events.push_back("quit:" + who(k));
        TAM_delete_kernel(clients[1]);
        TAM_delete_kernel(k);
        clients.clear();
    });
    ASSERT_EQ(TAM_send_new_client(a, nullptr, nullptr, 0), 1);
    ASSERT_EQ(TAM_send_new_client(b, nullptr, nullptr, 0), 1);
    const pid_t pid = s.pid();
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 3; }));
    pumpUntil([] { return false; }, 100);
    EXPECT_EQ(events, (Strings{"ready:0", "ready:1", "quit:0"}));
    EXPECT_FALSE(alive(pid));
    EXPECT_TRUE(names().empty());
}

TEST_F(UdsClients, NamesAndLookUpByName) {
    Scenario s("listen\naccept\ndrain\nexit 0\n");
    TAM_KernelImpl* alpha = tracked(TAM_get_uds_kernel(TAMIX_SCRIPTED_KERNEL, "alpha", 1));
    TAM_KernelImpl* dup1 = launch("dup");
    TAM_KernelImpl* dup2 = launch("dup");
    ASSERT_TRUE(alpha && dup1 && dup2);
    EXPECT_EQ(names(), (Strings{"alpha", "dup", "dup"}));
    // The first process of a name is found.
    TAM_KernelImpl* again = TAM_get_uds_kernel(nullptr, "dup", 0);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(TAM_get_client_fd(again), TAM_get_client_fd(dup1));
    ASSERT_EQ(TAM_set_kernel_name(alpha, "gamma"), 1);
    EXPECT_EQ(TAM_set_kernel_name(alpha, nullptr), 0);
    EXPECT_EQ(names(), (Strings{"gamma", "dup", "dup"}));
    EXPECT_EQ(TAM_get_uds_kernel(nullptr, "alpha", 0), nullptr);
    // A process stays registered while a connection holds it.
    TAM_delete_kernel(dup1);
    EXPECT_EQ(names(), (Strings{"gamma", "dup", "dup"}));
    TAM_delete_kernel(again);
    EXPECT_EQ(names(), (Strings{"gamma", "dup"}));
    TAM_delete_kernel(alpha);
    TAM_delete_kernel(dup2);
    EXPECT_TRUE(names().empty());
}
