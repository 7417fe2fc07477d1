#include "command_actions.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace emulator::actions {

namespace {

using Text = std::string_view;

constexpr std::uint64_t longestWait = 3'600'000;
constexpr std::uint64_t largestCount = 1U << 20;

Time now() {
    return std::chrono::steady_clock::now();
}

CommandAnswer ok(std::string_view data = {}) {
    return {.text = data.empty() ? std::string("ok") : "ok " + std::string(data)};
}

void noMore(Text arguments) {
    if (!arguments.empty())
        throw TextError("'" + std::string(arguments) + "' is too much");
}

std::size_t oneReader(const VirtualBus& bus, Text& arguments) {
    return static_cast<std::size_t>(
        number("reader", takeWord(arguments), 1, std::max<std::size_t>(bus.size(), 1)));
}

std::vector<std::size_t> readersNamed(const VirtualBus& bus, Text& arguments) {
    Text ahead = arguments;
    if (takeWord(ahead) != "all")
        return {oneReader(bus, arguments)};
    arguments = ahead;
    std::vector<std::size_t> all(bus.size());
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i] = i + 1;
    return all;
}

bool takeSwitch(Text& arguments) {
    const Text word = takeWord(arguments);
    if (word != "on" && word != "off")
        throw TextError("'" + std::string(word) + "' is neither on nor off");
    noMore(arguments);
    return word == "on";
}

std::uint8_t takeStringIndex(Text& arguments) {
    return static_cast<std::uint8_t>(number("string index", takeWord(arguments), 0, 255));
}

// Changes the faults of the pipes that the next words name: READER PIPE.
template <typename Change>
CommandAnswer onPipes(VirtualBus& bus, Text arguments, Change change) {
    const std::vector<std::size_t> readers = readersNamed(bus, arguments);
    const Text pipe = takeWord(arguments);
    for (const std::size_t reader : readers) {
        bus.with(reader, [&](Reader& r) {
            for (const Pipe each : r.model.pipesNamed(pipe)) {
                PipeFaults faults = r.model.pipeFaults(each);
                change(faults, arguments);
                r.model.setPipeFaults(each, faults, now());
            }
        });
    }
    return ok();
}

template <typename Change>
CommandAnswer onReaders(VirtualBus& bus, Text arguments, Change change) {
    for (const std::size_t reader : readersNamed(bus, arguments))
        bus.with(reader, [&](Reader& r) { change(r, arguments); });
    return ok();
}

} // namespace

CommandAnswer plug(VirtualBus& bus, Text arguments) {
    if (arguments.find('=') == Text::npos) {
        Text ahead = arguments;
        const bool all = takeWord(ahead) == "all";
        for (const std::size_t reader : readersNamed(bus, arguments)) {
            if (!all || !bus.plugged(reader))
                bus.plug(reader);
        }
        noMore(arguments);
        return ok();
    }
    std::string numbers;
    for (ReaderDescription& description : parseReaders(arguments)) {
        const bool plugged = description.plugged;
        const std::size_t reader = bus.add(std::move(description));
        if (plugged)
            bus.plug(reader);
        numbers += (numbers.empty() ? "" : " ") + std::to_string(reader);
    }
    return ok(numbers);
}

CommandAnswer unplug(VirtualBus& bus, Text arguments) {
    Text ahead = arguments;
    const bool all = takeWord(ahead) == "all";
    for (const std::size_t reader : readersNamed(bus, arguments)) {
        if (!all || bus.plugged(reader))
            bus.unplug(reader);
    }
    noMore(arguments);
    return ok();
}

CommandAnswer replug(VirtualBus& bus, Text arguments) {
    for (const std::size_t reader : readersNamed(bus, arguments)) {
        bus.unplug(reader);
        bus.plug(reader);
    }
    noMore(arguments);
    return ok();
}

CommandAnswer setString(VirtualBus& bus, Text arguments) {
    return onReaders(bus, arguments, [](Reader& r, Text rest) {
        const std::uint8_t index = takeStringIndex(rest);
        r.model.setString(index, std::string(rest));
    });
}

CommandAnswer removeString(VirtualBus& bus, Text arguments) {
    return onReaders(bus, arguments, [](Reader& r, Text rest) {
        const std::uint8_t index = takeStringIndex(rest);
        noMore(rest);
        r.model.setString(index, std::nullopt);
    });
}

CommandAnswer failString(VirtualBus& bus, Text arguments) {
    return onReaders(bus, arguments, [](Reader& r, Text rest) {
        const std::uint8_t index = takeStringIndex(rest);
        if (takeSwitch(rest))
            r.model.requestFaults().unreadableStrings.insert(index);
        else
            r.model.requestFaults().unreadableStrings.erase(index);
    });
}

CommandAnswer stall(VirtualBus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        const Text word = takeWord(rest);
        if (!word.empty() && word != "stuck")
            throw TextError("'" + std::string(word) + "' is not 'stuck'");
        noMore(rest);
        faults.stalled = true;
        faults.stuck = !word.empty();
    });
}

CommandAnswer unstall(VirtualBus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        noMore(rest);
        faults.stalled = faults.stuck = false;
    });
}

CommandAnswer mute(VirtualBus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        noMore(rest);
        faults.mute = true;
    });
}

CommandAnswer unmute(VirtualBus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        noMore(rest);
        faults.mute = false;
    });
}

CommandAnswer delay(VirtualBus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        faults.delay = Milliseconds(number("delay", takeWord(rest), 0, longestWait));
        noMore(rest);
    });
}

CommandAnswer shorten(VirtualBus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        const Text word = takeWord(rest);
        noMore(rest);
        faults.shortTo.reset();
        if (word != "off")
            faults.shortTo = static_cast<std::size_t>(number("count", word, 0, largestCount));
    });
}

CommandAnswer reply(VirtualBus& bus, Text arguments) {
    return onReaders(bus, arguments, [](Reader& r, Text rest) { r.model.setReply(ReplyRule::parse(rest)); });
}

CommandAnswer flush(VirtualBus& bus, Text arguments) {
    return onReaders(bus, arguments, [](Reader& r, Text rest) {
        noMore(rest);
        r.model.forgetAnswers();
    });
}

CommandAnswer busy(VirtualBus& bus, Text arguments) {
    return onReaders(bus, arguments, [](Reader& r, Text rest) { r.faults.busy = takeSwitch(rest); });
}

CommandAnswer driver(VirtualBus& bus, Text arguments) {
    return onReaders(bus, arguments, [](Reader& r, Text rest) {
        const Text name = takeWord(rest);
        noMore(rest);
        r.model.setKernelDriver(name == "none" ? std::string{} : std::string(name));
        if (r.device)
            r.device->bindDriver(r.model.description().kernelDriver);
    });
}

CommandAnswer refuse(VirtualBus& bus, Text arguments) {
    constexpr std::array<std::pair<Text, int>, 6> errors = {{{"EACCES", EACCES},
                                                             {"EPERM", EPERM},
                                                             {"ENODEV", ENODEV},
                                                             {"ENOENT", ENOENT},
                                                             {"EMFILE", EMFILE},
                                                             {"off", 0}}};
    const std::vector<std::size_t> readers = readersNamed(bus, arguments);
    const Text word = takeWord(arguments);
    noMore(arguments);
    const auto found = std::ranges::find(errors, word, &std::pair<Text, int>::first);
    if (found == errors.end())
        throw TextError("'" + std::string(word) +
                        "' is none of EACCES, EPERM, ENODEV, ENOENT, EMFILE and off");
    for (const std::size_t reader : readers)
        bus.refuseOpening(reader, found->second);
    return ok();
}

CommandAnswer failConfiguration(VirtualBus& bus, Text arguments) {
    return onReaders(bus, arguments, [](Reader& r, Text rest) {
        r.model.requestFaults().refusesConfiguration = takeSwitch(rest);
    });
}

CommandAnswer failReset(VirtualBus& bus, Text arguments) {
    return onReaders(bus, arguments, [](Reader& r, Text rest) { r.faults.failReset = takeSwitch(rest); });
}

CommandAnswer list(VirtualBus& bus, Text arguments) {
    noMore(arguments);
    std::string text;
    for (std::size_t reader = 1; reader <= bus.size(); ++reader) {
        std::array<char, 64> line{};
        bus.with(reader, [&](Reader& r) {
            const ReaderDescription& description = r.model.description();
            std::snprintf(line.data(), line.size(), "%zu %04x:%04x ", reader, description.vendor,
                          description.product);
            std::string place = "unplugged";
            if (r.node) {
                std::array<char, 16> address{};
                std::snprintf(address.data(), address.size(), "%03u/%03u", description.bus, r.address);
                place = address.data();
            }
            const auto id = description.strings.find(deviceIdString);
            text += (text.empty() ? "" : "; ") + std::string(line.data()) + place + " " +
                    (id == description.strings.end() ? "-" : id->second);
        });
    }
    return ok(text);
}

CommandAnswer frames(VirtualBus& bus, Text arguments) {
    const std::size_t reader = oneReader(bus, arguments);
    noMore(arguments);
    return ok(bus.with(reader, [](Reader& r) {
        std::string text = std::to_string(r.model.frameCount());
        if (r.model.frameCount() != 0) {
            const auto& frame = r.model.lastFrame();
            const std::array<std::uint8_t, 1> endpoint = {frame.endpoint};
            text += " 0x" + hexText(endpoint) + " " + hexText(frame.data);
        }
        return text;
    }));
}

CommandAnswer counts(VirtualBus& bus, Text arguments) {
    const std::size_t reader = oneReader(bus, arguments);
    noMore(arguments);
    const HostCounts counted = bus.with(reader, [](Reader& r) { return r.counts; });
    std::string text;
    const auto add = [&](const char* name, std::uint64_t count) {
        text += (text.empty() ? "" : " ") + std::string(name) + "=" + std::to_string(count);
    };
    add("opens", counted.opens);
    add("closes", counted.closes);
    add("claims", counted.claims);
    add("releases", counted.releases);
    add("clear-halts", counted.clearHalts);
    add("resets", counted.resets);
    add("set-configurations", counted.setConfigurations);
    add("driver-detaches", counted.driverDetaches);
    add("transfers", counted.transfers);
    add("cancels", counted.cancels);
    return ok(text);
}

CommandAnswer wait(VirtualBus&, Text arguments) {
    CommandAnswer answer = ok();
    answer.pause = Milliseconds(number("time to wait", takeWord(arguments), 0, longestWait));
    noMore(arguments);
    return answer;
}

} // namespace emulator::actions
