#include "control/actions.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

#include <nlohmann/json.hpp>

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

void expectEnd(Text arguments) {
    if (!arguments.empty()) {
        throw TextError("unexpected argument '" + std::string(arguments) + "'");
    }
}

std::size_t oneReader(const Bus& bus, Text& arguments) {
    return static_cast<std::size_t>(
        number("reader", takeWord(arguments), 1, std::max<std::size_t>(bus.size(), 1)));
}

std::vector<std::size_t> readersNamed(const Bus& bus, Text& arguments) {
    Text ahead = arguments;
    if (takeWord(ahead) != "all") {
        return {oneReader(bus, arguments)};
    }
    arguments = ahead;
    std::vector<std::size_t> all(bus.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] = i + 1;
    }
    return all;
}

bool takeSwitch(Text& arguments) {
    const Text word = takeWord(arguments);
    if (word != "on" && word != "off") {
        throw TextError("expected on or off, not '" + std::string(word) + "'");
    }
    expectEnd(arguments);
    return word == "on";
}

std::uint8_t takeStringIndex(Text& arguments) {
    return static_cast<std::uint8_t>(number("string index", takeWord(arguments), 0, 255));
}

// Changes the faults of the pipes named by the arguments READER PIPE.
template <typename Change>
CommandAnswer onPipes(Bus& bus, Text arguments, Change change) {
    const std::vector<std::size_t> readers = readersNamed(bus, arguments);
    const Text pipe = takeWord(arguments);
    for (const std::size_t reader : readers) {
        bus.with(reader, [&](ReaderModel& r) {
            for (const Pipe each : r.pipesNamed(pipe)) {
                PipeFaults faults = r.pipeFaults(each);
                change(faults, arguments);
                r.setPipeFaults(each, faults, now());
            }
        });
    }
    return ok();
}

template <typename Change>
CommandAnswer onReaders(Bus& bus, Text arguments, Change change) {
    for (const std::size_t reader : readersNamed(bus, arguments)) {
        bus.with(reader, [&](ReaderModel& r) { change(r, arguments); });
    }
    return ok();
}

// Changes faults of the host.
template <typename Change>
CommandAnswer ofHost(const Bus& bus, Text arguments, Change change) {
    for (const std::size_t reader : readersNamed(bus, arguments)) {
        change(reader, arguments);
    }
    return ok();
}

CommandAnswer listAsJson(Bus& bus) {
    using Json = nlohmann::ordered_json;
    Json readers = Json::array();
    for (std::size_t reader = 1; reader <= bus.size(); ++reader) {
        const Json place = bus.plugged(reader) ? Json(bus.place(reader)) : Json();
        bus.with(reader, [&](const ReaderModel& r) {
            const ReaderDescription& description = r.description();
            const auto id = description.strings.find(deviceIdString);
            readers.push_back({{"number", reader},
                               {"vendor", numbered("%04x", description.vendor)},
                               {"product", numbered("%04x", description.product)},
                               {"place", place},
                               {"id", id == description.strings.end() ? Json() : Json(id->second)}});
        });
    }
    return ok(readers.dump(-1, ' ', false, Json::error_handler_t::replace));
}

} // namespace

CommandAnswer plug(Bus& bus, Text arguments) {
    if (arguments.find('=') == Text::npos) {
        Text ahead = arguments;
        const bool all = takeWord(ahead) == "all";
        for (const std::size_t reader : readersNamed(bus, arguments)) {
            if (!all || !bus.plugged(reader)) {
                bus.plug(reader);
            }
        }
        expectEnd(arguments);
        return ok();
    }
    std::string numbers;
    for (ReaderDescription& description : parseReaders(arguments)) {
        const bool plugged = description.plugged;
        const std::size_t reader = bus.add(std::move(description));
        if (plugged) {
            bus.plug(reader);
        }
        numbers += (numbers.empty() ? "" : " ") + std::to_string(reader);
    }
    return ok(numbers);
}

CommandAnswer unplug(Bus& bus, Text arguments) {
    Text ahead = arguments;
    const bool all = takeWord(ahead) == "all";
    for (const std::size_t reader : readersNamed(bus, arguments)) {
        if (!all || bus.plugged(reader)) {
            bus.unplug(reader);
        }
    }
    expectEnd(arguments);
    return ok();
}

CommandAnswer replug(Bus& bus, Text arguments) {
    for (const std::size_t reader : readersNamed(bus, arguments)) {
        bus.unplug(reader);
        bus.plug(reader);
    }
    expectEnd(arguments);
    return ok();
}

CommandAnswer setString(Bus& bus, Text arguments) {
    return onReaders(bus, arguments, [](ReaderModel& r, Text rest) {
        const std::uint8_t index = takeStringIndex(rest);
        r.setString(index, std::string(rest));
    });
}

CommandAnswer removeString(Bus& bus, Text arguments) {
    return onReaders(bus, arguments, [](ReaderModel& r, Text rest) {
        const std::uint8_t index = takeStringIndex(rest);
        expectEnd(rest);
        r.setString(index, std::nullopt);
    });
}

CommandAnswer failString(Bus& bus, Text arguments) {
    return onReaders(bus, arguments, [](ReaderModel& r, Text rest) {
        const std::uint8_t index = takeStringIndex(rest);
        if (takeSwitch(rest)) {
            r.requestFaults().unreadableStrings.insert(index);
        } else {
            r.requestFaults().unreadableStrings.erase(index);
        }
    });
}

CommandAnswer setDescriptors(Bus& bus, Text arguments) {
    return onReaders(bus, arguments,
                     [](ReaderModel& r, Text rest) { r.setDescriptors(hexBytes("descriptors", rest)); });
}

CommandAnswer stall(Bus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        const Text word = takeWord(rest);
        if (!word.empty() && word != "stuck") {
            throw TextError("unexpected argument '" + std::string(word) + "'");
        }
        expectEnd(rest);
        faults.stalled = true;
        faults.stuck = !word.empty();
    });
}

CommandAnswer unstall(Bus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        expectEnd(rest);
        faults.stalled = faults.stuck = false;
    });
}

CommandAnswer mute(Bus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        expectEnd(rest);
        faults.mute = true;
    });
}

CommandAnswer unmute(Bus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        expectEnd(rest);
        faults.mute = false;
    });
}

CommandAnswer delay(Bus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        faults.delay = Milliseconds(number("delay", takeWord(rest), 0, longestWait));
        expectEnd(rest);
    });
}

CommandAnswer shorten(Bus& bus, Text arguments) {
    return onPipes(bus, arguments, [](PipeFaults& faults, Text rest) {
        const Text word = takeWord(rest);
        expectEnd(rest);
        faults.shortTo.reset();
        if (word != "off") {
            faults.shortTo = static_cast<std::size_t>(number("count", word, 0, largestCount));
        }
    });
}

CommandAnswer reply(Bus& bus, Text arguments) {
    return onReaders(bus, arguments, [](ReaderModel& r, Text rest) { r.setReply(ReplyRule::parse(rest)); });
}

CommandAnswer flush(Bus& bus, Text arguments) {
    return onReaders(bus, arguments, [](ReaderModel& r, Text rest) {
        expectEnd(rest);
        r.forgetAnswers();
    });
}

CommandAnswer busy(Bus& bus, Text arguments) {
    return ofHost(bus, arguments,
                  [&](std::size_t reader, Text rest) { bus.setBusy(reader, takeSwitch(rest)); });
}

CommandAnswer driver(Bus& bus, Text arguments) {
    return ofHost(bus, arguments, [&](std::size_t reader, Text rest) {
        const Text name = takeWord(rest);
        expectEnd(rest);
        bus.bindDriver(reader, name == "none" ? std::string{} : std::string(name));
    });
}

CommandAnswer refuse(Bus& bus, Text arguments) {
    constexpr std::array<std::pair<Text, int>, 6> errors = {{{"EACCES", EACCES},
                                                             {"EPERM", EPERM},
                                                             {"ENODEV", ENODEV},
                                                             {"ENOENT", ENOENT},
                                                             {"EMFILE", EMFILE},
                                                             {"off", 0}}};
    const std::vector<std::size_t> readers = readersNamed(bus, arguments);
    const Text word = takeWord(arguments);
    expectEnd(arguments);
    const auto found = std::ranges::find(errors, word, &std::pair<Text, int>::first);
    if (found == errors.end()) {
        throw TextError("expected EACCES, EPERM, ENODEV, ENOENT, EMFILE or off, not '" + std::string(word) +
                        "'");
    }
    for (const std::size_t reader : readers) {
        bus.refuseOpening(reader, found->second);
    }
    return ok();
}

CommandAnswer failConfiguration(Bus& bus, Text arguments) {
    return onReaders(bus, arguments, [](ReaderModel& r, Text rest) {
        r.requestFaults().refusesConfiguration = takeSwitch(rest);
    });
}

CommandAnswer failReset(Bus& bus, Text arguments) {
    return ofHost(bus, arguments,
                  [&](std::size_t reader, Text rest) { bus.failReset(reader, takeSwitch(rest)); });
}

CommandAnswer list(Bus& bus, Text arguments) {
    if (arguments == "--json") {
        return listAsJson(bus);
    }
    expectEnd(arguments);
    std::string text;
    for (std::size_t reader = 1; reader <= bus.size(); ++reader) {
        const std::string place = bus.plugged(reader) ? bus.place(reader) : "unplugged";
        bus.with(reader, [&](const ReaderModel& r) {
            const ReaderDescription& description = r.description();
            std::array<char, 64> line{};
            std::snprintf(line.data(), line.size(), "%zu %04x:%04x ", reader, description.vendor,
                          description.product);
            const auto id = description.strings.find(deviceIdString);
            text += (text.empty() ? "" : "; ") + std::string(line.data()) + place + " " +
                    (id == description.strings.end() ? "-" : id->second);
        });
    }
    return ok(text);
}

CommandAnswer frames(Bus& bus, Text arguments) {
    const std::size_t reader = oneReader(bus, arguments);
    expectEnd(arguments);
    return ok(bus.with(reader, [](ReaderModel& r) {
        std::string text = std::to_string(r.frameCount());
        if (r.frameCount() != 0) {
            const auto& frame = r.lastFrame();
            const std::array<std::uint8_t, 1> endpoint = {frame.endpoint};
            text += " 0x" + hexText(endpoint) + " " + hexText(frame.data);
        }
        return text;
    }));
}

CommandAnswer counts(Bus& bus, Text arguments) {
    const std::size_t reader = oneReader(bus, arguments);
    expectEnd(arguments);
    std::string text;
    for (const auto& [name, count] : bus.counts(reader)) {
        text += (text.empty() ? "" : " ") + name + "=" + std::to_string(count);
    }
    return ok(text);
}

CommandAnswer wait(Bus&, Text arguments) {
    CommandAnswer answer = ok();
    answer.pause = Milliseconds(number("time to wait", takeWord(arguments), 0, longestWait));
    expectEnd(arguments);
    return answer;
}

} // namespace emulator::actions
