#include "Meta.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "Input.h"
#include "Kernel.h"

namespace tamix {

namespace {

struct Meta {
    const char* name;
    const char* args;
    const char* what;
    bool needsKernel;
    bool (*accepts)(const std::string& arg);
    // False when the request could not be sent.
    bool (*run)(MetaHost& host, const std::string& arg);
};

bool noArgument(const std::string& arg)
{
    return arg.empty();
}

bool formatName(const std::string& arg)
{
    return arg == "text" || arg == "tex" || arg == "mathml";
}

bool count(const std::string& arg)
{
    char* end = nullptr;
    long n = std::strtol(arg.c_str(), &end, 10);
    return !arg.empty() && *end == '\0' && n >= 0;
}

const std::vector<Meta>& metas()
{
    static const std::vector<Meta> m = {
        {"help", "", "this list", false, noArgument,
         [](MetaHost& h, const std::string&) {
             h.say(metaHelp(), Style::Plain);
             return true;
         }},
        {"status", "", "the kernel's memory and CPU time", true, noArgument,
         [](MetaHost& h, const std::string&) { return h.link().requestStatus(); }},
        {"format", "text|tex|mathml", "the format of results", true, formatName,
         [](MetaHost& h, const std::string& a) { return h.link().setFormat(a); }},
        {"width", "N", "wrap results at N characters (0: do not wrap)", true, count,
         [](MetaHost& h, const std::string& a) {
             return h.link().setWidth(std::strtol(a.c_str(), nullptr, 10));
         }},
        {"restart", "", "a new kernel (the old one's variables are lost)", false, noArgument,
         [](MetaHost& h, const std::string&) {
             h.restartKernel();
             return true;
         }},
        {"quit", "", "end the session (as quit and Ctrl-D do)", false, noArgument,
         [](MetaHost& h, const std::string&) {
             h.quit();
             return true;
         }},
    };
    return m;
}

} // namespace

bool isMeta(const std::string& line)
{
    const std::string t = trim(line);
    return !t.empty() && t[0] == ':';
}

bool runMeta(const std::string& line, MetaHost& host)
{
    const std::string t = trim(line).substr(1);
    const size_t blank = t.find_first_of(" \t");
    const std::string name = t.substr(0, blank);
    const std::string arg = blank == std::string::npos ? "" : trim(t.substr(blank));
    for (const Meta& m : metas()) {
        if (name != m.name)
            continue;
        if (!m.accepts(arg)) {
            host.say(std::string("usage: :") + m.name + (*m.args ? " " : "") + m.args,
                     Style::Error);
            return false;
        }
        if (m.needsKernel && !host.link().alive()) {
            host.say("no kernel; :restart starts a new one", Style::Error);
            return false;
        }
        if (m.run(host, arg))
            return true;
        host.say("the kernel did not take the request", Style::Error);
        return false;
    }
    host.say("unknown command :" + name + "; :help lists the console's commands", Style::Error);
    return false;
}

std::string metaHelp()
{
    std::string out = "Console commands:";
    for (const Meta& m : metas()) {
        std::string use = std::string(":") + m.name + (*m.args ? " " : "") + m.args;
        use.resize(std::max<size_t>(use.size(), 24), ' ');
        out += "\n  " + use + m.what;
    }
    out += "\nKeys: Enter runs a command (an open bracket or a final \\ goes on on the next "
           "line),\n"
           "  Tab completes names, Up/Down and Ctrl-R search the history, Ctrl-C interrupts\n"
           "  the running command (or clears the line), Ctrl-D on an empty line ends.";
    return out;
}

} // namespace tamix
