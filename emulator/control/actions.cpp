#include "control/actions.h"

#include "control/arguments.h"

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

template <typename Change>
CheckedCommand onReaders(std::vector<std::size_t> readers, Change change) {
    return {.run = [readers = std::move(readers), change](Bus& bus) {
        for (const std::size_t reader : readers) {
            bus.with(reader, change);
        }
        return ok();
    }};
}

template <typename Change>
CheckedCommand onPipes(std::vector<ReaderPipes> pipes, Change change) {
    return {.run = [pipes = std::move(pipes), change](Bus& bus) {
        for (const ReaderPipes& each : pipes) {
            bus.with(each.reader, [&](ReaderModel& r) {
                for (const Pipe pipe : each.pipes) {
                    change(r, pipe);
                }
            });
        }
        return ok();
    }};
}

template <typename Change>
CheckedCommand onPipeFaults(std::vector<ReaderPipes> pipes, Change change) {
    return onPipes(std::move(pipes), [change](ReaderModel& r, Pipe pipe) {
        PipeFaults faults = r.pipeFaults(pipe);
        change(faults);
        r.setPipeFaults(pipe, faults, now());
    });
}

// Changes faults of the host.
template <typename Change>
CheckedCommand ofHost(const Roster& roster, std::vector<std::size_t> readers, Change change) {
    roster.checkHostFaultsPossible();
    return {.run = [readers = std::move(readers), change](Bus& bus) {
        for (const std::size_t reader : readers) {
            change(bus, reader);
        }
        return ok();
    }};
}

// Must be done before the readers draw anything.
void giveSeed(Bus& bus, const std::vector<std::size_t>& readers) {
    const std::uint64_t seed = bus.seed().value();
    for (const std::size_t reader : readers) {
        bus.with(reader, [&](ReaderModel& r) { r.setSeed(Draws::derived(seed, reader)); });
    }
}

std::vector<std::size_t> readersOf(const std::vector<ReaderPipes>& pipes) {
    std::vector<std::size_t> readers;
    readers.reserve(pipes.size());
    for (const ReaderPipes& each : pipes) {
        readers.push_back(each.reader);
    }
    return readers;
}

CheckedCommand afterSeed(std::vector<std::size_t> readers, CheckedCommand command) {
    return {.run = [readers = std::move(readers), run = std::move(command.run)](Bus& bus) {
        giveSeed(bus, readers);
        return run(bus);
    }};
}

// Plugs all or none.
void plugTogether(Bus& bus, const std::vector<std::size_t>& readers) {
    bus.checkRoom(readers);
    std::size_t done = 0;
    try {
        for (; done < readers.size(); ++done) {
            bus.plug(readers[done]);
        }
    } catch (...) {
        while (done-- > 0) {
            bus.unplug(readers[done]);
        }
        throw;
    }
}

CommandAnswer addAndPlug(Bus& bus, const std::vector<ReaderDescription>& descriptions) {
    std::string numbers;
    std::vector<std::size_t> plugged;
    std::size_t added = 0;
    try {
        for (; added < descriptions.size(); ++added) {
            const std::size_t reader = bus.add(descriptions[added]);
            if (descriptions[added].plugged) {
                plugged.push_back(reader);
            }
            numbers += (numbers.empty() ? "" : " ") + std::to_string(reader);
        }
        plugTogether(bus, plugged);
    } catch (...) {
        while (added-- > 0) {
            bus.removeLast();
        }
        throw;
    }
    return ok(numbers);
}

bool takeAll(Text arguments) {
    return takeWord(arguments) == "all";
}

} // namespace

CheckedCommand plug(const Roster& roster, Text arguments) {
    if (arguments.find('=') != Text::npos) {
        std::vector<ReaderDescription> added = parseReaders(arguments);
        for (const ReaderDescription& description : added) {
            roster.checkPossible(description);
        }
        return {.run = [added](Bus& bus) { return addAndPlug(bus, added); }, .added = added};
    }
    const bool all = takeAll(arguments);
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    expectEnd(arguments);
    return {.run = [all, readers](Bus& bus) {
        std::vector<std::size_t> wanted = readers;
        std::erase_if(wanted, [&](std::size_t reader) { return all && bus.plugged(reader); });
        plugTogether(bus, wanted);
        return ok();
    }};
}

CheckedCommand unplug(const Roster& roster, Text arguments) {
    const bool all = takeAll(arguments);
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    expectEnd(arguments);
    return {.run = [all, readers](Bus& bus) {
        for (const std::size_t reader : readers) {
            if (!all || bus.plugged(reader)) {
                bus.unplug(reader);
            }
        }
        return ok();
    }};
}

CheckedCommand replug(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    expectEnd(arguments);
    return {.run = [readers](Bus& bus) {
        for (const std::size_t reader : readers) {
            if (!bus.plugged(reader)) {
                throw TextError("reader " + std::to_string(reader) + " is not plugged");
            }
        }
        for (const std::size_t reader : readers) {
            bus.unplug(reader);
            bus.plug(reader);
        }
        return ok();
    }};
}

CheckedCommand setString(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    const std::uint8_t index = takeStringIndex(arguments);
    return onReaders(readers,
                     [index, text = std::string(arguments)](ReaderModel& r) { r.setString(index, text); });
}

CheckedCommand removeString(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    const std::uint8_t index = takeStringIndex(arguments);
    expectEnd(arguments);
    return onReaders(readers, [index](ReaderModel& r) { r.setString(index, std::nullopt); });
}

CheckedCommand failString(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    const std::uint8_t index = takeStringIndex(arguments);
    const bool fails = takeSwitch(arguments);
    return onReaders(readers, [index, fails](ReaderModel& r) {
        if (fails) {
            r.requestFaults().unreadableStrings.insert(index);
        } else {
            r.requestFaults().unreadableStrings.erase(index);
        }
    });
}

CheckedCommand setDescriptors(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    return onReaders(
        readers, [bytes = hexBytes("descriptors", arguments)](ReaderModel& r) { r.setDescriptors(bytes); });
}

CheckedCommand stall(const Roster& roster, Text arguments) {
    const std::vector<ReaderPipes> pipes = takePipes(roster, arguments);
    const bool stuck = arguments == "stuck";
    if (!stuck) {
        expectEnd(arguments);
    }
    return onPipeFaults(pipes, [stuck](PipeFaults& faults) {
        faults.stalled = true;
        faults.stuck = stuck;
    });
}

CheckedCommand unstall(const Roster& roster, Text arguments) {
    const std::vector<ReaderPipes> pipes = takePipes(roster, arguments);
    expectEnd(arguments);
    return onPipeFaults(pipes, [](PipeFaults& faults) { faults.stalled = faults.stuck = false; });
}

CheckedCommand mute(const Roster& roster, Text arguments) {
    const std::vector<ReaderPipes> pipes = takePipes(roster, arguments);
    expectEnd(arguments);
    return onPipeFaults(pipes, [](PipeFaults& faults) { faults.mute = true; });
}

CheckedCommand unmute(const Roster& roster, Text arguments) {
    const std::vector<ReaderPipes> pipes = takePipes(roster, arguments);
    expectEnd(arguments);
    return onPipeFaults(pipes, [](PipeFaults& faults) { faults.mute = false; });
}

CheckedCommand delay(const Roster& roster, Text arguments) {
    const std::vector<ReaderPipes> pipes = takePipes(roster, arguments);
    const Milliseconds time(number("delay", takeWord(arguments), 0, longestWait));
    expectEnd(arguments);
    return onPipeFaults(pipes, [time](PipeFaults& faults) { faults.delay = time; });
}

CheckedCommand shorten(const Roster& roster, Text arguments) {
    const std::vector<ReaderPipes> pipes = takePipes(roster, arguments);
    const Text word = takeWord(arguments);
    expectEnd(arguments);
    std::optional<std::size_t> count;
    if (word != "off") {
        count = static_cast<std::size_t>(number("count", word, 0, largestCount));
    }
    return onPipeFaults(pipes, [count](PipeFaults& faults) { faults.shortTo = count; });
}

CheckedCommand fail(const Roster& roster, Text arguments) {
    const std::vector<ReaderPipes> pipes = takePipes(roster, arguments);
    const Text which = takeWord(arguments);
    const Text kind = takeWord(arguments);
    expectEnd(arguments);
    if (which == "off") {
        expectEnd(kind);
        return onPipes(pipes, [](ReaderModel& r, Pipe pipe) { r.transferFaults(pipe).failNone(); });
    }
    const std::uint64_t n = number("which transfer", which, 1, largestCount);
    const TransferFault fault = kind.empty() ? TransferFault{} : TransferFault::parse(kind);
    CheckedCommand command =
        onPipes(pipes, [n, fault](ReaderModel& r, Pipe pipe) { r.transferFaults(pipe).failNth(n, fault); });
    return fault.needsDraw() ? afterSeed(readersOf(pipes), std::move(command)) : command;
}

CheckedCommand chance(const Roster& roster, Text arguments) {
    const std::vector<ReaderPipes> pipes = takePipes(roster, arguments);
    const Text percentage = takeWord(arguments);
    if (percentage == "off") {
        expectEnd(arguments);
        return onPipes(pipes, [](ReaderModel& r, Pipe pipe) { r.transferFaults(pipe).clearChances(); });
    }
    const Chance wanted = parseChance(percentage);
    const TransferFault fault = TransferFault::parse(takeWord(arguments));
    expectEnd(arguments);
    return afterSeed(readersOf(pipes), onPipes(pipes, [wanted, fault](ReaderModel& r, Pipe pipe) {
                         r.transferFaults(pipe).setChance(wanted, fault);
                     }));
}

CheckedCommand reply(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    return onReaders(readers, [rule = ReplyRule::parse(arguments)](ReaderModel& r) { r.setReply(rule); });
}

CheckedCommand onFrame(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    const Bytes beginning = takeHexWords("beginning of a frame", arguments);
    if (arguments == "off") {
        return onReaders(readers, [beginning](ReaderModel& r) {
            if (beginning.empty()) {
                r.frameRules().clear();
            } else {
                r.frameRules().remove(beginning);
            }
        });
    }
    if (beginning.empty()) {
        throw TextError("expected the beginning of a frame in hexadecimal, or off, not '" +
                        std::string(arguments) + "'");
    }
    return onReaders(readers, [beginning, rule = FrameRule::parse(arguments)](ReaderModel& r) {
        r.frameRules().set(beginning, rule);
    });
}

CheckedCommand jitter(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    const Text word = takeWord(arguments);
    expectEnd(arguments);
    if (word == "off") {
        return onReaders(readers, [](ReaderModel& r) { r.setJitter(std::nullopt); });
    }
    const TimeRange range = TimeRange::parse("jitter", word);
    return afterSeed(readers, onReaders(readers, [range](ReaderModel& r) { r.setJitter(range); }));
}

CheckedCommand push(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    return onReaders(readers,
                     [frame = hexBytes("frame", arguments)](ReaderModel& r) { r.push(frame, now()); });
}

CheckedCommand flush(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    expectEnd(arguments);
    return onReaders(readers, [](ReaderModel& r) { r.forgetAnswers(); });
}

CheckedCommand busy(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    const bool isBusy = takeSwitch(arguments);
    return ofHost(roster, readers, [isBusy](Bus& bus, std::size_t reader) { bus.setBusy(reader, isBusy); });
}

CheckedCommand driver(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    std::string name(takeWord(arguments));
    expectEnd(arguments);
    if (name == "none") {
        name.clear();
    }
    return ofHost(roster, readers, [name](Bus& bus, std::size_t reader) { bus.bindDriver(reader, name); });
}

CheckedCommand refuse(const Roster& roster, Text arguments) {
    constexpr std::array<std::pair<Text, int>, 6> errors = {{{"EACCES", EACCES},
                                                             {"EPERM", EPERM},
                                                             {"ENODEV", ENODEV},
                                                             {"ENOENT", ENOENT},
                                                             {"EMFILE", EMFILE},
                                                             {"off", 0}}};
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    const Text word = takeWord(arguments);
    expectEnd(arguments);
    const auto found = std::ranges::find(errors, word, &std::pair<Text, int>::first);
    if (found == errors.end()) {
        throw TextError("expected EACCES, EPERM, ENODEV, ENOENT, EMFILE or off, not '" + std::string(word) +
                        "'");
    }
    return ofHost(roster, readers, [error = found->second](Bus& bus, std::size_t reader) {
        bus.refuseOpening(reader, error);
    });
}

CheckedCommand failConfiguration(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    const bool fails = takeSwitch(arguments);
    return onReaders(readers, [fails](ReaderModel& r) { r.requestFaults().refusesConfiguration = fails; });
}

CheckedCommand failReset(const Roster& roster, Text arguments) {
    const std::vector<std::size_t> readers = takeReaders(roster, arguments);
    const bool fails = takeSwitch(arguments);
    return ofHost(roster, readers, [fails](Bus& bus, std::size_t reader) { bus.failReset(reader, fails); });
}

namespace {

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

CommandAnswer listReaders(Bus& bus) {
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

CommandAnswer countFrames(Bus& bus, std::size_t reader) {
    return ok(bus.with(reader, [](const ReaderModel& r) {
        std::string text = std::to_string(r.frameCount());
        if (r.frameCount() != 0) {
            const auto& frame = r.lastFrame();
            if (frame.forgotten) {
                throw TextError("the last frame is not kept any more: USB/IP clients needed its memory");
            }
            const std::array<std::uint8_t, 1> endpoint = {frame.endpoint};
            text += " 0x" + hexText(endpoint) + " " + hexText(frame.data);
        }
        return text;
    }));
}

} // namespace

CheckedCommand list(const Roster&, Text arguments) {
    if (arguments == "--json") {
        return {.run = listAsJson};
    }
    expectEnd(arguments);
    return {.run = listReaders};
}

CheckedCommand frames(const Roster& roster, Text arguments) {
    const std::size_t reader = takeReader(roster, arguments);
    expectEnd(arguments);
    return {.run = [reader](Bus& bus) { return countFrames(bus, reader); }};
}

CheckedCommand counts(const Roster& roster, Text arguments) {
    const std::size_t reader = takeReader(roster, arguments);
    expectEnd(arguments);
    return {.run = [reader](Bus& bus) {
        std::string text;
        for (const auto& [name, count] : bus.counts(reader)) {
            text += (text.empty() ? "" : " ") + name + "=" + std::to_string(count);
        }
        return ok(text);
    }};
}

CheckedCommand wait(const Roster&, Text arguments) {
    const Milliseconds time(number("time to wait", takeWord(arguments), 0, longestWait));
    expectEnd(arguments);
    return {.run = [time](Bus&) {
        CommandAnswer answer = ok();
        answer.pause = time;
        return answer;
    }};
}

} // namespace emulator::actions
