// Write a capture for replay_test.sh.
//
//   make_recording SCENARIO FILE
#include "recorded_session.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string_view>

namespace {

using emulator::replay::milliseconds;
using emulator::replay::RecordedSession;

RecordedSession made(std::string_view scenario) {
    RecordedSession session;
    if (scenario == "exchanges") {
        session.reader("CAFE", "1-2.3").exchange({1}, {0x0A}).exchange({2}, {0x0B}).exchange({1}, {0x0C});
    } else if (scenario == "slow") {
        session.reader().out({1}).in({0x0A}, milliseconds(400));
    } else if (scenario == "leaves") {
        session.reader().exchange({1}, {0x0A}).wait(milliseconds(100)).event("left");
        session.wait(milliseconds(200)).event("came").reader().exchange({2}, {0x0B});
    } else if (scenario == "busy") {
        session.reader().event("claim", {{"interface", 0}, {"result", -EBUSY}});
    } else if (scenario == "denied") {
        session.reader().event("open", {{"result", -EACCES}});
    } else if (scenario == "mouse") {
        session.reader();
        session.recording = {};
        auto descriptor = capture::readerDescriptor;
        descriptor[8] = 0x34;
        session.recording.descriptor(descriptor);
    } else {
        std::fprintf(stderr, "unknown scenario\n");
        std::exit(2);
    }
    if (scenario != "mouse") {
        session.event("end");
    }
    return session;
}

} // namespace

int main(int, char** arguments) {
    const RecordedSession session = made(arguments[1]);
    const capture::Bytes& file = session.recording.file;
    std::ofstream(arguments[2], std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
}
