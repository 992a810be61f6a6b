#include "tamkern/KernelClient.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <zlib.h>

namespace kt {

namespace {

using Clock = std::chrono::steady_clock;

int msLeft(Clock::time_point end)
{
    auto d = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return d < 0 ? 0 : static_cast<int>(d);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

const char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

std::string Msg::attr(const char* n) const
{
    auto it = attrs.find(n);
    return it == attrs.end() ? std::string() : it->second;
}

long long Msg::num(const char* n) const
{
    return std::atoll(attr(n).c_str());
}

std::string describe(const std::vector<Msg>& msgs)
{
    std::string s;
    for (const Msg& m : msgs) {
        s += "<" + m.name;
        for (auto& kv : m.attrs)
            s += " " + kv.first + "=\"" + kv.second + "\"";
        s += ">";
        if (m.hasText)
            s += "[text " + m.textFormat + ": " + m.text + "]";
        if (m.hasMcode)
            s += "[mcode " + m.mcodeFormat + "]";
        s += "\n";
    }
    return s;
}

TempDir::TempDir()
{
    char tmpl[] = "/tmp/tamkern-test-XXXXXX";
    char* p = ::mkdtemp(tmpl);
    path_ = p ? p : "";
}

TempDir::~TempDir()
{
    if (path_.empty())
        return;
    std::string cmd = "rm -rf '" + path_ + "'";
    int rc = std::system(cmd.c_str());
    (void)rc;
}

std::unique_ptr<Kernel> Kernel::launch(const TempDir& dir)
{
    return start(dir, false);
}

std::unique_ptr<Kernel> Kernel::standalone(const TempDir& dir)
{
    return start(dir, true);
}

std::unique_ptr<Kernel> Kernel::start(const TempDir& dir, bool standalone)
{
    std::unique_ptr<Kernel> k(new Kernel);
    k->path_ = dir.file("k.sock");
    k->logPath_ = dir.file("kernel.err");
    k->outPath_ = dir.file("kernel.out");

    sigset_t usr1, old;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigprocmask(SIG_BLOCK, &usr1, &old);
    pid_t pid = ::fork();
    if (pid == 0) {
        sigprocmask(SIG_SETMASK, &old, nullptr);
        int err = ::open(k->logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int out = ::open(k->outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(err, 2);
        ::dup2(out, 1);
        ::execl(TAMKERN_PATH, "tamkern", standalone ? "--listen" : "-X", k->path_.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    k->pid_ = pid;
    bool ok = false;
    auto end = Clock::now() + std::chrono::seconds(20);
    while (Clock::now() < end) {
        if (!standalone) {
            timespec ts{0, 50 * 1000 * 1000};
            if (sigtimedwait(&usr1, nullptr, &ts) == SIGUSR1) {
                ok = true;
                break;
            }
        } else {
            Conn probe(k->path_);
            if (probe.connected()) {
                ok = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
        int status;
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            k->reaped_ = true;
            break;
        }
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
    if (!ok)
        return nullptr;
    return k;
}

Kernel::~Kernel()
{
    if (!reaped_ && pid_ > 0) {
        if (waitExit(0) == -1) {
            ::kill(pid_, SIGKILL);
            int status;
            ::waitpid(pid_, &status, 0);
        }
    }
}

int Kernel::waitExit(int timeoutMs)
{
    if (reaped_)
        return -1;
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int status;
        pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            reaped_ = true;
            if (WIFEXITED(status))
                return WEXITSTATUS(status);
            return 128 + WTERMSIG(status);
        }
        if (Clock::now() >= end)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool Kernel::running()
{
    if (reaped_)
        return false;
    int status;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped_ = true;
        return false;
    }
    return true;
}

std::string Kernel::log() const
{
    return readFile(logPath_);
}

std::string Kernel::stdoutText() const
{
    return readFile(outPath_);
}

Conn::Conn(const std::string& socketPath)
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
        fd_ = fd;
    } else if (fd >= 0) {
        ::close(fd);
    }
    parser_ = XML_ParserCreate("UTF-8");
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(parser_, &Conn::onStart, &Conn::onEnd);
    XML_SetCharacterDataHandler(parser_, &Conn::onChars);
    // The kernel sends no root; the reader supplies one, as clients do.
    XML_Parse(parser_, "<root>", 6, 0);
}

Conn::~Conn()
{
    close();
    XML_ParserFree(parser_);
}

void Conn::close()
{
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

void Conn::send(const std::string& raw)
{
    std::size_t done = 0;
    while (fd_ >= 0 && done < raw.size()) {
        ssize_t n = ::send(fd_, raw.data() + done, raw.size() - done, MSG_NOSIGNAL);
        if (n <= 0)
            return;
        done += static_cast<std::size_t>(n);
    }
}

void XMLCALL Conn::onStart(void* self, const char* name, const char** atts)
{
    Conn* c = static_cast<Conn*>(self);
    ++c->depth_;
    if (c->depth_ == 2) {
        c->cur_ = Msg();
        c->cur_.name = name;
        for (const char** a = atts; a[0]; a += 2)
            c->cur_.attrs[a[0]] = a[1];
    } else if (c->depth_ == 3) {
        c->part_ = name;
        std::string format;
        for (const char** a = atts; a[0]; a += 2) {
            if (std::strcmp(a[0], "format") == 0)
                format = a[1];
            if (c->part_ == "fmt" && std::strcmp(a[0], "name") == 0)
                c->cur_.fmts.push_back(a[1]);
        }
        if (c->part_ == "text") {
            c->cur_.hasText = true;
            c->cur_.textFormat = format;
        } else if (c->part_ == "mcode") {
            c->cur_.hasMcode = true;
            c->cur_.mcodeFormat = format;
        }
    } else {
        c->part_.clear();
    }
}

void XMLCALL Conn::onEnd(void* self, const char*)
{
    Conn* c = static_cast<Conn*>(self);
    if (c->depth_ == 2)
        c->ready_.push_back(c->cur_);
    c->part_.clear();
    --c->depth_;
}

void XMLCALL Conn::onChars(void* self, const char* data, int len)
{
    Conn* c = static_cast<Conn*>(self);
    if (c->depth_ != 3)
        return;
    if (c->part_ == "text")
        c->cur_.text.append(data, static_cast<std::size_t>(len));
    else if (c->part_ == "mcode")
        c->cur_.mcodeData.append(data, static_cast<std::size_t>(len));
}

bool Conn::fill(int timeoutMs)
{
    if (fd_ < 0 || eof_ || bad_)
        return false;
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) <= 0)
        return false;
    char buf[8192];
    ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
    if (n <= 0) {
        eof_ = true;
        return false;
    }
    if (XML_Parse(parser_, buf, static_cast<int>(n), 0) == XML_STATUS_ERROR) {
        bad_ = true;  // the kernel broke the stream: every later read fails
        return false;
    }
    return true;
}

std::optional<Msg> Conn::next(int timeoutMs)
{
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (ready_.empty()) {
        if (!fill(msLeft(end)) && (eof_ || bad_ || Clock::now() >= end))
            return std::nullopt;
    }
    Msg m = ready_.front();
    ready_.pop_front();
    return m;
}

std::vector<Msg> Conn::until(const std::string& name, int timeoutMs)
{
    std::vector<Msg> out;
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        std::optional<Msg> m = next(msLeft(end));
        if (!m)
            return out;
        out.push_back(*m);
        if (m->name == name)
            return out;
    }
}

bool Conn::waitClosed(int timeoutMs)
{
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!eof_) {
        if (!fill(msLeft(end)) && !eof_ && Clock::now() >= end)
            return false;
        if (bad_)
            return false;
    }
    return true;
}

long Conn::newClient(const std::string& features)
{
    send("<newclient name =\"\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" features=\"" +
         features + "\"/>");
    std::vector<Msg> m = until("sendinit");
    if (m.empty() || m.back().name != "sendinit")
        return -1;
    return static_cast<long>(m.back().num("cl"));
}

std::vector<Msg> Conn::init(long cl, const std::vector<std::string>& args)
{
    std::string r = "<init cl=\"" + std::to_string(cl) + "\">";
    for (const std::string& a : args)
        r += "<iarg value=\"" + a + "\"/>";
    r += "</init>";
    send(r);
    return until("ready");
}

std::vector<Msg> Conn::cmd(long cl, const std::string& escapedText, long long cid)
{
    send("<cmd cl=\"" + std::to_string(cl) + "\" cid=\"" + std::to_string(cid) +
         "\"><text format=\"_lan\">" + escapedText + "</text></cmd>");
    return until("finished");
}

std::vector<std::string> outputs(const std::vector<Msg>& msgs, const std::string& type)
{
    std::vector<std::string> out;
    for (const Msg& m : msgs)
        if (m.name == "output" && m.attr("type") == type)
            out.push_back(m.hasMcode ? inflateBase64(m.mcodeData) : m.text);
    return out;
}

std::string inflateBase64(const std::string& base64)
{
    std::string bytes;
    unsigned val = 0;
    int bits = 0;
    for (char ch : base64) {
        const char* p = std::strchr(kB64, ch);
        if (!p || !ch)
            continue;
        val = (val << 6) | static_cast<unsigned>(p - kB64);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes += static_cast<char>((val >> bits) & 0xFF);
        }
    }
    std::string out(1 << 20, '\0');
    uLongf len = out.size();
    if (uncompress(reinterpret_cast<Bytef*>(&out[0]), &len, reinterpret_cast<const Bytef*>(bytes.data()),
                   bytes.size()) != Z_OK)
        return "<undecodable>";
    out.resize(len);
    return out;
}

std::string deflateBase64(const std::string& text)
{
    uLongf len = compressBound(text.size());
    std::string z(len, '\0');
    compress(reinterpret_cast<Bytef*>(&z[0]), &len, reinterpret_cast<const Bytef*>(text.data()), text.size());
    z.resize(len);
    std::string out;
    std::size_t i = 0;
    for (; i + 2 < z.size(); i += 3) {
        unsigned v = (static_cast<unsigned char>(z[i]) << 16) | (static_cast<unsigned char>(z[i + 1]) << 8) |
                     static_cast<unsigned char>(z[i + 2]);
        out += kB64[v >> 18];
        out += kB64[(v >> 12) & 63];
        out += kB64[(v >> 6) & 63];
        out += kB64[v & 63];
    }
    if (i < z.size()) {
        unsigned v = static_cast<unsigned char>(z[i]) << 16;
        if (i + 1 < z.size())
            v |= static_cast<unsigned char>(z[i + 1]) << 8;
        out += kB64[v >> 18];
        out += kB64[(v >> 12) & 63];
        out += i + 1 < z.size() ? kB64[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

} // namespace kt
