// The flat entry points: null handles, forwarding of every argument,
// exceptions turned into 0, deletion and the queries.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "xmsg/WriterTestKernel.h"

using writertest::FailingStream;
using writertest::TestKernel;

namespace {

class FlatApi : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_ALL, ""), nullptr); }
};

const unsigned char kAbc[] = {'a', 'b', 'c'};
const TAM_DataTAG kRec = {"abc", kAbc, 3};
const char* kArgv[] = {"-l", "x"};
void* const kCookie = reinterpret_cast<void*>(static_cast<intptr_t>(77));

struct Pair {
    const char* what;
    std::function<int(TAM_KernelImpl*)> flat;    // the wrapper
    std::function<int(TAM_KernelImpl&)> direct;  // what it must forward to
};

// Distinct, non-default values everywhere, so a dropped or swapped argument
// changes the bytes.
std::vector<Pair> pairs()
{
    return {
        {"new_client", [](TAM_KernelImpl* k) { return TAM_send_new_client(k, "n", "f", 0x10000); },
         [](TAM_KernelImpl& k) { return k.send_new_client("n", "f", 0x10000, 2, 1, 4); }},
        {"new_client_ext",
         [](TAM_KernelImpl* k) { return TAM_send_new_client_ext(k, "n", "f", 0x21, 3, 2, 3); },
         [](TAM_KernelImpl& k) { return k.send_new_client("n", "f", 0x21, 3, 2, 3); }},
        {"init", [](TAM_KernelImpl* k) { return TAM_send_init(k, 2, kArgv); },
         [](TAM_KernelImpl& k) { return k.send_init(2, kArgv); }},
        {"cmd", [](TAM_KernelImpl* k) { return TAM_send_cmd(k, kCookie, "x"); },
         [](TAM_KernelImpl& k) { return k.send_cmd(kCookie, "x", 0, nullptr); }},
        {"cmd_ext", [](TAM_KernelImpl* k) { return TAM_send_cmd_ext(k, kCookie, "x", 1, "fm"); },
         [](TAM_KernelImpl& k) { return k.send_cmd(kCookie, "x", 1, "fm"); }},
        {"cmd_data", [](TAM_KernelImpl* k) { return TAM_send_cmd_data(k, kCookie, &kRec, 1, "fm"); },
         [](TAM_KernelImpl& k) { return k.send_cmd_data(kCookie, &kRec, 1, "fm"); }},
        {"completion", [](TAM_KernelImpl* k) { return TAM_send_completion_wanted(k, "Si"); },
         [](TAM_KernelImpl& k) { return k.send_completion_wanted("Si"); }},
        {"dbg_cmd", [](TAM_KernelImpl* k) { return TAM_send_dbg_cmd(k, 'n', "fn", 12, "ex"); },
         [](TAM_KernelImpl& k) { return k.send_dbg_cmd('n', "fn", 12, "ex"); }},
        {"system_result", [](TAM_KernelImpl* k) { return TAM_send_system_result(k, 5); },
         [](TAM_KernelImpl& k) { return k.send_system_result(5); }},
        {"input", [](TAM_KernelImpl* k) { return TAM_send_input(k, 0, "in"); },
         [](TAM_KernelImpl& k) { return k.send_input(0, "in"); }},
        {"textinput", [](TAM_KernelImpl* k) { return TAM_send_textinput(k, 1, "ti"); },
         [](TAM_KernelImpl& k) { return k.send_textinput(1, "ti"); }},
        {"call_result", [](TAM_KernelImpl* k) { return TAM_send_call_result(k, 0, &kRec); },
         [](TAM_KernelImpl& k) { return k.send_call_result(0, &kRec); }},
        {"textwidth", [](TAM_KernelImpl* k) { return TAM_send_textwidth(k, 66); },
         [](TAM_KernelImpl& k) { return k.send_textwidth(66); }},
        {"pretty_print", [](TAM_KernelImpl* k) { return TAM_send_pretty_print(k, 1); },
         [](TAM_KernelImpl& k) { return k.send_pretty_print(1); }},
        {"abbreviate_output", [](TAM_KernelImpl* k) { return TAM_send_abbreviate_output(k, 1); },
         [](TAM_KernelImpl& k) { return k.send_abbreviate_output(1); }},
        {"format", [](TAM_KernelImpl* k) { return TAM_send_format(k, "ty", "va"); },
         [](TAM_KernelImpl& k) { return k.send_format("ty", "va"); }},
        {"status_wanted", [](TAM_KernelImpl* k) { return TAM_send_status_wanted(k); },
         [](TAM_KernelImpl& k) { return k.send_status_wanted(); }},
        {"stop", [](TAM_KernelImpl* k) { return TAM_send_stop(k); },
         [](TAM_KernelImpl& k) { return k.send_stop(); }},
        {"quit", [](TAM_KernelImpl* k) { return TAM_send_quit(k); },
         [](TAM_KernelImpl& k) { return k.send_quit(); }},
    };
}

TEST_F(FlatApi, WrappersForwardEveryArgument)
{
    for (const Pair& p : pairs()) {
        TestKernel a(3), b(3);
        EXPECT_EQ(p.flat(&a), 1) << p.what;
        EXPECT_EQ(p.direct(b), 1) << p.what;
        EXPECT_EQ(a.text(), b.text()) << p.what;
        EXPECT_FALSE(a.text().empty()) << p.what;
    }
}

TEST_F(FlatApi, ShortFormsEqualTheirExtendedForms)
{
    TestKernel a(1), b(1);
    TAM_send_cmd(&a, kCookie, "x");
    TAM_send_cmd_ext(&b, kCookie, "x", 0, nullptr);
    EXPECT_EQ(a.text(), b.text());

    TestKernel c(-1), d(-1);
    TAM_send_new_client(&c, nullptr, nullptr, 0x10000);
    TAM_send_new_client_ext(&d, nullptr, nullptr, 0x10000, 2, 1, 4);
    EXPECT_EQ(c.text(), d.text());
    EXPECT_EQ(c.text(), "<newclient name =\"\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" "
                        "coding=\"ident \" features=\"can_quit \"/>");
}

TEST_F(FlatApi, NullHandleGivesNeutralResults)
{
    for (const Pair& p : pairs())
        EXPECT_EQ(p.flat(nullptr), 0) << p.what;
    EXPECT_EQ(TAM_set_kernel_name(nullptr, "x"), 0);
    EXPECT_EQ(TAM_get_client_id(nullptr), -1);
    EXPECT_EQ(TAM_get_kernel_name(nullptr), nullptr);
    EXPECT_EQ(TAM_get_client_fd(nullptr), 0);
    EXPECT_EQ(TAM_get_listen_path(nullptr), nullptr);
    TAM_delete_kernel(nullptr);
    TAM_free(nullptr);
}

// An exception from a request ends in 0 and the connection works on.
TEST_F(FlatApi, ThrowingRequestReturnsZeroAndNextWorks)
{
    for (const Pair& p : pairs()) {
        TestKernel k(2), ref(2);
        p.direct(ref);
        k.stream.mode = FailingStream::ThrowBadAlloc;
        k.stream.failAt = 1;
        EXPECT_EQ(p.flat(&k), 0) << p.what;
        k.stream.failAt = 0;
        EXPECT_EQ(p.flat(&k), 1) << p.what;
        EXPECT_EQ(k.text(), ref.text()) << p.what;
    }

    TestKernel k(2);
    k.throwOnRename = true;
    EXPECT_EQ(TAM_set_kernel_name(&k, "other"), 0);
    EXPECT_STREQ(TAM_get_kernel_name(&k), "kernel");
    k.throwOnRename = false;
    EXPECT_EQ(TAM_set_kernel_name(&k, "other"), 1);
    EXPECT_STREQ(TAM_get_kernel_name(&k), "other");
}

TEST_F(FlatApi, FailedRequestReturnsZero)
{
    TestKernel k(2);
    k.stream.failAt = 2;
    EXPECT_EQ(TAM_send_stop(&k), 0);
    k.stream.failAt = 0;
    k.stream.failFlush = true;
    EXPECT_EQ(TAM_send_quit(&k), 0);
}

TEST_F(FlatApi, QueriesAndDefaults)
{
    TestKernel k(-1);
    EXPECT_EQ(TAM_get_client_id(&k), -1);
    k.id_ = 5;
    EXPECT_EQ(TAM_get_client_id(&k), 5);
    EXPECT_STREQ(TAM_get_kernel_name(&k), "kernel");
    // Defaults of the base for a connection that has neither.
    EXPECT_EQ(TAM_get_client_fd(&k), 0);
    EXPECT_EQ(TAM_get_listen_path(&k), nullptr);

    EXPECT_EQ(TAM_get_lib_kernel(), nullptr);
    TAM_exit_lib();
    EXPECT_EQ(TAM_set_event_handler(&k, reinterpret_cast<void*>(&k)), 0);
    EXPECT_EQ(TAM_set_fatal_exit_handler(reinterpret_cast<void*>(&k)), 0);
    EXPECT_EQ(TAM_new_wmsg_kernel("k", "n"), nullptr);
    EXPECT_EQ(TAM_get_wmsg_kernel("k", "n", 1), nullptr);
    EXPECT_EQ(TAM_get_wmsg_kernel_names(), nullptr);
}

// Records what the table looked like when the object was destroyed.
struct Seen {
    bool destroyed = false;
    bool outputSlotEmpty = false;
    bool clientDataEmpty = false;
};

class WatchedKernel : public TestKernel {
public:
    explicit WatchedKernel(Seen* seen) : seen_(seen) {}
    ~WatchedKernel() override
    {
        seen_->destroyed = true;
        seen_->outputSlotEmpty = on_output == nullptr;
        seen_->clientDataEmpty = client_data_ == nullptr;
    }
    Seen* seen_;
};

void printOutput(TAM_KernelImpl*, void*, const char*, const char*, const char*) {}

TEST_F(FlatApi, DeleteResetsTheTableBeforeDestroying)
{
    Seen seen;
    auto* k = new WatchedKernel(&seen);
    TAM_set_on_output_handler(k, printOutput);
    TAM_set_client_data(k, k);
    TAM_delete_kernel(k);
    EXPECT_TRUE(seen.destroyed);
    EXPECT_TRUE(seen.outputSlotEmpty);
    EXPECT_TRUE(seen.clientDataEmpty);
}

TEST_F(FlatApi, FreeReleasesLibraryMemory)
{
    // Under the sanitizer build a wrong release function is reported.
    char** names = static_cast<char**>(std::malloc(2 * sizeof(char*)));
    ASSERT_NE(names, nullptr);
    names[0] = strdup("k");
    names[1] = nullptr;
    TAM_free(names[0]);
    TAM_free(names);
}

} // namespace
