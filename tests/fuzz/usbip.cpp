// Three USB/IP clients send arbitrary data and read slowly, while two readers fail and are unplugged.
//
// Each byte of the input chooses a step; the bytes after it are the step's arguments.
#include "input.h"
#include "usbip_peer.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>

namespace {

using namespace emulator;
using namespace usbip_client;
using fuzz::Input;

constexpr std::array<std::uint32_t, 8> lengths = {0, 1, 8, 64, 65, 512, 1 << 16, 1 << 24};
constexpr std::size_t mostMemory = std::size_t{1} << 20;
constexpr std::array<std::uint8_t, 6> pipes = {0x81, 0x02, 0x83, 0x04, 0x00, 0x85};
constexpr std::array faultyPipes = {pipeOf(0x81),  pipeOf(0x02),          pipeOf(0x83),
                                    Pipe::control, Pipe::controlFrameOut, Pipe::controlFrameIn};

struct Fixture {
    explicit Fixture(Input rest)
        : input(rest) {
        readers.add(parseReaders("").front());
        readers.add(parseReaders("frames=short-packet,endpoints=0x81+0x02+0x83:interrupt+0x04:interrupt,"
                                 "configuration=2+1,interfaces=2,"
                                 "speed=high,reply=reverse")
                        .front());
        for (std::size_t number = 1; number <= readers.size(); ++number) {
            readers.plug(number, now);
        }
        for (auto& peer : peers) {
            peer = std::make_unique<fuzz::UsbipPeer>(readers);
        }
    }

    fuzz::UsbipPeer& anyPeer() { return *peers[input.below(peers.size())]; }
    std::size_t anyReader() { return 1 + input.below(readers.size()); }
    Bytes bytes(std::size_t most) {
        const std::string_view taken = input.bytes(most);
        return {taken.begin(), taken.end()};
    }

    Input input;
    Time now{};
    usbip::Readers readers{mostMemory};
    std::array<std::unique_ptr<fuzz::UsbipPeer>, 3> peers;
};

void sendBytes(Fixture& f) {
    fuzz::UsbipPeer& peer = f.anyPeer();
    const std::string_view sent = f.input.countedBytes();
    peer.send({sent.begin(), sent.end()}, f.now);
}

void sendImport(Fixture& f) {
    fuzz::UsbipPeer& peer = f.anyPeer();
    peer.send(importRequest("1-" + std::to_string(f.anyReader())), f.now);
}

void sendSubmit(Fixture& f) {
    fuzz::UsbipPeer& peer = f.anyPeer();
    SubmitRequest request{.sequence = f.input.byte(), .device = 0x00010000U + f.input.byte() % 3};
    const std::uint8_t endpoint = f.input.oneOf(pipes);
    request.endpoint = endpoint & 0x0FU;
    request.direction = (endpoint & 0x80) != 0 ? in : out;
    request.flags = f.input.byte();
    request.length = f.input.oneOf(lengths);
    if (endpoint == 0) {
        request.setup = f.bytes(8);
        request.setup.resize(8);
        request.length = static_cast<std::uint32_t>(request.setup[6] | request.setup[7] << 8);
        request.direction = (request.setup[0] & 0x80) != 0 ? in : out;
    }
    if (request.direction == out) {
        request.data = f.bytes(std::min<std::size_t>(request.length, 16));
        if (f.input.flag() && request.length <= 1 << 16) {
            request.data.resize(request.length);
        }
    }
    peer.send(submit(request), f.now);
}

void sendUnlink(Fixture& f) {
    fuzz::UsbipPeer& peer = f.anyPeer();
    const std::uint32_t sequence = f.input.byte();
    const std::uint32_t unlinked = f.input.byte();
    peer.send(unlink(sequence, unlinked, 0x00010000U + f.input.byte() % 3), f.now);
}

void receive(Fixture& f) {
    fuzz::UsbipPeer& peer = f.anyPeer();
    const std::size_t most = f.input.byte();
    peer.receive(most == 255 ? std::size_t{1} << 26 : most, f.now);
}

void reconnect(Fixture& f) {
    f.peers[f.input.below(f.peers.size())] = std::make_unique<fuzz::UsbipPeer>(f.readers);
}

void plugOrUnplug(Fixture& f) {
    const std::size_t reader = f.anyReader();
    if (f.readers.at(reader).plugged) {
        f.readers.unplug(reader);
    } else {
        f.readers.plug(reader, f.now);
    }
}

TransferFault anyFault(Fixture& f) {
    constexpr std::array kinds = {TransferFault::Kind::stall, TransferFault::Kind::mute,
                                  TransferFault::Kind::corrupt, TransferFault::Kind::delay};
    TransferFault fault{.kind = f.input.oneOf(kinds), .time = {}};
    fault.time.shortest = Milliseconds(f.input.byte());
    fault.time.longest = fault.time.shortest + Milliseconds(f.input.byte());
    return fault;
}

void changeFaultsOfTransfers(Fixture& f, ReaderModel& model) {
    model.setSeed(f.input.byte());
    TransferFaults& faults = model.transferFaults(f.input.oneOf(faultyPipes));
    switch (f.input.below(4)) {
    case 0:
        faults.failNth(1 + f.input.below(4), anyFault(f));
        break;
    case 1:
        faults.setChance(static_cast<Chance>(f.input.below(101) * 1000), anyFault(f));
        break;
    case 2:
        faults.failNone();
        break;
    default:
        faults.clearChances();
    }
}

void changeRules(Fixture& f, ReaderModel& model) {
    constexpr std::array rules = {"reply 9000", "reply none",           "stall", "mute", "unplug",
                                  "delay 20",   "delay 5 reply reverse"};
    const Bytes beginning = f.bytes(f.input.below(3));
    if (f.input.flag()) {
        model.frameRules().set(beginning, FrameRule::parse(f.input.oneOf(rules)));
    } else {
        model.frameRules().remove(beginning);
    }
}

void changeJitter(Fixture& f, ReaderModel& model) {
    const TimeRange jitter{.shortest = Milliseconds(0), .longest = Milliseconds(f.input.byte())};
    model.setJitter(f.input.flag() ? std::optional(jitter) : std::nullopt);
}

void changeFaults(Fixture& f) {
    usbip::Reader& reader = f.readers.at(f.anyReader());
    const Pipe pipe = pipeOf(f.input.oneOf(pipes));
    PipeFaults faults{.mute = f.input.flag(), .stalled = f.input.flag()};
    // The high bits, which have no other meaning, choose another fault, so that inputs found without it remain.
    constexpr unsigned lowBits = 5;
    const std::uint8_t stuckAndMore = f.input.byte();
    faults.stuck = (stuckAndMore & 1) != 0;
    faults.delay = Milliseconds(f.input.byte());
    if (f.input.flag()) {
        faults.shortTo = f.input.byte();
    }
    reader.model.setPipeFaults(pipe, faults, f.now);
    switch (stuckAndMore >> lowBits) {
    case 4:
        changeFaultsOfTransfers(f, reader.model);
        break;
    case 5:
        changeRules(f, reader.model);
        break;
    case 6:
        changeJitter(f, reader.model);
        break;
    case 7:
        reader.model.push(f.bytes(f.input.byte()), f.now);
        break;
    default:
        break;
    }
    if (reader.importer != nullptr) {
        reader.importer->collect();
    }
}

void letTimePass(Fixture& f) {
    f.now += Milliseconds(f.input.byte());
    f.readers.advance(f.now);
    const std::optional<Time> due = f.readers.nextDeadline();
    fuzz::expect(!due || *due > f.now, "everything that was due has completed");
}

void checkImporters(const Fixture& f) {
    std::size_t importing = 0;
    std::size_t held = 0;
    for (const auto& peer : f.peers) {
        importing += peer->connection.hasImported() ? 1 : 0;
        held += peer->connection.memory();
    }
    for (std::size_t number = 1; number <= f.readers.size(); ++number) {
        const usbip::Reader& reader = f.readers.at(number);
        fuzz::expect(reader.importer == nullptr || reader.plugged, "only plugged readers are imported");
        importing -= reader.importer != nullptr ? 1 : 0;
    }
    fuzz::expect(f.readers.memory() <= mostMemory, "the memory is limited");
    fuzz::expect(held <= f.readers.memory(), "the memory of each client is part of it");
    fuzz::expect(importing == 0, "each importer has its own reader");
}

void checkThatReadersWork(Fixture& f) {
    for (auto& peer : f.peers) {
        peer.reset();
    }
    usbip::Reader& reader = f.readers.at(1);
    if (!reader.plugged) {
        f.readers.plug(1, f.now);
    }
    for (const std::uint8_t pipe : pipes) {
        reader.model.setPipeFaults(pipeOf(pipe), {}, f.now);
    }
    for (const Pipe pipe : faultyPipes) {
        reader.model.transferFaults(pipe).failNone();
        reader.model.transferFaults(pipe).clearChances();
    }
    reader.model.frameRules().clear();
    reader.model.setJitter(std::nullopt);
    reader.model.forgetAnswers();
    usbip::Connection connection(f.readers);
    connection.receive(importRequest("1-1"), f.now);
    connection.sent(importReplySize);
    connection.receive(join({control(1, {0x00, 9, 1, 0, 0, 0, 0, 0}), sendFrame(2, {1, 2}), fetchFrame(3)}),
                       f.now);
    fuzz::expect(Replies(connection.output(), {3}).text() ==
                     "submitted 1 0 +0; submitted 2 0 +2; submitted 3 0 0102",
                 "a reader works for the next client");
}

constexpr std::array steps = {sendBytes, sendSubmit,   sendSubmit,   sendUnlink,  receive,
                              reconnect, plugOrUnplug, changeFaults, letTimePass, sendImport};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fixture fixture(Input(data, size));
    while (!fixture.input.atEnd()) {
        fixture.input.oneOf(steps)(fixture);
        fixture.readers.unplugLeaving();
        checkImporters(fixture);
    }
    checkThatReadersWork(fixture);
    return 0;
}
