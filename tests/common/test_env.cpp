// Linked into every test program: sets the environment its cases expect
// (locale, where launched kernels keep logs and plots) before any case runs,
// whether CTest or a developer starts the program. TAMIX_TEST_ENV holds
// VAR=VALUE entries separated by newlines.
#include <cstdlib>
#include <sstream>
#include <string>

namespace {

struct TestEnvironment {
    TestEnvironment()
    {
        std::istringstream entries(TAMIX_TEST_ENV);
        for (std::string e; std::getline(entries, e);) {
            const std::size_t eq = e.find('=');
            if (eq != std::string::npos)
                ::setenv(e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), 1);
        }
    }
} const gTestEnvironment;

} // namespace
