// The readers that USB/IP clients may import, and by which connection each of them is imported now.
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

// A reader, plugged or not. To those who import it, it has the same name and number at each plug.
struct Reader {
    Reader(ReaderDescription description, std::size_t readerNumber);

    // As it is shown now.
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
    // Adds a reader, unplugged, and returns its number. Numbers count from 1. Throws TextError.
    std::size_t add(ReaderDescription description);
    std::size_t size() const { return m_readers.size(); }

    // Throws TextError where there is none with this number.
    Reader& at(std::size_t number) const;

    // Throw TextError where the reader is already there, or not. The connection that has imported it ends, which
    // is how a client learns of an unplugging.
    void plug(std::size_t number, Time now);
    void unplug(std::size_t number);

    // The plugged reader with this bus ID; nullptr if there is none.
    Reader* find(std::string_view busId) const;

    // Those that can be imported now, as the reply to a client's request for the list.
    void appendList(Bytes& bytes) const;

    std::optional<Time> nextDeadline() const;

    // Completes what is due, and hands it to the connections.
    void advance(Time now);

private:
    std::vector<std::unique_ptr<Reader>> m_readers;
};

} // namespace emulator::usbip
