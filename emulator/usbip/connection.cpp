#include "usbip/connection.h"

namespace emulator::usbip {

void Connection::receive(Input bytes, Time now) {
    if (m_ended) {
        return;
    }
    m_input.insert(m_input.end(), bytes.begin(), bytes.end());
    proceed(now);
}

void Connection::sent(std::size_t count, Time now) {
    m_sent += count;
    if (m_sent == m_output.size()) {
        m_output.clear();
        m_sent = 0;
    } else if (m_sent >= m_output.size() / 2) {
        m_output.erase(m_output.begin(), m_output.begin() + static_cast<std::ptrdiff_t>(m_sent));
        m_sent = 0;
    }
    proceed(now);
}

void Connection::collect() {
    if (m_import) {
        m_import->collect(m_output);
    }
}

void Connection::abort() {
    m_ended = true;
    m_output.clear();
    m_sent = 0;
    m_input = {};
    if (!m_import) {
        return;
    }
    Reader& reader = m_import->reader();
    m_import->release(m_last);
    m_import.reset();
    reader.importer = nullptr;
}

std::size_t Connection::refuse(const char* complaint) {
    m_complaint = complaint;
    abort();
    return 0;
}

// Process complete messages until one is incomplete or the client has to read first.
void Connection::proceed(Time now) {
    m_last = now;
    std::size_t done = 0;
    while (wantsInput()) {
        const Input rest = Input(m_input).subspan(done);
        const std::size_t used = m_import ? urb(rest, now) : operation(rest);
        if (used == 0) {
            break;
        }
        done += used;
    }
    if (m_ended) {
        m_input = {};
    } else {
        m_input.erase(m_input.begin(), m_input.begin() + static_cast<std::ptrdiff_t>(done));
    }
}

// This and the functions below return the size of the message that they have processed, 0 if it is
// incomplete.
std::size_t Connection::operation(Input bytes) {
    if (bytes.size() < operationSize) {
        return 0;
    }
    const OperationHeader header = readOperation(bytes);
    if (header.version != usbip_protocol_version) {
        return refuse("unsupported protocol version");
    }
    switch (header.code) {
    case usbip_request_list:
        appendOperation(m_output, usbip_reply_list, usbip_ok);
        m_readers.appendList(m_output);
        m_ended = true;
        return operationSize;
    case usbip_request_import:
        return importReader(bytes);
    default:
        return refuse("unknown operation");
    }
}

std::size_t Connection::importReader(Input bytes) {
    constexpr std::size_t size = operationSize + usbip_bus_id_size;
    if (bytes.size() < size) {
        return 0;
    }
    Reader* reader = m_readers.find(readBusId(bytes.subspan(operationSize)));
    const bool free = reader != nullptr && reader->importer == nullptr;
    m_ended = !free;
    if (!free) {
        appendOperation(m_output, usbip_reply_import, reader == nullptr ? usbip_no_device : usbip_busy);
        return size;
    }
    appendOperation(m_output, usbip_reply_import, usbip_ok);
    appendDevice(m_output, reader->device(), reader->model.description());
    reader->importer = this;
    m_import.emplace(*reader);
    return size;
}

std::size_t Connection::urb(Input bytes, Time now) {
    if (bytes.size() < headerSize) {
        return 0;
    }
    const UrbHeader header = readUrbHeader(bytes);
    if (header.device != m_import->reader().device().id()) {
        return refuse("device not imported");
    }
    if (header.direction > usbip_in) {
        return refuse("unknown direction");
    }
    switch (header.command) {
    case usbip_command_submit: {
        const Submit submit = readSubmit(bytes);
        if (const char* mistake = m_import->mistake(header, submit)) {
            return refuse(mistake);
        }
        const auto payload = static_cast<std::size_t>(header.direction == usbip_in ? 0 : submit.length);
        if (bytes.size() < headerSize + payload) {
            return 0;
        }
        m_import->submit(header, submit, bytes.subspan(headerSize, payload), now, m_output);
        return headerSize + payload;
    }
    case usbip_command_unlink:
        m_import->unlink(header.sequence, readUnlinked(bytes), now, m_output);
        return headerSize;
    default:
        return refuse("unknown command");
    }
}

} // namespace emulator::usbip
