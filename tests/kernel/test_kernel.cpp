// The handler table (initial state, setters, reset, client data), the six
// defaults, and the flat entry points: forwarding, null handles, exceptions
// turned into 0, deletion and the queries.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "common/WriterTestKernel.h"

using writertest::TestKernel;

namespace {

void marker()
{
}
const void* const kMarker = reinterpret_cast<const void*>(marker);

struct Slot {
    void (*set)(TAM_KernelImpl*, bool); // marker or null through the setter
    const void* (*get)(const TAM_KernelImpl&);
    const void* initial;
};
#define SLOT(name, type, initial)                                                               \
    {                                                                                           \
        [](TAM_KernelImpl* k, bool on) {                                                        \
            TAM_set_on_##name##_handler(k, on ? reinterpret_cast<type>(marker) : nullptr);      \
        },                                                                                      \
            [](const TAM_KernelImpl& k) { return reinterpret_cast<const void*>(k.on_##name); }, \
            (const void*)(initial)                                                              \
    }
const Slot kSlots[] = {
    SLOT(init_wanted, TAM_OnInitWanted, TAM_default_on_init_wanted),
    SLOT(kernel_ready, TAM_OnKernelReady, nullptr),
    SLOT(output, TAM_OnOutput, nullptr),
    SLOT(output_data, TAM_OnOutputData, nullptr),
    SLOT(finished, TAM_OnFinished, nullptr),
    SLOT(complete_cmd, TAM_OnCompleteCmd, nullptr),
    SLOT(input_wanted, TAM_OnInputWanted, TAM_default_on_input_wanted),
    SLOT(callback, TAM_OnCallback, TAM_default_on_callback),
    SLOT(help, TAM_OnHelp, nullptr),
    SLOT(system, TAM_OnSystem, TAM_default_on_system),
    SLOT(frame_changed, TAM_OnFrameChanged, nullptr),
    SLOT(textwidth_changed, TAM_OnTextwidthChanged, nullptr),
    SLOT(pretty_print_changed, TAM_OnPrettyPrintChanged, nullptr),
    SLOT(abbreviate_output_changed, TAM_OnAbbreviateOutputChanged, nullptr),
    SLOT(format_changed, TAM_OnFormatChanged, nullptr),
    SLOT(select_format, TAM_OnSelectFormat, TAM_default_on_select_format),
    SLOT(status, TAM_OnStatus, nullptr),
    SLOT(input_completion, TAM_OnInputCompletion, nullptr),
    SLOT(plot_result_file, TAM_OnPlotResultFile, nullptr),
    SLOT(dbg_cmd_wanted, TAM_OnDbgCmdWanted, TAM_default_on_dbg_cmd_wanted),
    SLOT(dbg_info, TAM_OnDbgInfo, nullptr),
    SLOT(display_list, TAM_OnDisplayList, nullptr),
    SLOT(breakpoint_list, TAM_OnBreakpointList, nullptr),
    SLOT(call_stack, TAM_OnCallStack, nullptr),
    SLOT(reset, TAM_OnReset, nullptr),
    SLOT(quit, TAM_OnQuit, nullptr),
};

// Every slot holds its initial value, except slot `changed`, which holds the marker.
void expectTable(const TAM_KernelImpl& k, const Slot* changed = nullptr)
{
    for (const Slot& s : kSlots)
        EXPECT_EQ(s.get(k), &s == changed ? kMarker : s.initial) << "slot " << &s - kSlots;
}

TEST(Kernel, EachSetterFillsItsSlotAndNullRestoresTheInitialValue)
{
    TestKernel k;
    expectTable(k);
    EXPECT_EQ(k.client_data_, nullptr);
    for (const Slot& s : kSlots) {
        s.set(&k, true);
        expectTable(k, &s);
        s.set(&k, false);
        expectTable(k);
        s.set(nullptr, true); // ignored
    }
    int mine = 0;
    for (const Slot& s : kSlots)
        s.set(&k, true);
    EXPECT_EQ(TAM_set_client_data(&k, &mine), 1);
    EXPECT_EQ(TAM_get_client_data(&k), &mine);
    k.reset_message_handler();
    expectTable(k);
    EXPECT_EQ(TAM_get_client_data(&k), nullptr);
    EXPECT_EQ(TAM_set_client_data(nullptr, &mine), 0);
    EXPECT_EQ(TAM_get_client_data(nullptr), nullptr);
}

// The answers themselves are checked through the reader; here what only a direct call reaches.
TEST(Kernel, Defaults)
{
    TAM_default_on_init_wanted(nullptr); // no connection to answer on: no crash
    TAM_default_on_input_wanted(nullptr, nullptr, 0, nullptr);
    TAM_default_on_callback(nullptr, nullptr, nullptr);
    TAM_default_on_system(nullptr, nullptr);
    TAM_default_on_select_format(nullptr, "t", 0, nullptr);
    TestKernel k(1);
    const char* poison[] = {nullptr}; // with nothing offered the list is never read
    for (auto [count, list] : {std::pair<long, const char**>{0, poison}, {3, nullptr}}) {
        k.on_select_format(&k, "Out", count, list);
        EXPECT_EQ(k.text(), "<format cl=\"1\" type=\"Out\" value=\"\"/>");
    }
    // The first five swallow a request's exception; the debugger default lets it out.
    k.stream.throws = true;
    k.stream.failAt = 1;
    const char* formats[] = {"a"};
    EXPECT_NO_THROW(k.on_init_wanted(&k));
    EXPECT_NO_THROW(k.on_input_wanted(&k, nullptr, 0, ""));
    EXPECT_NO_THROW(k.on_input_wanted(&k, nullptr, 1, ""));
    EXPECT_NO_THROW(k.on_callback(&k, nullptr, nullptr));
    EXPECT_NO_THROW(k.on_system(&k, ""));
    EXPECT_NO_THROW(k.on_select_format(&k, "t", 1, formats));
    EXPECT_THROW(k.on_dbg_cmd_wanted(&k, nullptr), std::bad_alloc);
}

const unsigned char kBytes[] = {'a', 'b', 'c'};
const TAM_DataTAG kRec = {"abc", kBytes, 3};
const char* kArgv[] = {"-l", "x"};
void* const kCookie = reinterpret_cast<void*>(static_cast<intptr_t>(77));

// Each wrapper and the call it must make: distinct non-default values, so a
// dropped or swapped argument changes the bytes.
struct Pair {
    int (*flat)(TAM_KernelImpl*);
    int (*direct)(TAM_KernelImpl*);
};
#define PAIR(flat, direct)                                                                  \
    {                                                                                       \
        [](TAM_KernelImpl* k) { return flat; }, [](TAM_KernelImpl* k) { return k->direct; } \
    }
const Pair kPairs[] = {
    PAIR(TAM_send_new_client(k, "n", "f", 0x10000), send_new_client("n", "f", 0x10000, 2, 1, 4)),
    PAIR(TAM_send_new_client_ext(k, "n", "f", 0x21, 3, 2, 3),
         send_new_client("n", "f", 0x21, 3, 2, 3)),
    PAIR(TAM_send_init(k, 2, kArgv), send_init(2, kArgv)),
    PAIR(TAM_send_cmd(k, kCookie, "x"), send_cmd(kCookie, "x", 0, nullptr)),
    PAIR(TAM_send_cmd_ext(k, kCookie, "x", 1, "fm"), send_cmd(kCookie, "x", 1, "fm")),
    PAIR(TAM_send_cmd_data(k, kCookie, &kRec, 1, "fm"), send_cmd_data(kCookie, &kRec, 1, "fm")),
    PAIR(TAM_send_completion_wanted(k, "Si"), send_completion_wanted("Si")),
    PAIR(TAM_send_dbg_cmd(k, 'n', "fn", 12, "ex"), send_dbg_cmd('n', "fn", 12, "ex")),
    PAIR(TAM_send_system_result(k, 5), send_system_result(5)),
    PAIR(TAM_send_input(k, 0, "in"), send_input(0, "in")),
    PAIR(TAM_send_textinput(k, 1, "ti"), send_textinput(1, "ti")),
    PAIR(TAM_send_call_result(k, 0, &kRec), send_call_result(0, &kRec)),
    PAIR(TAM_send_textwidth(k, 66), send_textwidth(66)),
    PAIR(TAM_send_pretty_print(k, 1), send_pretty_print(1)),
    PAIR(TAM_send_abbreviate_output(k, 1), send_abbreviate_output(1)),
    PAIR(TAM_send_format(k, "ty", "va"), send_format("ty", "va")),
    PAIR(TAM_send_status_wanted(k), send_status_wanted()),
    PAIR(TAM_send_stop(k), send_stop()),
    PAIR(TAM_send_quit(k), send_quit()),
};

// A wrapper forwards every argument, gives 0 for a null handle and for an
// exception, and the connection works on after it.
TEST(Kernel, FlatRequests)
{
    for (const Pair& p : kPairs) {
        SCOPED_TRACE(&p - kPairs);
        TestKernel a(3), b(3);
        EXPECT_EQ(p.flat(nullptr), 0);
        EXPECT_EQ(p.direct(&b), 1);
        a.stream.throws = true;
        a.stream.failAt = 1;
        EXPECT_EQ(p.flat(&a), 0);
        a.stream.failAt = 0;
        EXPECT_EQ(p.flat(&a), 1);
        EXPECT_EQ(a.text(), b.text());
    }
    TestKernel k(2);
    k.throwOnRename = true;
    EXPECT_EQ(TAM_set_kernel_name(&k, "other"), 0);
    EXPECT_STREQ(TAM_get_kernel_name(&k), "kernel");
    k.throwOnRename = false;
    EXPECT_EQ(TAM_set_kernel_name(&k, "other"), 1);
    EXPECT_STREQ(TAM_get_kernel_name(&k), "other");
}

TEST(Kernel, QueriesNullHandlesAndDeletion)
{
    TestKernel k(5);
    EXPECT_EQ(TAM_get_client_id(&k), 5);
    EXPECT_EQ(TAM_get_client_fd(&k), 0); // the base's values for a connection without either
    EXPECT_EQ(TAM_get_listen_path(&k), nullptr);
    EXPECT_EQ(TAM_set_kernel_name(nullptr, "x"), 0);
    EXPECT_EQ(TAM_get_client_id(nullptr), -1);
    EXPECT_EQ(TAM_get_kernel_name(nullptr), nullptr);
    EXPECT_EQ(TAM_get_client_fd(nullptr), 0);
    EXPECT_EQ(TAM_get_listen_path(nullptr), nullptr);
    TAM_delete_kernel(nullptr);
    TAM_free(nullptr);
    TAM_free(strdup("library memory")); // a wrong release shows in the sanitizer build

    // Deletion empties the table before the object goes.
    static bool sawEmptyTable = false;
    struct Watched : TestKernel {
        ~Watched() override { sawEmptyTable = !on_output && !client_data_; }
    };
    auto* w = new Watched;
    TAM_set_on_output_handler(w,
                              [](TAM_KernelImpl*, void*, const char*, const char*, const char*) {});
    TAM_set_client_data(w, w);
    TAM_delete_kernel(w);
    EXPECT_TRUE(sawEmptyTable);
}

} // namespace

// The bounds: documented defaults, what a setter accepts, restoring a
// default, and unknown names.
TEST(Kernel, LimitsSetGetAndRestore)
{
    const struct {
        int which;
        int64_t fallback, least;
    } limits[] = {
        {TAM_LIMIT_MESSAGE_BYTES, 256 << 20, 1},
        {TAM_LIMIT_PAYLOAD_BYTES, 256 << 20, 1},
        {TAM_LIMIT_DEPTH, 256, 1},
        {TAM_LIMIT_LIST_ENTRIES, 100000, 1},
        {TAM_LIMIT_FORMAT_NAMES, 1024, 1},
        {TAM_LIMIT_READY_WAIT_MS, 30000, 0},
        {TAM_LIMIT_SEND_TIMEOUT_MS, 30000, 0},
        {TAM_LIMIT_DELETE_GRACE_MS, 5000, 0},
    };
    for (const auto& l : limits) {
        SCOPED_TRACE(l.which);
        EXPECT_EQ(TAM_get_limit(l.which), l.fallback);
        EXPECT_EQ(TAM_set_limit(l.which, l.least), 1);
        EXPECT_EQ(TAM_get_limit(l.which), l.least);
        // A size of 0 would refuse every message: refused itself.
        if (l.least > 0) {
            EXPECT_EQ(TAM_set_limit(l.which, 0), 0);
            EXPECT_EQ(TAM_get_limit(l.which), l.least);
        }
        EXPECT_EQ(TAM_set_limit(l.which, INT64_MAX), 1);
        // Time-outs are kept clear of overflowing a clock reading.
        EXPECT_EQ(TAM_get_limit(l.which), l.least == 0 ? int64_t(1) << 40 : INT64_MAX);
        EXPECT_EQ(TAM_set_limit(l.which, -5), 1);
        EXPECT_EQ(TAM_get_limit(l.which), l.fallback);
    }
    for (int unknown : {0, -1, TAM_LIMIT_DELETE_GRACE_MS + 1}) {
        EXPECT_EQ(TAM_set_limit(unknown, 5), 0);
        EXPECT_EQ(TAM_get_limit(unknown), -1);
    }
}
