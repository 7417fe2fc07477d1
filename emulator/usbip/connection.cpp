#include "usbip/connection.h"

namespace emulator::usbip {

void Connection::receive(Input bytes, Time now) {
    if (ended_)
        return;
    input_.insert(input_.end(), bytes.begin(), bytes.end());
    proceed(now);
}

void Connection::sent(std::size_t count, Time now) {
    sent_ += count;
    if (sent_ == output_.size()) {
        output_.clear();
        sent_ = 0;
    } else if (sent_ >= output_.size() / 2) {
        output_.erase(output_.begin(), output_.begin() + static_cast<std::ptrdiff_t>(sent_));
        sent_ = 0;
    }
    proceed(now);
}

void Connection::collect() {
    if (import_)
        import_->collect(output_);
}

void Connection::abort() {
    ended_ = true;
    output_.clear();
    sent_ = 0;
    input_ = {};
    if (!import_)
        return;
    Reader& reader = import_->reader();
    import_->release(last_);
    import_.reset();
    reader.importer = nullptr;
}

std::size_t Connection::refuse(const char* complaint) {
    complaint_ = complaint;
    abort();
    return 0;
}

// Takes whole messages off the input until one is not whole, or the client has to read first.
void Connection::proceed(Time now) {
    last_ = now;
    std::size_t done = 0;
    while (wantsInput()) {
        const Input rest = Input(input_).subspan(done);
        const std::size_t used = import_ ? urb(rest, now) : operation(rest);
        if (used == 0)
            break;
        done += used;
    }
    if (ended_)
        input_ = {};
    else
        input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(done));
}

// Each of these returns how many bytes the message has that it has dealt with, 0 where that is not whole.
std::size_t Connection::operation(Input bytes) {
    if (bytes.size() < operationSize)
        return 0;
    const OperationHeader header = readOperation(bytes);
    if (header.version != protocolVersion)
        return refuse("another version of the protocol");
    switch (static_cast<Operation>(header.code)) {
    case Operation::requestList:
        appendOperation(output_, Operation::replyList, OperationStatus::ok);
        readers_.appendList(output_);
        ended_ = true;
        return operationSize;
    case Operation::requestImport:
        return importReader(bytes);
    case Operation::replyImport:
    case Operation::replyList:
        break;
    }
    return refuse("an unknown operation");
}

std::size_t Connection::importReader(Input bytes) {
    constexpr std::size_t size = operationSize + busIdSize;
    if (bytes.size() < size)
        return 0;
    Reader* reader = readers_.find(readBusId(bytes.subspan(operationSize)));
    const bool free = reader != nullptr && reader->importer == nullptr;
    ended_ = !free;
    if (!free) {
        appendOperation(output_, Operation::replyImport,
                        reader == nullptr ? OperationStatus::noDevice : OperationStatus::busy);
        return size;
    }
    appendOperation(output_, Operation::replyImport, OperationStatus::ok);
    appendDevice(output_, reader->device(), reader->model.description());
    reader->importer = this;
    import_.emplace(*reader);
    return size;
}

std::size_t Connection::urb(Input bytes, Time now) {
    constexpr std::uint32_t directionIn = 1;
    if (bytes.size() < headerSize)
        return 0;
    const UrbHeader header = readUrbHeader(bytes);
    if (header.device != import_->reader().device().id())
        return refuse("another device than the imported one");
    if (header.direction > directionIn)
        return refuse("an unknown direction");
    switch (static_cast<Command>(header.command)) {
    case Command::submit: {
        const Submit submit = readSubmit(bytes);
        if (const char* mistake = import_->mistake(header, submit))
            return refuse(mistake);
        const auto payload = static_cast<std::size_t>(header.direction == directionIn ? 0 : submit.length);
        if (bytes.size() < headerSize + payload)
            return 0;
        import_->submit(header, submit, bytes.subspan(headerSize, payload), now, output_);
        return headerSize + payload;
    }
    case Command::unlink:
        import_->unlink(header.sequence, readUnlinked(bytes), now, output_);
        return headerSize;
    case Command::submitted:
    case Command::unlinked:
        break;
    }
    return refuse("an unknown command");
}

} // namespace emulator::usbip
