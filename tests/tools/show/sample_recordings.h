// Recordings for tests: what two readers and a program did, with everything that `gvusb show` shows.
#pragma once

#include "capture/pcapng_writer.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

class SampleRecording {
public:
    using Bytes = capture::Bytes;
    using Json = capture::Json;
    using TransferType = capture::TransferType;

    SampleRecording() { capture::appendHeader(file, "gvusb test"); }

    static constexpr std::chrono::microseconds step{100};

    void pause(std::chrono::microseconds time) { now += time; }

    void remark(Json value) {
        now += std::chrono::microseconds(1);
        capture::appendRemark(file, now, value);
    }

    void event(const char* type, int address, Json more = Json::object()) {
        Json value = {{"type", type}, {"bus", 1}, {"address", address}};
        value.update(more);
        remark(value);
    }

    void call(const char* function, const std::string& arguments, int thread = 1) {
        remark({{"type", "call"},
                {"process", 1},
                {"thread", thread},
                {"function", function},
                {"arguments", arguments}});
    }

    void returned(int result, int thread = 1) {
        remark({{"type", "return"}, {"process", 1}, {"thread", thread}, {"result", result}});
    }

    void packet(const capture::Packet& packet, std::string_view comment = {}) {
        capture::Packet stamped = packet;
        stamped.bus = 1;
        stamped.time = now;
        capture::appendPacket(file, stamped, comment);
    }

    std::uint64_t submit(int address, TransferType type, int endpoint, const Bytes& data,
                         std::uint32_t length, std::optional<capture::SetupPacket> setup = {},
                         std::string_view comment = {}) {
        ++lastId;
        packet({.id = lastId,
                .kind = capture::PacketKind::submission,
                .type = type,
                .endpoint = static_cast<std::uint8_t>(endpoint),
                .address = static_cast<std::uint8_t>(address),
                .setup = setup,
                .length = length,
                .data = data},
               comment);
        return lastId;
    }

    void complete(std::uint64_t id, int address, TransferType type, int endpoint, std::int32_t status,
                  const Bytes& data, std::uint32_t length, std::string_view comment = {}) {
        packet({.id = id,
                .kind = capture::PacketKind::completion,
                .type = type,
                .endpoint = static_cast<std::uint8_t>(endpoint),
                .address = static_cast<std::uint8_t>(address),
                .setup = {},
                .status = status,
                .length = length,
                .data = data},
               comment);
    }

    // A transfer on a bulk endpoint that takes `time`.
    void out(int address, const Bytes& data, std::int32_t status = 0, std::chrono::microseconds time = step) {
        const auto size = static_cast<std::uint32_t>(data.size());
        const std::uint64_t id = submit(address, TransferType::bulk, 0x02, data, size);
        now += time;
        complete(id, address, TransferType::bulk, 0x02, status, {}, status == 0 ? size : 0);
    }

    void in(int address, const Bytes& data, std::int32_t status = 0, std::chrono::microseconds time = step,
            std::uint32_t room = 512) {
        const std::uint64_t id = submit(address, TransferType::bulk, 0x81, {}, room);
        now += time;
        complete(id, address, TransferType::bulk, 0x81, status, data,
                 static_cast<std::uint32_t>(data.size()));
    }

    void controlIn(int address, const capture::SetupPacket& setup, const Bytes& data,
                   std::int32_t status = 0) {
        const std::uint64_t id =
            submit(address, TransferType::control, 0x80, {}, setup[6] | unsigned{setup[7]} << 8, setup);
        now += step;
        complete(id, address, TransferType::control, 0x80, status, data,
                 static_cast<std::uint32_t>(data.size()));
    }

    void controlOut(int address, const capture::SetupPacket& setup, const Bytes& data) {
        const auto size = static_cast<std::uint32_t>(data.size());
        const std::uint64_t id = submit(address, TransferType::control, 0x00, data, size, setup);
        now += step;
        complete(id, address, TransferType::control, 0x00, 0, {}, size);
    }

    void string(int address, int index, std::string_view text) {
        Bytes descriptor = {static_cast<std::uint8_t>(2 + 2 * text.size()), 3};
        for (const char character : text) {
            descriptor.push_back(static_cast<std::uint8_t>(character));
            descriptor.push_back(0);
        }
        controlIn(address, {0x80, 6, static_cast<std::uint8_t>(index), 3, 9, 4, 255, 0}, descriptor);
    }

    // As the library identifies a reader.
    void identify(int address, const char* path, std::string_view id, std::string_view family,
                  std::string_view name, int vendor = 0x1209) {
        event("device", address, {{"name", path}, {"speed", "12"}});
        const Bytes descriptor = {18,
                                  1,
                                  0,
                                  2,
                                  0,
                                  0,
                                  0,
                                  64,
                                  static_cast<std::uint8_t>(vendor & 0xFF),
                                  static_cast<std::uint8_t>(vendor >> 8),
                                  1,
                                  0,
                                  0,
                                  1,
                                  1,
                                  2,
                                  1,
                                  1};
        controlIn(address, {0x80, 6, 0, 1, 0, 0, 18, 0}, descriptor);
        event("open", address, {{"result", 3}});
        string(address, 1, id);
        string(address, 3, family);
        string(address, 5, name);
        event("close", address);
    }

    Bytes file;
    capture::Time now{1'700'000'000'000'000'000};
    std::uint64_t lastId = 0;
};

// Reader A1 is answered, times out, answers late and stalls; reader B2 uses control transfers, leaves and comes back.
inline SampleRecording sampleSession() {
    constexpr std::chrono::milliseconds timeOut(1000);
    SampleRecording made;
    made.remark({{"type", "start"}, {"program", "./gate --fast"}});
    made.call("GVUSB_Scan", "0, mask 0x0");
    made.identify(2, "1-1", "A1", "Desk", "Desk reader");
    made.identify(3, "1-2.3", "B2", "Gate", "Gate reader");
    made.returned(2);
    made.call("GVUSB_GetScanListSize", "");
    made.returned(2);
    made.call("GVUSB_OpenDevice", "0xA1");
    made.event("open", 2, {{"result", 4}});
    made.returned(0x10000001);
    made.call("GVUSB_Transceive", "268435457, \"TESK-RCI2\", sends 3 bytes, room for 512 bytes");
    made.event("detach", 2, {{"interface", 0}, {"result", -ENODATA}});
    made.event("claim", 2, {{"interface", 0}, {"result", 0}});
    made.out(2, {2, 0, 7});
    made.in(2, {0x90, 0}, 0, std::chrono::microseconds(2'100));
    made.returned(2);
    made.pause(std::chrono::milliseconds(300));
    made.call("GVUSB_Transceive", "268435457, \"TESK-RCI2\", sends 1 bytes, room for 512 bytes");
    made.out(2, {0xFF});
    made.in(2, {}, -ENOENT, timeOut);
    made.returned(-1130);
    made.in(2, {0x55}, 0, std::chrono::milliseconds(200)); // late
    made.out(2, {3});
    made.in(2, {}, -EPIPE);
    made.event("clear-halt", 2, {{"endpoint", 0x81}, {"result", 0}});
    made.event("open", 3, {{"result", -EACCES}});
    made.event("open", 3, {{"result", 5}});
    constexpr capture::SetupPacket frameOut = {0x40, 0, 0, 0, 0, 0, 2, 0};
    constexpr capture::SetupPacket frameIn = {0xC0, 0, 0, 0, 0, 0, 0, 16};
    made.controlOut(3, frameOut, {1, 2});
    made.controlIn(3, frameIn, {1, 2});
    made.event("left", 3);
    made.pause(std::chrono::milliseconds(500));
    made.event("came", 4);
    made.identify(4, "1-2.3", "B2", "Gate", "Gate reader");
    made.controlOut(4, frameOut, {3, 4});
    made.controlIn(4, frameIn, {3, 4});
    made.controlIn(4, {0xC1, 7, 1, 0, 2, 0, 4, 0}, {9, 9, 9, 9});
    made.out(2, {4});
    made.pause(std::chrono::milliseconds(400));
    made.remark({{"type", "end"}, {"result", 0}});
    return made;
}
