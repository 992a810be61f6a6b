// The handler table: initial state, setters, reset, client data, and the
// answers the six defaults send (read back from the request bytes).
#include <gtest/gtest.h>

#include <clocale>

#include "xmsg/WriterTestKernel.h"

using writertest::FailingStream;
using writertest::TestKernel;

namespace {

class HandlerTable : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_ALL, ""), nullptr); }
};

// The slots as untyped pointers, in table order, for whole-table checks.
std::vector<const void*> slots(const TAM_KernelImpl& k)
{
    return {
        reinterpret_cast<const void*>(k.on_init_wanted),
        reinterpret_cast<const void*>(k.on_kernel_ready),
        reinterpret_cast<const void*>(k.on_output),
        reinterpret_cast<const void*>(k.on_output_data),
        reinterpret_cast<const void*>(k.on_finished),
        reinterpret_cast<const void*>(k.on_complete_cmd),
        reinterpret_cast<const void*>(k.on_input_wanted),
        reinterpret_cast<const void*>(k.on_callback),
        reinterpret_cast<const void*>(k.on_help),
        reinterpret_cast<const void*>(k.on_system),
        reinterpret_cast<const void*>(k.on_frame_changed),
        reinterpret_cast<const void*>(k.on_textwidth_changed),
        reinterpret_cast<const void*>(k.on_pretty_print_changed),
        reinterpret_cast<const void*>(k.on_abbreviate_output_changed),
        reinterpret_cast<const void*>(k.on_format_changed),
        reinterpret_cast<const void*>(k.on_select_format),
        reinterpret_cast<const void*>(k.on_status),
        reinterpret_cast<const void*>(k.on_input_completion),
        reinterpret_cast<const void*>(k.on_plot_result_file),
        reinterpret_cast<const void*>(k.on_dbg_cmd_wanted),
        reinterpret_cast<const void*>(k.on_dbg_info),
        reinterpret_cast<const void*>(k.on_display_list),
        reinterpret_cast<const void*>(k.on_breakpoint_list),
        reinterpret_cast<const void*>(k.on_call_stack),
        reinterpret_cast<const void*>(k.on_reset),
        reinterpret_cast<const void*>(k.on_quit),
    };
}

std::vector<const void*> initialSlots()
{
    std::vector<const void*> s(26, nullptr);
    s[0] = reinterpret_cast<const void*>(TAM_default_on_init_wanted);
    s[6] = reinterpret_cast<const void*>(TAM_default_on_input_wanted);
    s[7] = reinterpret_cast<const void*>(TAM_default_on_callback);
    s[9] = reinterpret_cast<const void*>(TAM_default_on_system);
    s[15] = reinterpret_cast<const void*>(TAM_default_on_select_format);
    s[19] = reinterpret_cast<const void*>(TAM_default_on_dbg_cmd_wanted);
    return s;
}

// Handlers to install: distinct functions of every slot type.
void h0(TAM_KernelImpl*) {}
void h2(TAM_KernelImpl*, void*, const char*, const char*, const char*) {}
void h3(TAM_KernelImpl*, void*, const char*, const TAM_DataTAG*) {}
void hCookie(TAM_KernelImpl*, void*) {}
void hCookie2(TAM_KernelImpl*, void*) {}
void h6(TAM_KernelImpl*, void*, int, const char*) {}
void h7(TAM_KernelImpl*, void*, const TAM_DataTAG*) {}
void hText(TAM_KernelImpl*, const char*) {}
void hText2(TAM_KernelImpl*, const char*) {}
void hText3(TAM_KernelImpl*, const char*) {}
void hLong(TAM_KernelImpl*, long) {}
void hInt(TAM_KernelImpl*, int) {}
void hInt2(TAM_KernelImpl*, int) {}
void h14(TAM_KernelImpl*, const char*, const char*) {}
void h15(TAM_KernelImpl*, const char*, long, const char**) {}
void h16(TAM_KernelImpl*, long, long, long) {}
void h17(TAM_KernelImpl*, const char*, const char*) {}
void h18(TAM_KernelImpl*, void*, const char*) {}
void h20(TAM_KernelImpl*, char, const char*, long, const char*, long, long) {}
void h21(TAM_KernelImpl*, long, const char**, const char**) {}
void h22(TAM_KernelImpl*, long, const char**, const long*, const char**) {}
void h23(TAM_KernelImpl*, long, long, const char**, const long*, const char**) {}
void hReset(TAM_KernelImpl*) {}
void hQuit(TAM_KernelImpl*) {}
void hReady(TAM_KernelImpl*) {}

void setAll(TAM_KernelImpl* k)
{
    TAM_set_on_init_wanted_handler(k, h0);
    TAM_set_on_kernel_ready_handler(k, hReady);
    TAM_set_on_output_handler(k, h2);
    TAM_set_on_output_data_handler(k, h3);
    TAM_set_on_finished_handler(k, hCookie);
    TAM_set_on_complete_cmd_handler(k, hCookie2);
    TAM_set_on_input_wanted_handler(k, h6);
    TAM_set_on_callback_handler(k, h7);
    TAM_set_on_help_handler(k, hText);
    TAM_set_on_system_handler(k, hText2);
    TAM_set_on_frame_changed_handler(k, hText3);
    TAM_set_on_textwidth_changed_handler(k, hLong);
    TAM_set_on_pretty_print_changed_handler(k, hInt);
    TAM_set_on_abbreviate_output_changed_handler(k, hInt2);
    TAM_set_on_format_changed_handler(k, h14);
    TAM_set_on_select_format_handler(k, h15);
    TAM_set_on_status_handler(k, h16);
    TAM_set_on_input_completion_handler(k, h17);
    TAM_set_on_plot_result_file_handler(k, h18);
    TAM_set_on_dbg_cmd_wanted_handler(k, hCookie);
    TAM_set_on_dbg_info_handler(k, h20);
    TAM_set_on_display_list_handler(k, h21);
    TAM_set_on_breakpoint_list_handler(k, h22);
    TAM_set_on_call_stack_handler(k, h23);
    TAM_set_on_reset_handler(k, hReset);
    TAM_set_on_quit_handler(k, hQuit);
}

void clearAll(TAM_KernelImpl* k)
{
    TAM_set_on_init_wanted_handler(k, nullptr);
    TAM_set_on_kernel_ready_handler(k, nullptr);
    TAM_set_on_output_handler(k, nullptr);
    TAM_set_on_output_data_handler(k, nullptr);
    TAM_set_on_finished_handler(k, nullptr);
    TAM_set_on_complete_cmd_handler(k, nullptr);
    TAM_set_on_input_wanted_handler(k, nullptr);
    TAM_set_on_callback_handler(k, nullptr);
    TAM_set_on_help_handler(k, nullptr);
    TAM_set_on_system_handler(k, nullptr);
    TAM_set_on_frame_changed_handler(k, nullptr);
    TAM_set_on_textwidth_changed_handler(k, nullptr);
    TAM_set_on_pretty_print_changed_handler(k, nullptr);
    TAM_set_on_abbreviate_output_changed_handler(k, nullptr);
    TAM_set_on_format_changed_handler(k, nullptr);
    TAM_set_on_select_format_handler(k, nullptr);
    TAM_set_on_status_handler(k, nullptr);
    TAM_set_on_input_completion_handler(k, nullptr);
    TAM_set_on_plot_result_file_handler(k, nullptr);
    TAM_set_on_dbg_cmd_wanted_handler(k, nullptr);
    TAM_set_on_dbg_info_handler(k, nullptr);
    TAM_set_on_display_list_handler(k, nullptr);
    TAM_set_on_breakpoint_list_handler(k, nullptr);
    TAM_set_on_call_stack_handler(k, nullptr);
    TAM_set_on_reset_handler(k, nullptr);
    TAM_set_on_quit_handler(k, nullptr);
}

TEST_F(HandlerTable, FreshObjectHasTheSixDefaults)
{
    TestKernel k;
    EXPECT_EQ(slots(k), initialSlots());
    EXPECT_EQ(k.client_data_, nullptr);
}

TEST_F(HandlerTable, SettersStoreEachSlotAndNullRestoresDefaultsOrDisables)
{
    TestKernel k;
    setAll(&k);
    const std::vector<const void*> want = {
        reinterpret_cast<const void*>(h0),      reinterpret_cast<const void*>(hReady),
        reinterpret_cast<const void*>(h2),      reinterpret_cast<const void*>(h3),
        reinterpret_cast<const void*>(hCookie), reinterpret_cast<const void*>(hCookie2),
        reinterpret_cast<const void*>(h6),      reinterpret_cast<const void*>(h7),
        reinterpret_cast<const void*>(hText),   reinterpret_cast<const void*>(hText2),
        reinterpret_cast<const void*>(hText3),  reinterpret_cast<const void*>(hLong),
        reinterpret_cast<const void*>(hInt),    reinterpret_cast<const void*>(hInt2),
        reinterpret_cast<const void*>(h14),     reinterpret_cast<const void*>(h15),
        reinterpret_cast<const void*>(h16),     reinterpret_cast<const void*>(h17),
        reinterpret_cast<const void*>(h18),     reinterpret_cast<const void*>(hCookie),
        reinterpret_cast<const void*>(h20),     reinterpret_cast<const void*>(h21),
        reinterpret_cast<const void*>(h22),     reinterpret_cast<const void*>(h23),
        reinterpret_cast<const void*>(hReset),  reinterpret_cast<const void*>(hQuit),
    };
    EXPECT_EQ(slots(k), want);

    clearAll(&k);
    EXPECT_EQ(slots(k), initialSlots());

    // Null handles are ignored.
    setAll(nullptr);
    clearAll(nullptr);
}

TEST_F(HandlerTable, ResetRestoresTableAndForgetsClientData)
{
    TestKernel k;
    setAll(&k);
    int mine = 0;
    EXPECT_EQ(TAM_set_client_data(&k, &mine), 1);
    EXPECT_EQ(TAM_get_client_data(&k), &mine);
    k.reset_message_handler();
    EXPECT_EQ(slots(k), initialSlots());
    EXPECT_EQ(TAM_get_client_data(&k), nullptr);

    EXPECT_EQ(TAM_set_client_data(nullptr, &mine), 0);
    EXPECT_EQ(TAM_get_client_data(nullptr), nullptr);
}

TEST_F(HandlerTable, DefaultsAnswerTheKernel)
{
    // A null kernel is no connection to answer on (a crash fails the case).
    TAM_default_on_init_wanted(nullptr);
    TAM_default_on_input_wanted(nullptr, nullptr, 0, nullptr);
    TAM_default_on_callback(nullptr, nullptr, nullptr);
    TAM_default_on_system(nullptr, nullptr);
    TAM_default_on_select_format(nullptr, "t", 0, nullptr);

    TestKernel k(1);
    k.on_init_wanted(&k);
    EXPECT_EQ(k.text(), "<init cl=\"1\"></init>");

    k.on_input_wanted(&k, nullptr, 0, "prompt");
    EXPECT_EQ(k.text(), "<input cl=\"1\" canceled=\"1\"><text format=\"_lan\"></text></input>");
    for (int text : {1, -1, 42}) {
        k.on_input_wanted(&k, nullptr, text, "");
        EXPECT_EQ(k.text(), "<textinput cl=\"1\" canceled=\"1\"></textinput>") << text;
    }

    const unsigned char abc[] = {'a', 'b', 'c'};
    TAM_DataTAG rec = {"f", abc, 3};
    k.on_callback(&k, nullptr, &rec);
    EXPECT_EQ(k.text(), "<callresult cl=\"1\" error=\"1\"></callresult>");

    k.on_system(&k, "rm -rf /");
    EXPECT_EQ(k.text(), "<sysresult cl=\"1\" value=\"1\"/>");

    const char* formats[] = {"text/plain", "text/html"};
    k.on_select_format(&k, "Out", 2, formats);
    EXPECT_EQ(k.text(), "<format cl=\"1\" type=\"Out\" value=\"text/plain\"/>");

    k.on_dbg_cmd_wanted(&k, nullptr);
    EXPECT_EQ(k.text(), "<dbgcmd cl=\"1\" cmd=\"q\" fname=\"\" fpos=\"0\" expr=\"\"/>");
    EXPECT_EQ(k.stream.flushes, 9);
}

// With nothing offered the default still answers, so the kernel is not left
// waiting, and it never looks into the list.
TEST_F(HandlerTable, SelectFormatWithNothingOffered)
{
    TestKernel k(1);
    const char* poison[] = {nullptr};
    k.on_select_format(&k, "Out", 0, poison);
    EXPECT_EQ(k.text(), "<format cl=\"1\" type=\"Out\" value=\"\"/>");
    k.on_select_format(&k, "Out", 0, nullptr);
    EXPECT_EQ(k.text(), "<format cl=\"1\" type=\"Out\" value=\"\"/>");
    k.on_select_format(&k, "Out", 3, nullptr);
    EXPECT_EQ(k.text(), "<format cl=\"1\" type=\"Out\" value=\"\"/>");
}

// The first five swallow a request's exception; the debugger default lets
// it through to its caller.
TEST_F(HandlerTable, OnlyTheDebuggerDefaultLetsExceptionsOut)
{
    TestKernel k(1);
    k.stream.mode = FailingStream::ThrowBadAlloc;
    k.stream.failAt = 1;
    const char* formats[] = {"a"};
    EXPECT_NO_THROW(k.on_init_wanted(&k));
    EXPECT_NO_THROW(k.on_input_wanted(&k, nullptr, 0, ""));
    EXPECT_NO_THROW(k.on_input_wanted(&k, nullptr, 1, ""));
    EXPECT_NO_THROW(k.on_callback(&k, nullptr, nullptr));
    EXPECT_NO_THROW(k.on_system(&k, ""));
    EXPECT_NO_THROW(k.on_select_format(&k, "t", 1, formats));
    EXPECT_THROW(k.on_dbg_cmd_wanted(&k, nullptr), std::bad_alloc);
    EXPECT_EQ(k.stream.flushes, 0);

    k.stream.failAt = 0;
    k.on_system(&k, "");
    EXPECT_EQ(k.text(), "<sysresult cl=\"1\" value=\"1\"/>");
}

} // namespace
