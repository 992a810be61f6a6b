// Launching and joining kernels through real processes and sockets, and the
// registry of kernel processes.
#include <sys/stat.h>
#include <sys/wait.h>

#include <regex>

#include "common/ScriptedKernel.h"

using namespace tamixtest;

namespace {

void usr1Marker(int)
{
}
void chldMarker(int)
{
}

// Recognisable handlers, to tell whether a launch put them back.
void installMarkers()
{
    signal(SIGUSR1, usr1Marker);
    signal(SIGCHLD, chldMarker);
}

void expectMarkersAndNoChildren()
{
    // Putting a marker back finds it in place.
    EXPECT_EQ(signal(SIGUSR1, usr1Marker), usr1Marker);
    EXPECT_EQ(signal(SIGCHLD, chldMarker), chldMarker);
    // No child left over, neither running nor as a zombie.
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

// Before any process was registered neither a poll nor a wait blocks (the
// alarm ends a wait that would). Set up before the first case of the program.
struct NothingRegisteredYet : ::testing::Environment {
    void SetUp() override
    {
        alarm(5);
        TAM_handle_uds_input(0);
        TAM_handle_uds_input(1);
        TAM_read_uds_input(0);
        alarm(0);
        EXPECT_EQ(names(), "");
    }
};
const auto* const nothingRegisteredYet =
    ::testing::AddGlobalTestEnvironment(new NothingRegisteredYet);

} // namespace

TEST(UdsLaunch, FailuresGiveNullPromptlyAndRestoreSignals)
{
    EXPECT_EQ(TAM_new_uds_kernel(nullptr, "x"), nullptr);
    EXPECT_EQ(TAM_connect_uds_kernel(nullptr, "x"), nullptr);
    EXPECT_EQ(TAM_connect_uds_kernel("/var/tmp/tamix-no-such-kernel", "x"), nullptr);
    installMarkers();
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(TAM_get_uds_kernel(TAMIX_SCRIPTED_KERNEL, "nobody", 0), nullptr);
    EXPECT_EQ(TAM_new_uds_kernel("/nonexistent/dir/tamkern", nullptr), nullptr);
    expectMarkersAndNoChildren();
    // Kernels that end before they signal readiness (at once, by a signal,
    // a while later), never signal it, or signal it without listening and
    // then end or stay: none is left running or unreaped.
    ASSERT_EQ(TAM_set_limit(TAM_LIMIT_READY_WAIT_MS, 300), 1);
    for (const char* steps : {"exit 0\n", "kill\n", "sleep_ms 100\nexit 3\n", "sleep_ms 20000\n",
                              "ready\nexit 0\n", "ready\nsleep_ms 20000\n"}) {
        SCOPED_TRACE(steps);
        Scenario s(steps);
        EXPECT_EQ(launch(), nullptr);
        EXPECT_FALSE(alive(s.pid()));
        expectMarkersAndNoChildren();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
    EXPECT_TRUE(names().empty());
}

TEST(UdsLaunch, ArgumentsSocketFilesAndCleanUp)
{
    installMarkers();
    // Another child of the program that ends while the kernel starts up must
    // not be taken for the kernel's death. The kernel itself lets that child
    // end (through a pipe both inherit) and signals readiness only once it
    // has, so its SIGCHLD surely comes during the wait.
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    pid_t other = fork();
    if (other == 0) {
        char c;
        _exit(read(go[0], &c, 1) == 1 ? 0 : 1);
    }
    close(go[0]);
    Scenario s("");
    std::ofstream(s.dir + "/other.pid") << other;
    s.play("poke " + std::to_string(go[1]) + "\nwait_zombie " + s.dir +
           "/other.pid\nlisten\naccept\ndrain\nexit 0\n");
    TAM_KernelImpl* k = TAM_new_uds_kernel(TAMIX_SCRIPTED_KERNEL, nullptr);
    close(go[1]);
    ASSERT_NE(k, nullptr);
    int status = -1;
    EXPECT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
    ASSERT_NE(TAM_get_listen_path(k), nullptr);
    const std::string listen = TAM_get_listen_path(k);
    EXPECT_EQ(s.args(), "tamix_scripted_kernel -X " + listen); // argument 0 without its directory
    EXPECT_TRUE(std::regex_match(listen, std::regex("/var/tmp//tamkr[^/]{6}"))) << listen;
    EXPECT_EQ(access(listen.c_str(), F_OK), 0);
    // Without a name the process is named after its socket.
    const int fd = TAM_get_client_fd(k);
    EXPECT_EQ(names(), std::to_string(fd));
    EXPECT_EQ(TAM_get_client_id(k), -1);
    // The client end is bound to an owner-only socket file of its own.
    const std::string client = boundPath(fd);
    EXPECT_TRUE(std::regex_match(client, std::regex("/var/tmp//tamcl[^/]{6}"))) << client;
    struct stat st;
    EXPECT_EQ(stat(client.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    unlink(client.c_str());
    // Deleting the only client closes the socket, so the kernel ends; it is
    // reaped and its socket file removed. Without an id the client sends
    // nothing, not even a quit request.
    const pid_t pid = s.pid();
    TAM_delete_kernel(k);
    EXPECT_FALSE(alive(pid));
    EXPECT_NE(access(listen.c_str(), F_OK), 0);
    expectMarkersAndNoChildren();
    EXPECT_EQ(s.received(), "");
    EXPECT_TRUE(names().empty());
}

TEST(UdsLaunch, JoiningAndLookingUpByName)
{
    Scenario s(
        "listen\naccept\naccept\nwait_for <newclient\nsend <ready cl=\"3\"/>\ndrain\nexit 0\n");
    TAM_KernelImpl* owner = withoutSocketFile(TAM_get_uds_kernel(TAMIX_SCRIPTED_KERNEL, "dup", 1));
    ASSERT_NE(owner, nullptr);
    const std::string listen = TAM_get_listen_path(owner);
    TAM_KernelImpl* joined = withoutSocketFile(TAM_connect_uds_kernel(listen.c_str(), "dup"));
    ASSERT_NE(joined, nullptr);
    EXPECT_NE(TAM_get_client_fd(joined), TAM_get_client_fd(owner));
    EXPECT_STREQ(TAM_get_listen_path(joined), listen.c_str());
    // Of two processes with one name the first is found.
    TAM_KernelImpl* again = TAM_get_uds_kernel(nullptr, "dup", 0);
    EXPECT_EQ(TAM_get_client_fd(again), TAM_get_client_fd(owner));
    ASSERT_EQ(TAM_set_kernel_name(joined, "gamma"), 1);
    EXPECT_EQ(TAM_set_kernel_name(joined, nullptr), 0);
    EXPECT_EQ(names(), "dup gamma");
    ASSERT_EQ(TAM_send_new_client(joined, "j", nullptr, 0), 1);
    ASSERT_TRUE(pumpUntil([&] { return TAM_get_client_id(joined) == 3; }));
    EXPECT_EQ(TAM_get_client_id(owner), -1);
    // A process stays registered while a connection holds it; a joined one
    // takes the kernel's socket file with it all the same.
    TAM_delete_kernel(owner);
    EXPECT_EQ(names(), "dup gamma");
    TAM_delete_kernel(joined);
    EXPECT_NE(access(listen.c_str(), F_OK), 0);
    EXPECT_EQ(names(), "dup");
    const pid_t pid = s.pid();
    TAM_delete_kernel(again);
    EXPECT_FALSE(alive(pid));
    EXPECT_TRUE(names().empty());
    EXPECT_EQ(s.received(), newClient("j", "") + "<quit cl=\"3\"/>");
}
