#include "usbip/readers.h"

#include "usbip/connection.h"

#include <algorithm>

namespace emulator::usbip {

namespace {

constexpr const char* tooMuch = "occupies most of the memory, which others need";

} // namespace

Reader::Reader(ReaderDescription description, std::size_t readerNumber)
    : model(std::move(description))
    , busId(std::to_string(model.description().bus) + "-" + std::to_string(readerNumber))
    , bus(model.description().bus)
    , number(model.description().address.value_or(static_cast<std::uint32_t>(readerNumber))) {
}

std::size_t Readers::add(ReaderDescription description) {
    constexpr std::size_t mostReaders = 65535; // a reader's number has 16 bits
    if (m_readers.size() == mostReaders) {
        throw TextError("too many readers");
    }
    m_readers.push_back(std::make_unique<Reader>(std::move(description), m_readers.size() + 1));
    return m_readers.size();
}

Reader& Readers::at(std::size_t number) const {
    if (number < 1 || number > m_readers.size()) {
        throw TextError("no reader " + std::to_string(number));
    }
    return *m_readers[number - 1];
}

void Readers::plug(std::size_t number, Time now) {
    Reader& reader = at(number);
    if (reader.plugged) {
        throw TextError("reader " + std::to_string(number) + " is already plugged");
    }
    reader.plugged = true;
    reader.model.power(now);
}

void Readers::unplug(std::size_t number) {
    Reader& reader = at(number);
    if (!reader.plugged) {
        throw TextError("reader " + std::to_string(number) + " is not plugged");
    }
    reader.plugged = false;
    if (reader.importer != nullptr) {
        reader.importer->abort();
    }
    reader.model.note(ReaderEvent::unplugged);
}

bool Readers::unplugLeaving() {
    bool found = false;
    for (std::size_t number = 1; number <= size(); ++number) {
        if (at(number).plugged && at(number).model.leaving()) {
            unplug(number);
            found = true;
        }
    }
    return found;
}

Reader* Readers::find(std::string_view busId) const {
    const auto found = std::ranges::find_if(
        m_readers, [&](const auto& reader) { return reader->plugged && reader->busId == busId; });
    return found == m_readers.end() ? nullptr : found->get();
}

void Readers::appendList(Bytes& bytes) const {
    std::vector<const Reader*> free;
    for (const auto& reader : m_readers) {
        if (reader->plugged && reader->importer == nullptr) {
            free.push_back(reader.get());
        }
    }
    appendCount(bytes, free.size());
    for (const Reader* reader : free) {
        appendDevice(bytes, reader->device(), reader->model.description());
        appendInterfaces(bytes, reader->device(), reader->model.description());
    }
}

std::optional<Time> Readers::nextDeadline() const {
    std::optional<Time> earliest;
    for (const auto& reader : m_readers) {
        if (const std::optional<Time> deadline = reader->model.nextDeadline()) {
            earliest = std::min(earliest.value_or(*deadline), *deadline);
        }
    }
    return earliest;
}

void Readers::advance(Time now) {
    for (const auto& reader : m_readers) {
        reader->model.advance(now);
        if (reader->importer != nullptr) {
            reader->importer->collect();
        }
    }
}

void Readers::changeMemory(std::size_t before, std::size_t after) {
    m_memory += after - before;
    m_releases += after < before ? 1 : 0;
}

void Readers::account(Reader& reader) {
    const std::size_t stored = reader.model.storedBytes();
    changeMemory(reader.accounted, stored);
    reader.accounted = stored;
}

// The last eighth is for short messages, so that a client with long transfers does not delay others.
std::size_t Readers::limitFor(std::size_t needed) const {
    constexpr std::size_t shortMessage = 8192;
    return needed <= shortMessage ? m_mostMemory : m_mostMemory - m_mostMemory / 8;
}

bool Readers::makeRoom(const Connection& asking, std::size_t needed) {
    if (!fits(needed) && couldHold(needed)) {
        forgetFrames();
    }
    while (!fits(needed)) {
        Connection* const most = largest();
        if (most == nullptr || most->memory() <= asking.memory() + needed) {
            return false;
        }
        most->refuse(tooMuch);
    }
    return true;
}

void Readers::limitMemory() {
    if (m_memory <= m_mostMemory) {
        return;
    }
    forgetFrames();
    while (m_memory > m_mostMemory) {
        Connection* const most = largest();
        if (most == nullptr || most->memory() == 0) {
            return;
        }
        most->refuse(tooMuch);
    }
}

// They are only for the command "frames".
void Readers::forgetFrames() {
    for (const auto& reader : m_readers) {
        reader->model.forgetLastFrame();
        account(*reader);
    }
}

Connection* Readers::largest() const {
    const auto found = std::ranges::max_element(
        m_connections, {}, [](const Connection* connection) { return connection->memory(); });
    return found == m_connections.end() ? nullptr : *found;
}

} // namespace emulator::usbip
