// The input is a script for two readers: check it, run it on a bus that nobody can reach, and send each of its lines as a
// command.
#include "expect.h"

#include "control/commands.h"
#include "control/plain_bus.h"
#include "control/script.h"
#include "model/pipes.h"

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

namespace {

using namespace emulator;

// Inputs must not fill the memory.
constexpr std::size_t mostReaders = 2000;
constexpr int mostCommands = 1000;

std::vector<ReaderDescription> firstReaders() {
    return defaultReaders();
}

void addFirstReaders(PlainBus& bus) {
    for (const ReaderDescription& description : firstReaders()) {
        bus.plug(bus.add(description));
    }
}

std::string describe(PlainBus& bus) {
    std::string text;
    for (std::size_t number = 1; number <= bus.size(); ++number) {
        const ReaderDescription& description = bus.description(number);
        text += std::to_string(number) + (bus.plugged(number) ? " plugged " : " unplugged ") +
                description.reply.text();
        for (const auto& [index, string] : description.strings) {
            text += ' ' + std::to_string(index) + '=' + string;
        }
        for (const char* name : {"all", "in", "out"}) {
            for (const Pipe pipe : pipesNamed(description, name)) {
                const PipeFaults faults = bus.model(number).pipeFaults(pipe);
                text += faults.mute ? 'm' : '-';
                text += faults.stalled ? 's' : '-';
                text +=
                    std::to_string(faults.delay.count()) + ',' + std::to_string(faults.shortTo.value_or(0));
            }
        }
    }
    return text + bus.host;
}

std::string runOn(PlainBus& bus, const std::string& line) {
    const std::string before = bus.size() < 20 ? describe(bus) : "";
    std::string answer = runCommand(bus, line).text;
    fuzz::expect(answer == "ok" || answer.starts_with("ok ") || answer.starts_with("error: "),
                 "an answer says whether the command succeeded");
    if (answer.starts_with("error: ") && !before.empty()) {
        fuzz::expect(describe(bus) == before, "a command that fails changes nothing");
    }
    return answer;
}

void checkAndRunScript(const std::string& text, bool elsewhere) {
    std::istringstream stream(text);
    Script script;
    try {
        script = Script::parse(stream, "script",
                               Script::Bus{.readers = firstReaders(), .hostIsElsewhere = elsewhere});
    } catch (const TextError& error) {
        fuzz::expect(std::string_view(error.what()).starts_with("script:"), "a mistake has a place");
        return;
    }
    PlainBus bus;
    bus.elsewhere = elsewhere;
    bus.seed().give(1);
    addFirstReaders(bus);
    Milliseconds last{0};
    for (int i = 0; i < mostCommands && script.next() && bus.size() < mostReaders; ++i) {
        fuzz::expect(*script.next() >= last, "time does not run backward");
        last = *script.next();
        const auto entry = script.take(last);
        fuzz::expect(entry.has_value(), "a command that is due can be taken");
        const std::string answer = runOn(bus, entry->command);
        fuzz::expect(!answer.starts_with("error: ") || answer.find("plugged") != std::string::npos ||
                         answer == "error: the bus is full",
                     "a checked command fails only because of the state of the bus");
    }
}

void sendLines(const std::string& text, bool elsewhere) {
    PlainBus bus;
    bus.elsewhere = elsewhere;
    bus.seed().give(1);
    addFirstReaders(bus);
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line) && bus.size() < mostReaders;) {
        std::string_view command = line;
        if (takeWord(command) == "at") {
            takeWord(command);
            runOn(bus, std::string(command));
        } else {
            runOn(bus, line);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (const bool elsewhere : {false, true}) {
        checkAndRunScript(text, elsewhere);
        sendLines(text, elsewhere);
    }
    return 0;
}
