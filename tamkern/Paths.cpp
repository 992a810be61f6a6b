#include "tamkern/Paths.h"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tamkern {

std::string baseDir(const char* var, const char* fallback)
{
    const char* v = std::getenv(var);
    if (v && v[0] == '/')
        return v;
    const char* home = std::getenv("HOME");
    if (!fallback || !home || home[0] != '/')
        return std::string();
    return std::string(home) + "/" + fallback;
}

std::string programDir()
{
    char buf[4096];
    ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return ".";
    std::string path(buf, static_cast<std::size_t>(n));
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash ? slash : 1);
}

std::string defaultLogFile()
{
    std::string state = baseDir("XDG_STATE_HOME", ".local/state");
    return state.empty() ? state : state + "/tamkern/tamkern.log";
}

std::string plotDirFor(long pid)
{
    std::string base = baseDir("XDG_RUNTIME_DIR", nullptr);
    if (base.empty())
        base = baseDir("XDG_CACHE_HOME", ".cache");
    if (base.empty())
        return base;
    return base + "/tamkern/plots-" + std::to_string(pid);
}

bool makeDirs(const std::string& dir)
{
    if (dir.empty()) {
        errno = ENOENT;
        return false;
    }
    for (std::size_t at = 1;; ++at) {
        at = dir.find('/', at);
        std::string part = dir.substr(0, at);
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST)
            return false;
        if (at == std::string::npos)
            break;
    }
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0)
        return false;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

void removeDir(const std::string& dir)
{
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            std::string name = e->d_name;
            if (name != "." && name != "..")
                ::unlink((dir + "/" + name).c_str());
        }
        ::closedir(d);
    }
    ::rmdir(dir.c_str());
}

} // namespace tamkern
