// The readers that USB/IP clients can import, the connection that has imported each, and the memory that all
// connections and readers occupy.
//
// One thread at a time; the owner guards it.
#pragma once

#include "model/host_counts.h"
#include "model/model.h"
#include "usbip/messages.h"

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace emulator::usbip {

class Connection;

// A reader, plugged or not. Replugging keeps its bus ID and number.
struct Reader {
    Reader(ReaderDescription description, std::size_t readerNumber);

    // As clients see it now.
    Device device() const { return {busId, bus, number, model.configuration()}; }

    ReaderModel model;
    HostCounts counts;
    std::string busId;
    std::uint32_t bus = 0;
    std::uint32_t number = 0;
    bool plugged = false;
    Connection* importer = nullptr;
    std::size_t accounted = 0; // memory of answers and of the last frame
};

class Readers {
public:
    // The memory for data from clients, for their replies and for answers of readers.
    static constexpr std::size_t defaultMemory = std::size_t{64} << 20;

    explicit Readers(std::size_t memory = defaultMemory)
        : m_mostMemory(memory) {}

    // Add an unplugged reader and return its number. Numbers count from 1. Throws TextError.
    std::size_t add(ReaderDescription description);
    std::size_t size() const { return m_readers.size(); }

    // Undo the last add() of a reader that is not plugged.
    void removeLast() { m_readers.pop_back(); }

    // Throws TextError if the number is unknown.
    Reader& at(std::size_t number) const;

    // Throw TextError if the reader is in the wanted state already. Unplugging ends the connection that has
    // imported the reader, which tells the client.
    void plug(std::size_t number, Time now);
    void unplug(std::size_t number);

    // Unplug the readers that unplug themselves. False if there are none.
    bool unplugLeaving();

    // The plugged reader with this bus ID, or null.
    Reader* find(std::string_view busId) const;

    // Append the readers that can be imported now, as in the reply to a request for the list.
    void appendList(Bytes& bytes) const;

    std::optional<Time> nextDeadline() const;

    // Complete the transfers that are due and pass them to the connections.
    void advance(Time now);

    // ---- memory
    void enter(Connection& connection) { m_connections.push_back(&connection); }
    void leave(const Connection& connection) { std::erase(m_connections, &connection); }

    // Note that a part of the memory has changed.
    void changeMemory(std::size_t before, std::size_t after);
    void account(Reader& reader);

    // Whether a connection may occupy this much more. If there is too little, end connections that occupy
    // more than this one would.
    bool makeRoom(const Connection& asking, std::size_t needed);

    // Whether there can ever be as much.
    bool couldHold(std::size_t needed) const { return needed <= limitFor(needed); }

    // End the connections that occupy most until the limit is kept.
    void limitMemory();

    std::size_t memory() const { return m_memory; }

    // How often memory has been released.
    std::uint64_t memoryReleases() const { return m_releases; }

private:
    std::size_t limitFor(std::size_t needed) const;
    bool fits(std::size_t needed) const { return needed + m_memory <= limitFor(needed); }
    void forgetFrames();
    Connection* largest() const;

    std::vector<std::unique_ptr<Reader>> m_readers;
    std::vector<Connection*> m_connections;
    std::size_t m_mostMemory;
    std::size_t m_memory = 0;
    std::uint64_t m_releases = 0;
};

} // namespace emulator::usbip
