// The console's own commands, which start with ":" (no kernel command
// does): :help, :status, :format, :width, :restart, :quit.
#ifndef TAMIX_CONSOLE_META_H
#define TAMIX_CONSOLE_META_H

#include <string>

#include "Output.h"

namespace tamix {

class KernelLink;

// What a meta command acts on: the session's kernel and its front end.
class MetaHost {
public:
    virtual ~MetaHost() = default;
    virtual KernelLink& link() = 0;
    // A message of the console's for the user.
    virtual void say(const std::string& text, Style style) = 0;
    virtual void restartKernel() = 0;
    virtual void quit() = 0;
};

// True for a line whose first character other than a blank is ":".
bool isMeta(const std::string& line);
// Runs a meta command line. False (with a message through say) when it is
// unknown or its argument is wrong.
bool runMeta(const std::string& line, MetaHost& host);
// The list for :help.
std::string metaHelp();

} // namespace tamix

#endif
