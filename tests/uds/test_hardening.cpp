// A hostile or broken kernel against the transport: requests sent whole or
// not at all, time-outs that end every wait, kernels that do not go when
// told, sockets of other users and names taken from under the library, and
// memory per message within its bounds.
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <zlib.h>

#include <cstring>

#include "common/ScriptedKernel.h"
#include "support/TKbase64.h"

using namespace tamixtest;
using UdsHardening = UdsTest;

namespace {

// A kernel that gives its one client id 1.
const std::string kBound = "listen\naccept\nwait_for <newclient\nsend <ready cl=\"1\"/>\n";

// Launches a kernel playing steps after kBound and waits for its client id.
TAM_KernelImpl* boundKernel(long features = 0)
{
    TAM_KernelImpl* k = launch();
    if (!k || TAM_send_new_client(k, nullptr, nullptr, features) != 1 ||
        !pumpUntil([k] { return TAM_get_client_id(k) == 1; }))
        return nullptr;
    return k;
}

// Reads the kernel's socket until cond holds, the stream ends or ms pass.
bool readUntil(TAM_KernelImpl* k, const std::function<bool()>& cond, int ms = 15000)
{
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (!cond() && Clock::now() < end) {
        pollfd p = {TAM_get_client_fd(k), POLLIN, 0};
        if (poll(&p, 1, 50) > 0)
            TAM_read_uds_input(p.fd);
    }
    return cond();
}

// ---- replanted names --------------------------------------------------------

// mkstemp, with the next names of a template taken from this list: names
// that someone else holds already.
std::vector<std::string> gTaken;

} // namespace

extern "C" int mkstemp(char* tmpl)
{
    static auto real = reinterpret_cast<int (*)(char*)>(dlsym(RTLD_NEXT, "mkstemp"));
    for (auto it = gTaken.begin(); it != gTaken.end(); ++it) {
        if (it->size() == std::strlen(tmpl) &&
            it->compare(0, it->size() - 6, tmpl, std::strlen(tmpl) - 6) == 0) {
            std::strcpy(tmpl, it->c_str());
            gTaken.erase(it);
            return open("/dev/null", O_RDONLY);
        }
    }
    return real(tmpl);
}

namespace {

// A fresh name from tmpl that a directory holds: the library can neither
// remove it nor bind a socket there.
std::string takenName(const char* tmpl)
{
    std::string name = tmpl;
    close(mkstemp(&name[0]));
    unlink(name.c_str());
    mkdir(name.c_str(), 0700);
    return name;
}

// ---- memory -----------------------------------------------------------------

// A field of /proc/self/status, in KiB.
long statusKb(const char* field)
{
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(field, 0) == 0)
            return std::stol(line.substr(std::strlen(field) + 1));
    return -1;
}

// Base64 of a zlib stream that inflates to n zero bytes.
std::string deflatedZeros(uint64_t n)
{
    z_stream z{};
    deflateInit(&z, Z_BEST_COMPRESSION);
    static unsigned char zeros[1 << 16];
    std::string packed;
    unsigned char out[1 << 16];
    for (uint64_t left = n;;) {
        const uInt piece = left < sizeof zeros ? static_cast<uInt>(left) : sizeof zeros;
        z.next_in = zeros;
        z.avail_in = piece;
        left -= piece;
        do {
            z.next_out = out;
            z.avail_out = sizeof out;
            deflate(&z, left ? Z_NO_FLUSH : Z_FINISH);
            packed.append(reinterpret_cast<char*>(out), sizeof out - z.avail_out);
        } while (z.avail_out == 0);
        if (!left)
            break;
    }
    deflateEnd(&z);
    std::string text(TK_base64_encoded_length(packed.size()), '\0');
    text.resize(TK_base64_encode(reinterpret_cast<unsigned char*>(&text[0]), text.size(),
                                 reinterpret_cast<const unsigned char*>(packed.data()),
                                 packed.size()));
    return text;
}

uint64_t gDelivered; // length of the last output, text or payload

} // namespace

// A request goes out whole or reports failure: signals that interrupt the
// send of a large command do not cut it short, and a kernel that stops
// reading makes the request fail after the time-out and leaves the
// connection marked and unusable.
TEST_F(UdsHardening, RequestsGoOutWholeOrFailWithinTheTimeOut)
{
    const std::string big(8 << 20, 'x');
    {
        Scenario s(kBound + "sleep_ms 200\nwait_for </cmd>\nsend <finished cl=\"1\" cid=\"0\"/>\n"
                            "drain\n");
        TAM_KernelImpl* k = watch(boundKernel());
        ASSERT_NE(k, nullptr);
        struct sigaction tick {
        }, old{};
        tick.sa_handler = [](int) {};
        sigaction(SIGALRM, &tick, &old);
        itimerval every{{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &every, nullptr);
        const int sent = TAM_send_cmd(k, nullptr, big.c_str());
        alarm(0);
        sigaction(SIGALRM, &old, nullptr);
        alarm(20);
        EXPECT_EQ(sent, 1);
        EXPECT_TRUE(readUntil(k, [] { return !events.empty(); }));
        EXPECT_EQ(events, Strings{"finished:0"});
        TAM_delete_kernel(k);
        const std::string got = s.received();
        EXPECT_GT(got.size(), big.size());
        const std::string end = big.substr(0, 7) + "</text></cmd><quit cl=\"1\"/>";
        EXPECT_EQ(got.substr(got.size() - end.size()), end);
    }
    Scenario s(kBound + "sleep_ms 20000\n");
    ASSERT_EQ(TAM_set_limit(TAM_LIMIT_SEND_TIMEOUT_MS, 300), 1);
    ASSERT_EQ(TAM_set_limit(TAM_LIMIT_DELETE_GRACE_MS, 200), 1);
    TAM_KernelImpl* k = boundKernel();
    ASSERT_NE(k, nullptr);
    auto t0 = Clock::now();
    EXPECT_EQ(TAM_send_cmd(k, nullptr, big.c_str()), 0);
    EXPECT_GE(msSince(t0), 290);
    EXPECT_LT(msSince(t0), 3000);
    EXPECT_EQ(TAM_get_kernel_state(k), TAM_KERNEL_UNRESPONSIVE);
    // The stream is cut: nothing more is even tried.
    t0 = Clock::now();
    EXPECT_EQ(TAM_send_stop(k), 0);
    EXPECT_LT(msSince(t0), 200);
    // The kernel ignores the end of its connection too: it is ended.
    t0 = Clock::now();
    TAM_delete_kernel(k);
    EXPECT_LT(msSince(t0), 3000);
    EXPECT_FALSE(alive(s.pid()));
}

// The deletion waits for a launched kernel only for the grace period, then
// sends SIGTERM, then SIGKILL; a kernel asked to stay alive is neither
// waited for nor ended.
TEST_F(UdsHardening, DeletionEndsAKernelThatDoesNotGoUnlessItIsToStay)
{
    struct Row {
        const char* steps;
        long features;
        long minMs, maxMs; // how long the deletion may take
        bool stays;
    } rows[] = {
        {"drain\nexit 0\n", 0, 0, 150, false},
        {"sleep_ms 20000\n", 0, 190, 3000, false},
        {"ignore_term\nsleep_ms 20000\n", 0, 390, 3000, false},
        {"drain\nsleep_ms 20000\n", TAM_FEATURE_STAY_ALIVE, 0, 150, true},
    };
    ASSERT_EQ(TAM_set_limit(TAM_LIMIT_DELETE_GRACE_MS, 200), 1);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.steps);
        Scenario s(kBound + row.steps);
        TAM_KernelImpl* k = boundKernel(row.features);
        ASSERT_NE(k, nullptr);
        const pid_t pid = s.pid();
        const auto t0 = Clock::now();
        TAM_delete_kernel(k);
        EXPECT_GE(msSince(t0), row.minMs);
        EXPECT_LT(msSince(t0), row.maxMs);
        EXPECT_EQ(alive(pid), row.stays);
        if (row.stays) {
            kill(pid, SIGKILL);
            EXPECT_EQ(waitpid(pid, nullptr, 0), pid) << "left to the front end";
        }
        errno = 0;
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    }
}

// A socket that another user listens at gets no connection from the
// library, launched kernels and joined ones alike go through the same
// check.
TEST_F(UdsHardening, ASocketOfAnotherUserIsRefused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to listen as another user";
    char dir[] = "/tmp/tamixcredXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    chmod(dir, 0777);
    const std::string path = std::string(dir) + "/sock";
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const pid_t other = fork();
    if (other == 0) {
        // As nobody: listen, tell the parent, then count what arrives.
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(2);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, path.c_str());
        int l = socket(AF_UNIX, SOCK_STREAM, 0);
        if (bind(l, reinterpret_cast<sockaddr*>(&addr), sizeof addr) || listen(l, 4))
            _exit(3);
        chmod(path.c_str(), 0777);
        long got = 0;
        if (write(report[1], &got, sizeof got) != sizeof got)
            _exit(4);
        pollfd p = {l, POLLIN, 0};
        if (poll(&p, 1, 5000) > 0) {
            int c = accept(l, nullptr, nullptr);
            char buf[4096];
            for (ssize_t n; (n = read(c, buf, sizeof buf)) > 0;)
                got += n;
        }
        _exit(write(report[1], &got, sizeof got) == sizeof got ? 0 : 5);
    }
    long got = -1;
    ASSERT_EQ(read(report[0], &got, sizeof got), static_cast<ssize_t>(sizeof got));
    EXPECT_EQ(withoutSocketFile(TAM_connect_uds_kernel(path.c_str(), "theirs")), nullptr);
    EXPECT_EQ(read(report[0], &got, sizeof got), static_cast<ssize_t>(sizeof got));
    EXPECT_EQ(got, 0) << "bytes the other user received";
    int status = -1;
    EXPECT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(names().empty());
    unlink(path.c_str());
    rmdir(dir);
}

// Names that someone else takes between their reservation and their use:
// the client's socket and the kernel's socket get fresh ones, a few times.
TEST_F(UdsHardening, TakenSocketNamesAreReplacedAFewTimes)
{
    const std::string client = takenName("/var/tmp//tamclXXXXXX");
    const std::string kernel = takenName("/var/tmp//tamkrXXXXXX");
    Scenario s("listen\naccept\ndrain\nexit 0\n");
    gTaken = {client, kernel};
    TAM_KernelImpl* k = TAM_new_uds_kernel(TAMIX_SCRIPTED_KERNEL, nullptr);
    ASSERT_NE(k, nullptr);
    EXPECT_TRUE(gTaken.empty());
    const std::string bound = boundPath(TAM_get_client_fd(k));
    EXPECT_NE(bound, client);
    EXPECT_EQ(bound.size(), client.size());
    EXPECT_NE(TAM_get_listen_path(k), kernel);
    unlink(bound.c_str());
    TAM_delete_kernel(k);
    // Taken every time: the launch gives up, leaving no kernel behind.
    std::vector<std::string> all;
    for (int i = 0; i < 3; ++i)
        all.push_back(takenName("/var/tmp//tamkrXXXXXX"));
    gTaken = all;
    EXPECT_EQ(TAM_new_uds_kernel(TAMIX_SCRIPTED_KERNEL, nullptr), nullptr);
    EXPECT_TRUE(gTaken.empty());
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    for (const std::string& name : all)
        rmdir(name.c_str());
    rmdir(client.c_str());
    rmdir(kernel.c_str());
}

// What one message can cost: a kernel that sends far more than a bound
// allows ends its stream over the limit, and the front end's peak memory
// grows by little more than the bound; messages of the reference kernel's
// largest size pass the defaults whole.
TEST_F(UdsHardening, MemoryPerMessageStaysWithinItsBounds)
{
#ifdef __SANITIZE_ADDRESS__
    // The sanitizer keeps freed memory and its own shadow of it: the peaks
    // say nothing here, but the bounds must still end each stream, and
    // everything runs slower.
    const bool peaksMean = false;
    alarm(120);
#else
    const bool peaksMean = true;
#endif
    const std::string text = "<output cl=\"1\" cid=\"0\"><text>";
    struct Row {
        const char* what;
        int which; // the bound lowered for the row, 0 for none
        int64_t value;
        std::string steps;
        int state;
        uint64_t delivered; // length of the output delivered
        long peakKb;        // bound on the growth of the peak
    } rows[] = {
        {"30 MB of nested tags", 0, 0, "send " + text + "\nrepeat 10000000 <a>\n",
         TAM_KERNEL_OVER_LIMIT, 0, 8 << 10},
        {"an endless breakpoint list", 0, 0,
         "send <breakpoints cl=\"1\">\nrepeat 2000000 <breakpt fname=\"f.tam\" fpos=\"%n\" "
         "cond=\"x&gt;1\"/>\n",
         TAM_KERNEL_OVER_LIMIT, 0, 16 << 10},
        {"60 000 format names", 0, 0,
         "repeat 60000 <format cl=\"1\" type=\"t\"><fmt name=\"f%n\"/></format>\n",
         TAM_KERNEL_OVER_LIMIT, 0, 8 << 10},
        {"text of 32 MB", TAM_LIMIT_MESSAGE_BYTES, 1 << 20,
         "send " + text + "\nrepeat 32768 " + std::string(1024, 'x') + "\n", TAM_KERNEL_OVER_LIMIT,
         0, 8 << 10},
        {"an attribute of 32 MB", TAM_LIMIT_MESSAGE_BYTES, 1 << 20,
         "send <help cl=\"1\" value=\"\nrepeat 32768 " + std::string(1024, 'x') + "\n",
         TAM_KERNEL_OVER_LIMIT, 0, 8 << 10},
        {"a payload inflating to 1 GiB", TAM_LIMIT_PAYLOAD_BYTES, 8 << 20,
         "send <output cl=\"1\" cid=\"0\"><mcode format=\"z\">" + deflatedZeros(uint64_t(1) << 30) +
             "</mcode></output>\n",
         TAM_KERNEL_OVER_LIMIT, 0, 16 << 10},
        {"a result of 10^7 characters", 0, 0,
         "send " + text + "\nrepeat 10000 " + std::string(1000, 'x') + "\nsend </text></output>\n",
         TAM_KERNEL_RUNNING, 10000000, 24 << 10},
        {"a payload of 16 MiB", 0, 0,
         "send <output cl=\"1\" cid=\"0\"><mcode format=\"z\">" + deflatedZeros(16 << 20) +
             "</mcode></output>\n",
         TAM_KERNEL_RUNNING, 16 << 20, 32 << 10},
    };
    // Freed blocks go back to the system at once, so that what an earlier
    // row left in the heap cannot hide a later row's peak.
    mallopt(M_MMAP_THRESHOLD, 64 << 10);
    mallopt(M_TRIM_THRESHOLD, 0);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        malloc_trim(0);
        if (row.which) {
            ASSERT_EQ(TAM_set_limit(row.which, row.value), 1);
        }
        Scenario s(kBound + row.steps + "drain\n");
        TAM_KernelImpl* k = boundKernel();
        ASSERT_NE(k, nullptr);
        gDelivered = 0;
        TAM_set_on_output_handler(k, [](TAM_KernelImpl*, void*, const char*, const char*,
                                        const char* t) { gDelivered = std::strlen(t); });
        TAM_set_on_output_data_handler(k, [](TAM_KernelImpl*, void*, const char*,
                                             const TAM_DataTAG* d) { gDelivered = d->length; });
        const long before = statusKb("VmRSS:");
        std::ofstream("/proc/self/clear_refs") << "5"; // the peak starts here
        const long c0 = cpuMs();
        EXPECT_TRUE(readUntil(
            k, [&] { return TAM_get_kernel_state(k) != TAM_KERNEL_RUNNING || gDelivered > 0; }));
        const long grown = statusKb("VmHWM:") - before;
        std::printf("%s: state %d, peak +%ld KiB, %ld ms of processor time\n", row.what,
                    TAM_get_kernel_state(k), grown, cpuMs() - c0);
        EXPECT_EQ(TAM_get_kernel_state(k), row.state);
        EXPECT_EQ(gDelivered, row.delivered);
        if (peaksMean) {
            EXPECT_LT(grown, row.peakKb);
        }
        TAM_delete_kernel(k);
        if (row.which)
            TAM_set_limit(row.which, -1);
    }
}
