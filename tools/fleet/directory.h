// The machines and readers of a fleet, from the documents that the services keep at the broker.
#pragma once

#include "commands/reader_list.h"
#include "fleet/connection.h"
#include "fleet/topics.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

class Directory {
public:
    struct Reader {
        ListedReader facts;
        bool isConnected = false;
        std::string since; // as the service wrote it
    };
    struct Machine {
        bool isOnline = false;
        std::map<std::string, Reader> readers; // by name
    };

    // Take over the status of a machine, or the document of a reader. Returns false if it is neither or cannot be
    // understood. An empty document removes a reader.
    bool add(const std::string& prefix, std::string_view topic, std::string_view payload);

    const std::map<std::string, Machine>& machines() const { return m_machines; }
    std::map<std::string, Machine>& machines() { return m_machines; }
    // Nullptr if there is none.
    const Reader* find(const std::string& machine, const std::string& reader) const;

private:
    std::map<std::string, Machine> m_machines;
};

// The filters of a machine's status, readers' documents and events. An empty name stands for all machines.
std::string statusFilter(const std::string& prefix, const std::string& machine);
std::string readersFilter(const std::string& prefix, const std::string& machine);
std::string eventsFilter(const std::string& prefix, const std::string& machine);

// Subscribe to these documents and wait until all that exist have come. What else arrives until then is appended to
// `others`. Throws Failure if the broker forbids it.
Directory readDirectory(Connection& connection, const std::string& prefix, const std::string& machine,
                        std::vector<Connection::Received>* others = nullptr);
