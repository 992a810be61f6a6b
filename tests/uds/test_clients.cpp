// Several clients on one kernel process: client ids, deletion, quit.
#include <poll.h>

#include <stdexcept>

#include "common/ScriptedKernel.h"

using namespace tamixtest;
using UdsClients = UdsTest;

namespace {

// n watched clients on a new kernel process called "k", announced in
// order; true if all went well.
bool launchClients(size_t n)
{
    watch(launch("k"));
    while (clients.size() < n)
        watch(TAM_get_uds_kernel(nullptr, "k", 0));
    for (TAM_KernelImpl* k : clients) {
        if (TAM_send_new_client(k, nullptr, nullptr, 0) != 1)
            return false;
    }
    return true;
}

} // namespace

TEST_F(UdsClients, PendingClientsAreBoundInAnnouncementOrder)
{
    Scenario s("listen\naccept\nwait_for <newclient\nwait_for <newclient\nwait_for <newclient\n"
               "send <ready cl=\"7\"/><ready cl=\"9\"/>"
               "<output cl=\"7\" cid=\"0\"><text format=\"_lan\">for seven</text></output>"
               "<ready cl=\"-2\"/><ready cl=\"12\"/>\n"
               "wait_for <cmd cl=\"9\"\ndrain\nexit 0\n");
    ASSERT_TRUE(launchClients(3));
    EXPECT_EQ(names(), "k");
    // Waiting for its id (and later, bound) a client cannot announce itself
    // again: the request is refused and sends nothing.
    EXPECT_EQ(TAM_send_new_client(clients[1], "again", nullptr, 0), 0);
    // A waiting client that goes away sends nothing and leaves the queue.
    TAM_delete_kernel(clients[0]);
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 3; }));
    pumpUntil([] { return false; }, 200); // room for stray deliveries
    // A later message for 7 goes to its client again; ids -2 and 12 find
    // nobody waiting.
    EXPECT_EQ(events, (Strings{"ready:1", "ready:2", "output:1:for seven"}));
    EXPECT_EQ(TAM_get_client_id(clients[1]), 7);
    EXPECT_EQ(TAM_get_client_id(clients[2]), 9);
    EXPECT_EQ(TAM_send_new_client(clients[1], "again", nullptr, 0), 0);
    ASSERT_EQ(TAM_send_cmd(clients[2], nullptr, "x"), 1);
    // Deleting one of two clients leaves the kernel running; deleting the
    // last one waits for it.
    const pid_t pid = s.pid();
    TAM_delete_kernel(clients[1]);
    EXPECT_TRUE(alive(pid));
    TAM_delete_kernel(clients[2]);
    EXPECT_FALSE(alive(pid));
    EXPECT_EQ(s.received(), newClient("", "") + newClient("", "") + newClient("", "") +
                                "<cmd cl=\"9\" cid=\"0\"><text format=\"_lan\">x</text></cmd>"
                                "<quit cl=\"7\"/><quit cl=\"9\"/>");
}

TEST_F(UdsClients, KernelQuitReachesEveryClient)
{
    Scenario s("listen\naccept\nwait_for <newclient\nwait_for <newclient\nwait_for <newclient\n"
               "send <ready cl=\"5\"/><ready cl=\"2\"/>\nwait_for <stop\n"
               "send <quit/><ready cl=\"5\"/><quit/>\ndrain\nexit 0\n");
    ASSERT_TRUE(launchClients(3));
    const std::string listenPath = TAM_get_listen_path(clients[0]);
    // A handler that throws keeps neither the other clients from being told
    // nor the socket from being closed.
    TAM_set_on_quit_handler(clients[1], [](TAM_KernelImpl* k) {
        events.push_back("quit:" + who(k));
        throw std::runtime_error("front-end failure");
    });
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 2; }));
    EXPECT_EQ(TAM_get_client_id(clients[0]), 5);
    EXPECT_EQ(TAM_get_client_id(clients[1]), 2);
    events.clear();
    // This time through the read of one socket; others are ignored.
    const int fd = TAM_get_client_fd(clients[0]);
    TAM_read_uds_input(fd); // nothing there yet: returns instead of waiting
    EXPECT_TRUE(events.empty());
    ASSERT_EQ(TAM_send_stop(clients[0]), 1);
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    TAM_read_uds_input(fd + 100);
    TAM_read_uds_input(-1);
    EXPECT_TRUE(events.empty());
    TAM_read_uds_input(fd);
    // Bound clients in order of their ids, then the waiting one, each once;
    // the messages after the quit (a second quit too) reach nobody.
    EXPECT_EQ(events, (Strings{"quit:1", "quit:0", "quit:2"}));
    EXPECT_EQ(TAM_get_client_fd(clients[2]), -1);
    // Dropped from the registry in the same call; the clients keep the
    // process, and their requests fail.
    EXPECT_TRUE(names().empty());
    EXPECT_EQ(TAM_get_uds_kernel(nullptr, "k", 0), nullptr);
    EXPECT_STREQ(TAM_get_kernel_name(clients[1]), "k");
    EXPECT_EQ(TAM_send_cmd(clients[0], nullptr, "1"), 0);
    EXPECT_EQ(TAM_send_status_wanted(clients[1]), 0);
    EXPECT_EQ(TAM_send_new_client(clients[2], nullptr, nullptr, 0), 0);
    const pid_t pid = s.pid();
    for (TAM_KernelImpl* k : clients)
        TAM_delete_kernel(k);
    EXPECT_FALSE(alive(pid));
    EXPECT_EQ(s.received().find("<quit"), std::string::npos);
    // The last client took the process with it: its kernel's socket file is gone.
    EXPECT_NE(access(listenPath.c_str(), F_OK), 0) << listenPath;
}

TEST_F(UdsClients, QuitHandlerMayDeleteEveryClient)
{
    Scenario s("listen\naccept\nwait_for <newclient\nwait_for <newclient\n"
               "send <ready cl=\"1\"/><ready cl=\"2\"/><quit/>\n"
               "wait_for <quit cl=\"2\"/>\nwait_for <quit cl=\"1\"/>\nexit 0\n");
    ASSERT_TRUE(launchClients(2));
    // The first client's handler deletes the second, which comes later in
    // the quit notification, then itself: the last deletion waits for the
    // kernel, which ends once both quit requests have come.
    TAM_set_on_quit_handler(clients[0], [](TAM_KernelImpl* k) {
        events.push_back("quit:" + who(k));
        TAM_delete_kernel(clients[1]);
        TAM_delete_kernel(k);
        clients.clear();
    });
    const pid_t pid = s.pid();
    ASSERT_TRUE(pumpUntil([] { return events.size() >= 3; }));
    pumpUntil([] { return false; }, 100);
    EXPECT_EQ(events, (Strings{"ready:0", "ready:1", "quit:0"}));
    EXPECT_FALSE(alive(pid));
    EXPECT_TRUE(names().empty());
}
