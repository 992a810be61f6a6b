// Launching and joining kernels through real processes and sockets.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "uds/ScriptedKernel.h"
#include "uds/TAM_UdsKernel.h"
#include "uds/TAM_UdsKernelProcess.h"

using namespace tamixtest;

namespace {

void usr1Marker(int) {}
void chldMarker(int) {}

// Installs recognisable handlers so that a test can tell whether the
// library put them back.
void installMarkers() {
    signal(SIGUSR1, usr1Marker);
    signal(SIGCHLD, chldMarker);
}

void expectMarkersInPlace() {
    struct sigaction sa;
    sigaction(SIGUSR1, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, usr1Marker);
    sigaction(SIGCHLD, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, chldMarker);
}

// No child left over, neither running nor as a zombie.
void expectNoChildren() {
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

bool fileExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

double secondsSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

} // namespace

TEST(UdsLaunch, FailuresGiveNullPromptlyAndRestoreSignals) {
    installMarkers();
    auto t0 = std::chrono::steady_clock::now();

    EXPECT_EQ(TAM_new_uds_kernel(nullptr, "x"), nullptr);
    EXPECT_EQ(TAM_connect_uds_kernel(nullptr, "x"), nullptr);

    // An executable that cannot be started: the child ends with status 1.
    EXPECT_EQ(TAM_new_uds_kernel("/nonexistent/dir/tamkern", nullptr), nullptr);
    expectMarkersInPlace();
    expectNoChildren();

    {
        Scenario s("exit 0\n");
        EXPECT_EQ(TAM_new_uds_kernel(Scenario::kernelPath(), nullptr), nullptr);
        expectMarkersInPlace();
        expectNoChildren();
    }
    {
        Scenario s("kill\n");
        EXPECT_EQ(TAM_new_uds_kernel(Scenario::kernelPath(), nullptr), nullptr);
        expectMarkersInPlace();
        expectNoChildren();
    }
    {
        // Listening but dying before it says it is ready.
        Scenario s("sleep_ms 100\nexit 3\n");
        EXPECT_EQ(TAM_new_uds_kernel(Scenario::kernelPath(), nullptr), nullptr);
        expectNoChildren();
    }
    EXPECT_LT(secondsSince(t0), 5.0);

    // Nobody listens there: connect fails, nothing is registered.
    EXPECT_EQ(TAM_connect_uds_kernel("/var/tmp/tamix-no-such-kernel", "x"), nullptr);
    char** names = TAM_get_uds_kernel_names();
    ASSERT_NE(names, nullptr);
    EXPECT_EQ(names[0], nullptr);
    TAM_free(names);
}

TEST(UdsLaunch, AnotherChildsDeathDoesNotEndTheWait) {
    // A child of the test that ends while the kernel is starting up must not
    // be taken for the kernel's death.
    pid_t other = fork();
    if (other == 0) {
        usleep(50000);
        _exit(0);
    }
    Scenario s("sleep_ms 400\nlisten\naccept\ndrain\nexit 0\n");
    TAM_KernelImpl* k = TAM_new_uds_kernel(Scenario::kernelPath(), nullptr);
    ASSERT_NE(k, nullptr);
    std::string client = boundPath(TAM_get_client_fd(k));
    TAM_delete_kernel(k);
    EXPECT_EQ(waitpid(other, nullptr, 0), other);
    unlink(client.c_str());
}

TEST(UdsLaunch, KernelArgumentsNamesAndCleanUp) {
    installMarkers();
    Scenario s("listen\naccept\ndrain\nexit 0\n");
    TAM_KernelImpl* k = TAM_new_uds_kernel(Scenario::kernelPath(), nullptr);
    ASSERT_NE(k, nullptr);
    expectMarkersInPlace();

    // Argument 0 is the file name without its directory.
    std::vector<std::string> args = s.args();
    ASSERT_EQ(args.size(), 3u);
    EXPECT_EQ(args[0], "tamix_scripted_kernel");
    EXPECT_EQ(args[1], "-X");
    EXPECT_EQ(args[2].rfind("/var/tmp//tamkr", 0), 0u) << args[2];
    EXPECT_EQ(args[2].size(), strlen("/var/tmp//tamkrXXXXXX"));
    ASSERT_NE(TAM_get_listen_path(k), nullptr);
    EXPECT_EQ(args[2], TAM_get_listen_path(k));
    EXPECT_TRUE(fileExists(args[2]));

    // Without a name the process is named after its socket.
    int fd = TAM_get_client_fd(k);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(std::string(TAM_get_kernel_name(k)), std::to_string(fd));
    EXPECT_EQ(TAM_get_client_id(k), -1);

    // The client end is bound to its own owner-only socket file.
    std::string client = boundPath(fd);
    EXPECT_EQ(client.rfind("/var/tmp//tamcl", 0), 0u) << client;
    struct stat st;
    ASSERT_EQ(stat(client.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    pid_t pid = s.pid();
    EXPECT_TRUE(processExists(pid));
    // Deleting the only client closes the socket (the kernel sees the end
    // of its input and exits), removes the kernel's socket file and reaps
    // the kernel.
    TAM_delete_kernel(k);
    EXPECT_FALSE(processExists(pid));
    EXPECT_FALSE(fileExists(args[2]));
    expectNoChildren();
    // An unannounced client sends nothing, not even a quit request.
    EXPECT_EQ(s.received(), "");
    unlink(client.c_str());
}

TEST(UdsLaunch, JoiningARunningKernel) {
    Scenario s("listen\naccept\naccept\n"
               "conn 1\nwait_for <newclient\nsend <ready cl=\"3\"/>\ndrain\n"
               "conn 0\ndrain\nexit 0\n");
    TAM_KernelImpl* owner = TAM_new_uds_kernel(Scenario::kernelPath(), "owner");
    ASSERT_NE(owner, nullptr);
    const std::string listen = TAM_get_listen_path(owner);

    TAM_KernelImpl* joined = TAM_connect_uds_kernel(listen.c_str(), "joined");
    ASSERT_NE(joined, nullptr);
    EXPECT_NE(TAM_get_client_fd(joined), TAM_get_client_fd(owner));
    EXPECT_EQ(std::string(TAM_get_kernel_name(joined)), "joined");
    EXPECT_EQ(listen, TAM_get_listen_path(joined));

    ASSERT_EQ(TAM_send_new_client(joined, "j", nullptr, 0), 1);
    ASSERT_TRUE(pumpUntil([&] { return TAM_get_client_id(joined) == 3; }));
    EXPECT_EQ(TAM_get_client_id(owner), -1);

    std::string c1 = boundPath(TAM_get_client_fd(owner));
    std::string c2 = boundPath(TAM_get_client_fd(joined));
    // A joined kernel is not waited for, but its socket file goes with the
    // process object all the same.
    TAM_delete_kernel(joined);
    EXPECT_FALSE(fileExists(listen));
    pid_t pid = s.pid();
    TAM_delete_kernel(owner);
    EXPECT_FALSE(processExists(pid));
    EXPECT_NE(s.received(1).find("<quit cl=\"3\"/>"), std::string::npos);
    unlink(c1.c_str());
    unlink(c2.c_str());
}

TEST(UdsLaunch, ConnectionWithoutProcess) {
    TAM_UdsKernel* k = new TAM_UdsKernel(nullptr);
    EXPECT_EQ(TAM_get_client_fd(k), -1);
    EXPECT_EQ(TAM_get_kernel_name(k), nullptr);
    EXPECT_EQ(TAM_get_listen_path(k), nullptr);
    EXPECT_EQ(TAM_set_kernel_name(k, "x"), 0);
    EXPECT_EQ(TAM_send_new_client(k, "a", "b", 0), 0);
    EXPECT_EQ(TAM_send_cmd(k, nullptr, "1+1"), 0);
    EXPECT_EQ(TAM_send_quit(k), 0);
    TAM_delete_kernel(k);
}
