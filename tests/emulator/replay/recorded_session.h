// Captures of a reader with bulk endpoints, for tests of replays.
#pragma once

#include "../../capture/capture_builder.h"

#include <cerrno>
#include <chrono>

namespace emulator::replay {

using capture::Bytes;
using std::chrono::milliseconds;

// Descriptors of the reader in the capture: 0x81 and 0x02, full speed.
inline const Bytes configurationBytes = {9, 2, 32, 0, 1,    1, 0,  0x80, 50, 9, 4, 0,    0, 2,  0xFF, 0,
                                         0, 0, 7,  5, 0x81, 2, 64, 0,    0,  7, 5, 0x02, 2, 64, 0,    0};

class RecordedSession {
public:
    RecordedSession() { recording.remark({{"type", "start"}}); }

    // A reader with descriptors and strings, as the kernel's copy has them.
    RecordedSession& reader(const std::string& id = "CAFE", const std::string& name = "1-2") {
        recording.remark({{"type", "device"},
                          {"bus", 1},
                          {"address", recording.address},
                          {"name", name},
                          {"speed", "12"}});
        recording.descriptor(capture::readerDescriptor, capture::kernelCopyComment);
        control({0x80, 6, 0, 2, 0, 0, 255, 0}, configurationBytes);
        string(1, id);
        string(3, "Gate");
        string(5, "Gate reader");
        string(6, "TESK RCI2");
        string(10, "100");
        return *this;
    }

    RecordedSession& wait(milliseconds time) {
        recording.time += time;
        return *this;
    }
    RecordedSession& out(const Bytes& frame, int status = 0) {
        const auto length = static_cast<std::uint32_t>(frame.size());
        recording.submit(++lastId, capture::TransferType::bulk, 0x02, frame, length);
        recording.complete(lastId, capture::TransferType::bulk, 0x02, status, {}, status == 0 ? length : 0);
        return *this;
    }
    // The reader takes only so many bytes.
    RecordedSession& shortOut(const Bytes& frame, std::uint32_t taken) {
        recording.submit(++lastId, capture::TransferType::bulk, 0x02, frame,
                         static_cast<std::uint32_t>(frame.size()));
        recording.complete(lastId, capture::TransferType::bulk, 0x02, 0, {}, taken);
        return *this;
    }
    RecordedSession& refusedOut(const Bytes& frame) {
        const auto length = static_cast<std::uint32_t>(frame.size());
        recording.submit(++lastId, capture::TransferType::bulk, 0x02, frame, length);
        recording.refuse(lastId, capture::TransferType::bulk, 0x02, -ENODEV);
        return *this;
    }
    // Read for some time.
    RecordedSession& in(const Bytes& frame, milliseconds time = milliseconds(0), int status = 0) {
        recording.submit(++lastId, capture::TransferType::bulk, 0x81, {}, 64);
        recording.time += time;
        recording.complete(lastId, capture::TransferType::bulk, 0x81, status, frame,
                           static_cast<std::uint32_t>(frame.size()));
        return *this;
    }
    RecordedSession& timeOut(milliseconds time) { return in({}, time, -ENOENT); }
    RecordedSession& exchange(const Bytes& frame, const Bytes& answer) { return out(frame).in(answer); }

    RecordedSession& control(const capture::SetupPacket& setup, const Bytes& data, int status = 0,
                             std::string_view comment = {}) {
        const bool in = (setup[0] & 0x80) != 0;
        const auto endpoint = static_cast<std::uint8_t>(setup[0] & 0x80);
        const auto length = static_cast<std::uint32_t>(setup[6] | setup[7] << 8);
        recording.submit(++lastId, capture::TransferType::control, endpoint, in ? Bytes{} : data, length,
                         setup, comment);
        recording.complete(lastId, capture::TransferType::control, endpoint, status, in ? data : Bytes{},
                           static_cast<std::uint32_t>(data.size()), comment);
        return *this;
    }
    RecordedSession& string(std::uint8_t index, const std::string& text) {
        Bytes bytes = {static_cast<std::uint8_t>(2 + 2 * text.size()), 3};
        for (const char each : text) {
            bytes.push_back(static_cast<std::uint8_t>(each));
            bytes.push_back(0);
        }
        return control({0x80, 6, index, 3, 9, 4, 255, 0}, bytes, 0, capture::kernelCopyComment);
    }
    RecordedSession& event(const std::string& type, capture::Json more = capture::Json::object()) {
        capture::Json remark = {{"type", type}, {"bus", 1}, {"address", recording.address}};
        remark.update(more);
        recording.remark(remark);
        return *this;
    }

    capture::Capture read() const { return recording.read(); }

    capture::Recording recording;
    std::uint64_t lastId = 0;
};

} // namespace emulator::replay
