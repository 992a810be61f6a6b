#include "tamkern/Session.h"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace tamkern {

namespace {

// The feature words a client may announce.
const char* const kFeatures[] = {
    "stay_alive",  "complete_commands", "can_debug",       "can_lazy_debug",
    "debugger_ui", "can_plot",          "can_input",       "can_textinput",
    "can_help",    "can_help_dvi",      "can_browse_help", "can_exec_system",
    "can_quit",    "can_callback",      "can_typeset",     "can_protocol"};

bool isFeature(const std::string& word)
{
    for (const char* f : kFeatures)
        if (word == f)
            return true;
    return false;
}

} // namespace

Client& Session::add(int conn, const std::string& name, const std::string& features)
{
    long id = nextId_++;
    Client& cl = clients_[id];
    cl.id = id;
    cl.conn = conn;
    cl.name = name.substr(0, MaxName); // a copy: the announcement's may be huge
    std::istringstream words(features);
    std::string w;
    while (words >> w)
        if (isFeature(w))
            cl.features.insert(w);
    if (cl.has("stay_alive"))
        stayAlive_ = true;
    byConn_[conn].push_back(id);
    return cl;
}

Client* Session::find(long id)
{
    auto it = clients_.find(id);
    return it == clients_.end() ? nullptr : &it->second;
}

bool Session::remove(long id)
{
    auto it = clients_.find(id);
    if (it == clients_.end())
        return false;
    auto bc = byConn_.find(it->second.conn);
    std::vector<long>& ids = bc->second;
    ids.erase(std::find(ids.begin(), ids.end(), id));
    if (ids.empty())
        byConn_.erase(bc);
    clients_.erase(it);
    return true;
}

std::vector<const Client*> Session::all() const
{
    std::vector<const Client*> out;
    for (const auto& kv : clients_)
        out.push_back(&kv.second);
    return out;
}

const std::vector<long>& Session::of(int conn) const
{
    static const std::vector<long> none;
    auto it = byConn_.find(conn);
    return it == byConn_.end() ? none : it->second;
}

} // namespace tamkern
