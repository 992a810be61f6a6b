// Helpers shared by the conversion tests: locale set-up from the
// environment and capture of QtCore warnings.
#ifndef TAMIX_TESTS_SUPPORT_TUTTESTUTIL_H
#define TAMIX_TESTS_SUPPORT_TUTTESTUTIL_H

#include <gtest/gtest.h>

#include <QString>
#include <QtGlobal>

#include <clocale>
#include <string>
#include <vector>

namespace tuttest {

inline std::vector<std::string>& warnings()
{
    static std::vector<std::string> w;
    return w;
}

inline void captureMessage(QtMsgType type, const QMessageLogContext&, const QString& msg)
{
    if (type == QtWarningMsg)
        warnings().push_back(msg.toStdString());
}

// Every case starts in the locale the environment names, with warnings
// captured and none seen yet.
class TutTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(std::setlocale(LC_ALL, ""), nullptr);
        warnings().clear();
        previous_ = qInstallMessageHandler(captureMessage);
    }
    void TearDown() override { qInstallMessageHandler(previous_); }

    // Exactly one warning, with this text, since the last call.
    static void expectOneWarning(const char* text)
    {
        ASSERT_EQ(warnings().size(), 1u) << "expected: " << text;
        EXPECT_EQ(warnings()[0], text);
        warnings().clear();
    }

private:
    QtMessageHandler previous_ = nullptr;
};

inline std::string bytes(const char* p, long n)
{
    return std::string(p, static_cast<std::size_t>(n));
}

} // namespace tuttest

#endif
