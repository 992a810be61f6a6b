#include "Options.h"

#include <limits.h>
#include <unistd.h>

#include <cstring>
#include <functional>

namespace tamix {

namespace {

struct Flag {
    const char* longName;
    const char* shortName; // may be null
    bool takesValue;
    std::function<void(Options&, const char*)> apply;
};

const std::vector<Flag>& flags()
{
    static const std::vector<Flag> f = {
        {"--eval", "-e", true, [](Options& o, const char* v) { o.expressions.push_back(v); }},
        {"--connect", nullptr, true, [](Options& o, const char* v) { o.connectPath = v; }},
        {"--kernel", nullptr, true, [](Options& o, const char* v) { o.kernelPath = v; }},
        {"--libdir", nullptr, true, [](Options& o, const char* v) { o.libDir = v; }},
        {"--open-plots", nullptr, false, [](Options& o, const char*) { o.openPlots = true; }},
        {"--no-color", nullptr, false, [](Options& o, const char*) { o.color = false; }},
        {"--help", "-h", false, [](Options& o, const char*) { o.help = true; }},
        {"--version", nullptr, false, [](Options& o, const char*) { o.version = true; }},
    };
    return f;
}

const Flag* findFlag(const std::string& name)
{
    for (const Flag& f : flags())
        if (name == f.longName || (f.shortName && name == f.shortName))
            return &f;
    return nullptr;
}

std::string dirOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

std::string ownDirectory()
{
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return "";
    return dirOf(std::string(buf, static_cast<size_t>(n)));
}

} // namespace

bool parseOptions(int argc, char** argv, Options& options, std::string& error)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool inlineValue = false;
        // --name=value as well as --name value.
        size_t eq = arg.find('=');
        if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
            inlineValue = true;
        }
        const Flag* f = findFlag(arg);
        if (!f) {
            error = "unknown option " + arg;
            return false;
        }
        if (f->takesValue && !inlineValue) {
            if (i + 1 >= argc) {
                error = arg + " needs a value";
                return false;
            }
            value = argv[++i];
        } else if (!f->takesValue && inlineValue) {
            error = arg + " takes no value";
            return false;
        }
        f->apply(options, value.c_str());
    }
    if (!options.connectPath.empty() && !options.kernelPath.empty()) {
        error = "--connect and --kernel exclude each other";
        return false;
    }
    return true;
}

void findKernel(Options& options)
{
    const std::string own = ownDirectory();
    std::string bin = own, lib = own + "/../lib";
    if (own.empty() || access((own + "/tamkern").c_str(), X_OK) != 0) {
        bin = TAMIX_INSTALL_BINDIR;
        lib = TAMIX_INSTALL_PREFIX "/lib";
    }
    if (options.kernelPath.empty())
        options.kernelPath = bin + "/tamkern";
    if (options.libDir.empty())
        options.libDir = lib;
}

std::string usage()
{
    return "usage: tamix [OPTION]...\n"
           "The Tamix computer-algebra console. Reads commands from the terminal with\n"
           "line editing, or one by one from standard input when that is not a terminal.\n"
           "\n"
           "  -e, --eval EXPR     evaluate EXPR and exit (may be repeated)\n"
           "  --connect PATH      join a kernel started with `tamkern --listen PATH`\n"
           "  --kernel PATH       launch this kernel executable instead of tamkern\n"
           "  --libdir DIR        the kernel's library directory (default: ../lib beside\n"
           "                      the console)\n"
           "  --open-plots        open plot files with the desktop's viewer (xdg-open)\n"
           "  --no-color          no colours, also on a colour terminal\n"
           "  -h, --help          this text\n"
           "  --version           the console's and the library's version\n"
           "\n"
           "Exit status: 0, or 1 when a command failed (pipe and -e mode), the kernel\n"
           "could not be started or died; 2 for a bad command line.\n";
}

} // namespace tamix
