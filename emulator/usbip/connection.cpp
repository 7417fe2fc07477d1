#include "usbip/connection.h"

#include <algorithm>
#include <new>

namespace emulator::usbip {

namespace {

// A frame with its answer and the replies to both.
constexpr std::size_t memoryOfMessage = memoryOfRequest + 2 * headerSize;

constexpr std::size_t shortPayload = std::size_t{64} << 10;

} // namespace

Connection::Connection(Readers& readers)
    : m_readers(readers) {
    m_readers.enter(*this);
}

Connection::~Connection() {
    abort();
    m_readers.leave(*this);
}

void Connection::receive(Input bytes, Time now) {
    if (m_ended) {
        return;
    }
    m_last = now;
    try {
        receiveAll(bytes, now);
    } catch (const std::bad_alloc&) {
        refuse("out of memory");
    }
    account();
    m_readers.limitMemory();
}

void Connection::receiveAll(Input bytes, Time now) {
    if (m_input.empty()) {
        const std::size_t done = process(bytes, now);
        if (!m_ended) {
            m_input.assign(bytes.begin() + static_cast<std::ptrdiff_t>(done), bytes.end());
        }
    } else {
        m_input.insert(m_input.end(), bytes.begin(), bytes.end());
        keepFrom(process(m_input, now));
    }
}

bool Connection::mayProceed() const {
    return readsOutput() && m_unprocessed && !(m_lacksMemory && m_releases == m_readers.memoryReleases());
}

void Connection::proceed(Time now) {
    if (!mayProceed()) {
        return;
    }
    m_last = now;
    try {
        keepFrom(process(m_input, now));
    } catch (const std::bad_alloc&) {
        refuse("out of memory");
    }
    account();
    m_readers.limitMemory();
}

void Connection::keepFrom(std::size_t done) {
    constexpr std::size_t kept = 4096; // by a client with nothing to process
    if (done >= m_input.size() && m_input.capacity() > kept) {
        m_input = Bytes();
    } else {
        m_input.erase(m_input.begin(), m_input.begin() + static_cast<std::ptrdiff_t>(done));
    }
}

void Connection::sent(std::size_t count) {
    m_output.sent(count);
    account();
}

void Connection::collect() {
    if (!m_import) {
        return;
    }
    try {
        m_import->collect(m_output);
    } catch (const std::bad_alloc&) {
        refuse("out of memory");
    }
    account();
    m_readers.limitMemory();
}

void Connection::abort() {
    m_ended = true;
    m_unprocessed = false;
    m_output.clear();
    m_input = Bytes();
    m_long.reset();
    if (m_import) {
        Reader& reader = m_import->reader();
        m_import->release(m_last);
        m_import.reset();
        reader.importer = nullptr;
        m_readers.account(reader);
    }
    account();
}

void Connection::refuse(const char* complaint) {
    m_complaint = complaint;
    abort();
}

std::size_t Connection::memory() const {
    return m_accounted + (m_import ? m_import->reader().accounted : 0);
}

void Connection::account() {
    std::size_t held = m_input.capacity() + m_output.memory();
    if (m_import) {
        held += m_import->memory();
        m_readers.account(m_import->reader());
    }
    if (m_long) {
        held += 2 * m_long->payload.capacity(); // the answer may be as long
    }
    m_readers.changeMemory(m_accounted, held);
    m_accounted = held;
}

// Whether a message that needs this much may be processed now.
bool Connection::hasMemory(std::size_t needed) {
    account();
    m_lacksMemory = !m_readers.makeRoom(*this, needed);
    m_releases = m_readers.memoryReleases();
    if (m_lacksMemory && !m_readers.couldHold(needed)) {
        refuse("transfer exceeds the memory for all clients");
    }
    return !m_lacksMemory;
}

// Process messages until one is incomplete or the client has to read first, but not too many. Return how many
// bytes they had, 0 if the connection has ended.
std::size_t Connection::process(Input bytes, Time now) {
    std::size_t done = 0;
    m_lacksMemory = false;
    for (unsigned count = 0;; ++count) {
        m_unprocessed = done < bytes.size();
        if (count == mostMessages || !readsOutput()) {
            break;
        }
        const std::size_t used = message(bytes.subspan(done), now);
        if (used == 0) {
            m_unprocessed = m_lacksMemory;
            break;
        }
        done += used;
    }
    if (!m_ended) {
        return done;
    }
    m_unprocessed = false;
    m_input = Bytes();
    return 0;
}

// This and the functions below return how many bytes they have processed, 0 if the message is incomplete or
// has to wait.
std::size_t Connection::message(Input bytes, Time now) {
    if (m_long) {
        return continueLong(bytes, now);
    }
    return m_import ? urb(bytes, now) : operation(bytes);
}

std::size_t Connection::operation(Input bytes) {
    if (bytes.size() < operationSize) {
        return 0;
    }
    const OperationHeader header = readOperation(bytes);
    if (header.version != usbip_protocol_version) {
        refuse("unsupported protocol version");
        return 0;
    }
    switch (header.code) {
    case usbip_request_list:
        return list();
    case usbip_request_import:
        return importReader(bytes);
    default:
        refuse("unknown operation");
        return 0;
    }
}

std::size_t Connection::list() {
    Bytes reply;
    appendOperation(reply, usbip_reply_list, usbip_ok);
    m_readers.appendList(reply);
    if (!hasMemory(reply.capacity())) {
        return 0;
    }
    m_output.append(std::move(reply));
    m_ended = true;
    return operationSize;
}

std::size_t Connection::importReader(Input bytes) {
    constexpr std::size_t size = operationSize + usbip_bus_id_size;
    if (bytes.size() < size) {
        return 0;
    }
    Reader* reader = m_readers.find(readBusId(bytes.subspan(operationSize)));
    const bool free = reader != nullptr && reader->importer == nullptr;
    m_ended = !free;
    Bytes reply;
    if (!free) {
        appendOperation(reply, usbip_reply_import, reader == nullptr ? usbip_no_device : usbip_busy);
    } else {
        appendOperation(reply, usbip_reply_import, usbip_ok);
        appendDevice(reply, reader->device(), reader->model.description());
        reader->importer = this;
        m_import.emplace(*reader);
    }
    m_output.append(std::move(reply));
    return size;
}

std::size_t Connection::urb(Input bytes, Time now) {
    if (bytes.size() < headerSize) {
        return 0;
    }
    const UrbHeader header = readUrbHeader(bytes);
    const char* mistake = nullptr;
    if (header.device != m_import->reader().device().id()) {
        mistake = "device not imported";
    } else if (header.direction > usbip_in) {
        mistake = "unknown direction";
    } else if (header.command == usbip_command_submit) {
        return submit(header, bytes, now);
    } else if (header.command != usbip_command_unlink) {
        mistake = "unknown command";
    }
    if (mistake != nullptr) {
        refuse(mistake);
        return 0;
    }
    m_import->unlink(header.sequence, readUnlinked(bytes), now, m_output);
    return headerSize;
}

std::size_t Connection::submit(const UrbHeader& header, Input bytes, Time now) {
    const Submit submit = readSubmit(bytes);
    if (const char* mistake = m_import->mistake(header, submit)) {
        refuse(mistake);
        return 0;
    }
    const auto payload = static_cast<std::size_t>(header.direction == usbip_in ? 0 : submit.length);
    const Input present = bytes.subspan(headerSize, std::min(payload, bytes.size() - headerSize));
    const bool complete = present.size() == payload;
    if (!complete && payload <= shortPayload) {
        return 0;
    }
    if (!hasMemory(memoryOfMessage + 2 * payload)) {
        return 0;
    }
    if (complete) {
        m_import->submit(header, submit, Bytes(present.begin(), present.end()), now, m_output);
        return headerSize + payload;
    }
    m_long = LongSubmit{.header = header, .submit = submit, .payload = {}};
    m_long->payload.reserve(payload);
    m_long->payload.assign(present.begin(), present.end());
    return headerSize + present.size();
}

// Its memory has been reserved.
std::size_t Connection::continueLong(Input bytes, Time now) {
    const Input present = bytes.first(std::min(m_long->missing(), bytes.size()));
    m_long->payload.insert(m_long->payload.end(), present.begin(), present.end());
    if (m_long->missing() == 0) {
        LongSubmit complete = std::move(*m_long);
        m_long.reset();
        m_import->submit(complete.header, complete.submit, std::move(complete.payload), now, m_output);
    }
    return present.size();
}

} // namespace emulator::usbip
