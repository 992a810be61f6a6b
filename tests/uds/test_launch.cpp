// Launching and joining kernels through real processes and sockets.
#include <sys/stat.h>

#include "uds/ScriptedKernel.h"
#include "uds/TAM_UdsKernel.h"

using namespace tamixtest;

namespace {

void usr1Marker(int) {}
void chldMarker(int) {}

// Recognisable handlers, to tell whether a launch put them back.
void installMarkers() {
    signal(SIGUSR1, usr1Marker);
    signal(SIGCHLD, chldMarker);
}

void expectMarkersAndNoChildren() {
    struct sigaction usr1, chld;
    sigaction(SIGUSR1, nullptr, &usr1);
    sigaction(SIGCHLD, nullptr, &chld);
    EXPECT_EQ(usr1.sa_handler, usr1Marker);
    EXPECT_EQ(chld.sa_handler, chldMarker);
    // No child left over, neither running nor as a zombie.
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

} // namespace

TEST(UdsLaunch, FailuresGiveNullPromptlyAndRestoreSignals) {
    // Before any process was registered neither a poll nor a wait blocks
    // (the alarm ends a wait that would).
    alarm(5);
    TAM_handle_uds_input(0);
    TAM_handle_uds_input(1);
    TAM_read_uds_input(0);
    alarm(0);
    EXPECT_EQ(TAM_new_uds_kernel(nullptr, "x"), nullptr);
    EXPECT_EQ(TAM_connect_uds_kernel(nullptr, "x"), nullptr);
    EXPECT_EQ(TAM_connect_uds_kernel("/var/tmp/tamix-no-such-kernel", "x"), nullptr);
    installMarkers();
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(TAM_get_uds_kernel(TAMIX_SCRIPTED_KERNEL, "nobody", 0), nullptr);
    EXPECT_EQ(TAM_new_uds_kernel("/nonexistent/dir/tamkern", nullptr), nullptr);
    expectMarkersAndNoChildren();
    // Kernels that end before they signal readiness: at once, by a signal,
    // a while later.
    for (const char* steps : {"exit 0\n", "kill\n", "sleep_ms 100\nexit 3\n"}) {
        SCOPED_TRACE(steps);
        Scenario s(steps);
        EXPECT_EQ(launch(), nullptr);
        expectMarkersAndNoChildren();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
    EXPECT_TRUE(names().empty());
}

TEST(UdsLaunch, ArgumentsSocketFilesAndCleanUp) {
    installMarkers();
    // Another child of the program that ends while the kernel starts up must
    // not be taken for the kernel's death.
    pid_t other = fork();
    if (other == 0) {
        usleep(50000);
        _exit(0);
    }
    Scenario s("sleep_ms 300\nlisten\naccept\ndrain\nexit 0\n");
    TAM_KernelImpl* k = launch();
    ASSERT_NE(k, nullptr);
    EXPECT_EQ(waitpid(other, nullptr, 0), other);
    const Strings args = s.args();  // arguments, then the process id
    ASSERT_EQ(args.size(), 4u);
    EXPECT_EQ(args[0], "tamix_scripted_kernel");
    EXPECT_EQ(args[1], "-X");
    EXPECT_EQ(args[2].substr(0, 15), "/var/tmp//tamkr");
    EXPECT_EQ(args[2].size(), 21u);
    EXPECT_STREQ(TAM_get_listen_path(k), args[2].c_str());
    EXPECT_TRUE(exists(args[2]));
    // Without a name the process is named after its socket.
    const int fd = TAM_get_client_fd(k);
    EXPECT_STREQ(TAM_get_kernel_name(k), std::to_string(fd).c_str());
    EXPECT_EQ(TAM_get_client_id(k), -1);
    // The client end is bound to an owner-only socket file of its own.
    const std::string client = boundPath(fd);
    EXPECT_EQ(client.substr(0, 15), "/var/tmp//tamcl");
    struct stat st;
    ASSERT_EQ(stat(client.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    // Deleting the only client closes the socket, so the kernel ends; it is
    // reaped and its socket file removed. Without an id the client sends
    // nothing, not even a quit request.
    const pid_t pid = s.pid();
    EXPECT_TRUE(alive(pid));
    TAM_delete_kernel(k);
    EXPECT_FALSE(alive(pid));
    EXPECT_FALSE(exists(args[2]));
    expectMarkersAndNoChildren();
    EXPECT_EQ(s.received(), "");
    EXPECT_TRUE(names().empty());
}

TEST(UdsLaunch, JoiningARunningKernel) {
    Scenario s("listen\naccept\naccept\nconn 1\nwait_for <newclient\nsend <ready cl=\"3\"/>\ndrain\n"
               "conn 0\ndrain\nexit 0\n");
    TAM_KernelImpl* owner = launch("owner");
    ASSERT_NE(owner, nullptr);
    const std::string listen = TAM_get_listen_path(owner);
    TAM_KernelImpl* joined = tracked(TAM_connect_uds_kernel(listen.c_str(), "joined"));
    ASSERT_NE(joined, nullptr);
    EXPECT_NE(TAM_get_client_fd(joined), TAM_get_client_fd(owner));
    EXPECT_STREQ(TAM_get_listen_path(joined), listen.c_str());
    EXPECT_EQ(names(), (Strings{"owner", "joined"}));
    ASSERT_EQ(TAM_send_new_client(joined, "j", nullptr, 0), 1);
    ASSERT_TRUE(pumpUntil([&] { return TAM_get_client_id(joined) == 3; }));
    EXPECT_EQ(TAM_get_client_id(owner), -1);
    // A joined kernel is not waited for, but its socket file goes with the
    // process object all the same.
    const pid_t pid = s.pid();
    TAM_delete_kernel(joined);
    EXPECT_FALSE(exists(listen));
    EXPECT_TRUE(alive(pid));
    TAM_delete_kernel(owner);
    EXPECT_FALSE(alive(pid));
    EXPECT_NE(s.received(1).find("<quit cl=\"3\"/>"), std::string::npos);
}

TEST(UdsLaunch, ConnectionWithoutProcess) {
    TAM_KernelImpl* k = new TAM_UdsKernel(nullptr);
    EXPECT_EQ(TAM_get_client_fd(k), -1);
    EXPECT_EQ(TAM_get_kernel_name(k), nullptr);
    EXPECT_EQ(TAM_get_listen_path(k), nullptr);
    EXPECT_EQ(TAM_set_kernel_name(k, "x"), 0);
    EXPECT_EQ(TAM_send_new_client(k, "a", "b", 0), 0);
    EXPECT_EQ(TAM_send_cmd(k, nullptr, "1+1"), 0);
    EXPECT_EQ(TAM_send_quit(k), 0);
    TAM_delete_kernel(k);
}
