// The requests of the recent past, so that none runs twice: neither if the broker delivers it again nor after a restart.
//
// The memory is kept in two files. A record is appended when a request begins, when it has been answered and when the broker
// has taken over the answer. Once the file has as many requests as are to be remembered, or 64 MiB, it becomes the older one
// of the two, and the one before is forgotten. The records survive the end of the process at any point. They are not
// synchronized with the disk each time, which would take longer than an exchange: after a crash of the machine, the service
// discards what the broker kept for it instead (see machineCrashed()).
#pragma once

#include "fleet/answer.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace fleet {

// What identifies a request.
struct RequestKey {
    std::string responseTopic;
    std::string correlationData;

    bool operator==(const RequestKey&) const = default;
};

class RequestMemory {
public:
    // Read what an earlier process has left in the folder. Requests that it had begun but not answered get the answer
    // "unknown". The folder is created if only it is missing. Throws std::system_error if it cannot be used, also if another
    // process uses it.
    RequestMemory(std::string folder, std::size_t requests);
    RequestMemory(const RequestMemory&) = delete;
    RequestMemory& operator=(const RequestMemory&) = delete;
    ~RequestMemory();

    // Whether the machine has crashed or lost its power, so that records may be missing. It stays so, over restarts of the
    // process too, until setSessionDiscarded() says that the broker delivers nothing again.
    bool machineCrashed() const { return m_machineCrashed; }
    void setSessionDiscarded();

    enum class State : std::uint8_t { unknownRequest, running, answered };
    State state(const RequestKey& key) const;

    // The answer of an answered request. Nothing if its record cannot be read.
    std::optional<Answer> answer(const RequestKey& key) const;

    // Remember a request that is about to run. Run it only if the next flush() succeeds; otherwise forget() it.
    void begin(const RequestKey& key);
    void setAnswer(const RequestKey& key, const Answer& answer);
    // The broker has the answer, so that it need not be sent again after a restart.
    void setDelivered(const RequestKey& key);
    void forget(const RequestKey& key);

    // Write the records since the last call. Returns 0 or the system's error, in which case none of them is written.
    int flush();

    // The requests whose answers the broker may not have.
    std::vector<RequestKey> undelivered() const;

    // To be called when the service ends in order: after a restart of the machine, all records will be there.
    void close();

private:
    struct Entry {
        bool answered = false;
        bool delivered = false;
        std::uint8_t file = 0;    // of the answer
        std::uint32_t size = 0;   // of the answer's bytes in the file; 0 if they could not be written
        std::uint64_t offset = 0; // of the answer's bytes in the file
    };
    struct File {
        int descriptor = -1;
        std::uint64_t size = 0;
        std::vector<const RequestKey*> keys; // of the requests that have begun in it; of m_entries
    };
    struct Hash {
        std::size_t operator()(const RequestKey& key) const {
            const std::hash<std::string> hash;
            return hash(key.responseTopic) * 31 + hash(key.correlationData);
        }
    };
    using Entries = std::unordered_map<RequestKey, Entry, Hash>;

    std::string path(const char* name) const { return m_folder + '/' + name; }
    void lock();
    File openFile(const char* name, int flags) const;
    int write();
    void load(std::uint8_t file);
    void apply(std::uint8_t file, std::string_view record, std::uint64_t offset);
    void rotate();
    void answerRunning();
    bool readState() const;
    void writeState(bool isComplete) const;
    void append(char kind, const RequestKey& key, std::string_view rest);

    const std::string m_folder;
    const std::size_t m_requests;
    bool m_machineCrashed = false;
    int m_lock = -1;
    Entries m_entries;
    std::array<File, 2> m_files;
    std::uint8_t m_current = 1;     // the file that is appended to
    std::size_t m_keptRequests = 0; // that it took over from the file before
    std::uint64_t m_keptBytes = 0;
    std::string m_unwritten;
};

} // namespace fleet
