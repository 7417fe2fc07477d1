// The readers that USB/IP clients can import, and the connection that has imported each.
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
};

class Readers {
public:
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

private:
    std::vector<std::unique_ptr<Reader>> m_readers;
};

} // namespace emulator::usbip
