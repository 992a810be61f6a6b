#include "tamkern/Session.h"

#include <algorithm>
#include <sstream>

namespace tamkern {

Client& Session::add(int conn, std::string name, const std::string& features)
{
    long id = nextId_++;
    Client& cl = clients_[id];
    cl.id = id;
    cl.conn = conn;
    cl.name = std::move(name);
    std::istringstream words(features);
    std::string w;
    while (words >> w)
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

const std::vector<long>& Session::of(int conn) const
{
    static const std::vector<long> none;
    auto it = byConn_.find(conn);
    return it == byConn_.end() ? none : it->second;
}

} // namespace tamkern
