// The clients that share the kernel.
#ifndef TAMKERN_SESSION_H
#define TAMKERN_SESSION_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tamkern/Engine.h"

namespace tamkern {

// One client: what it announced, and how it wants its results.
struct Client {
    long id = -1;
    int conn = -1; // the connection it was announced on, for good
    std::string name;
    std::set<std::string> features;
    ResultStyle style;

    // It announced this feature.
    bool has(const char* feature) const { return features.count(feature) != 0; }
};

// All clients of the kernel: their ids, and the connection each one speaks
// through.
class Session {
public:
    // Records a client announced on connection conn with the given
    // blank-separated features. Ids count up from 1 in the order of the
    // announcements and are never given twice. Only feature words of the
    // protocol are kept, and the name's first MaxName bytes: a client record
    // costs the same whatever the announcement held.
    Client& add(int conn, const std::string& name, const std::string& features);
    // The client with this id, or null.
    Client* find(long id);
    // Forgets a client; false if there was none with this id.
    bool remove(long id);
    // The clients of a connection, in the order they were announced.
    const std::vector<long>& of(int conn) const;
    // Every client, in the order of their ids.
    std::vector<const Client*> all() const;

    // No client is there now.
    bool empty() const { return clients_.empty(); }
    // Some client was announced at some time.
    bool everHadClient() const { return nextId_ > 1; }
    // Some client, present or gone, asked the kernel to outlive its clients.
    bool stayAlive() const { return stayAlive_; }

    static constexpr std::size_t MaxName = 256;
    // What one client record costs the connection it was announced on, at
    // most (the record, its name, its features, its place in the maps).
    static constexpr std::size_t ClientBytes = 2048;

private:
    std::map<long, Client> clients_;
    std::map<int, std::vector<long>> byConn_;
    long nextId_ = 1;
    bool stayAlive_ = false;
};

} // namespace tamkern

#endif
