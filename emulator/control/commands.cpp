#include "control/commands.h"

#include "control/actions.h"

#include <algorithm>
#include <array>
#include <exception>

namespace emulator {

namespace {

using Text = std::string_view;

struct Command {
    Text name;
    Text arguments;
    Text meaning;
    unsigned needed; // how many arguments are required
    CheckedCommand (*check)(const Roster& roster, Text arguments);
};

constexpr std::array commands = {
    Command{"plug", "READER|DESCRIPTION", "plug in a reader, or add a new one and answer its number", 1,
            actions::plug},
    Command{"unplug", "READER", "unplug a reader; pending transfers fail with \"no device\"", 1,
            actions::unplug},
    Command{"replug", "READER", "unplug a reader and plug it in again at once", 1, actions::replug},
    Command{"string", "READER INDEX TEXT", "set a string descriptor", 2, actions::setString},
    Command{"remove-string", "READER INDEX", "remove a string descriptor", 2, actions::removeString},
    Command{"fail-string", "READER INDEX on|off", "make reading a string descriptor stall", 3,
            actions::failString},
    Command{"descriptors", "READER HEX",
            "set the device and configuration descriptors that programs read from the next plug on", 2,
            actions::setDescriptors},
    Command{"stall", "READER PIPE [stuck]",
            "make transfers stall: on a bulk pipe until the halt is cleared, if stuck even then", 2,
            actions::stall},
    Command{"unstall", "READER PIPE", "undo stall", 2, actions::unstall},
    Command{"mute", "READER PIPE", "leave transfers unanswered, so that they time out", 2, actions::mute},
    Command{"unmute", "READER PIPE", "undo mute", 2, actions::unmute},
    Command{"delay", "READER PIPE MS", "complete transfers after MS milliseconds", 3, actions::delay},
    Command{"short", "READER PIPE COUNT|off", "move at most COUNT bytes per transfer", 3, actions::shorten},
    Command{"fail", "READER PIPE N [FAULT]|off",
            "make the N-th transfer from now on fail (1: the next), with a stall or another FAULT", 3,
            actions::fail},
    Command{"chance", "READER PIPE PERCENT FAULT|off", "make each transfer fail with this probability", 3,
            actions::chance},
    Command{"reply", "READER RULE", "answer frames with echo, reverse, none, fixed:HEX or pattern:COUNT", 2,
            actions::reply},
    Command{"on", "READER [HEX] reply HEX|reply RULE|stall|mute|unplug|delay MS [reply ...]|off",
            "treat frames that begin with HEX in this way; off ends it, for all frames without HEX", 2,
            actions::onFrame},
    Command{"jitter", "READER MIN-MAX|off", "answer frames a random time later, MIN to MAX milliseconds", 2,
            actions::jitter},
    Command{"push", "READER HEX", "send a frame that is no answer", 2, actions::push},
    Command{"flush", "READER", "discard answers that have not been read, and a frame that has begun", 1,
            actions::flush},
    Command{"busy", "READER on|off", "make claiming an interface fail with \"busy\"", 2, actions::busy},
    Command{"driver", "READER NAME|none", "bind a kernel driver to the first interface", 2, actions::driver},
    Command{"refuse", "READER EACCES|EPERM|ENODEV|ENOENT|EMFILE|off",
            "make opening the reader fail with this error", 2, actions::refuse},
    Command{"fail-configuration", "READER on|off", "make setting a configuration fail", 2,
            actions::failConfiguration},
    Command{"fail-reset", "READER on|off", "make resetting the reader fail", 2, actions::failReset},
    Command{
        "list", "[--json]",
        "of each reader: number, vendor:product, bus/address or \"unplugged\", device ID; or an array of\n"
        "      objects with \"number\", \"vendor\", \"product\", \"place\" and \"id\", the last two null if "
        "missing",
        0, actions::list},
    Command{"frames", "READER", "number of frames received, endpoint and bytes of the last one", 1,
            actions::frames},
    Command{"counts", "READER", "how often the reader was opened, claimed, reset and so on", 1,
            actions::counts},
    Command{"wait", "MS", "answer after MS milliseconds", 1, actions::wait},
};

const Command& commandNamed(Text name) {
    const auto found = std::ranges::find(commands, name, &Command::name);
    if (found == commands.end()) {
        throw TextError(name.empty() ? "missing command" : "unknown command '" + std::string(name) + "'");
    }
    return *found;
}

void checkArguments(const Command& command, Text arguments) {
    for (unsigned i = 0; i < command.needed; ++i) {
        if (takeWord(arguments).empty()) {
            throw TextError("usage: " + std::string(command.name) + " " + std::string(command.arguments));
        }
    }
}

} // namespace

CommandAnswer runCommand(Bus& bus, std::string_view line) {
    try {
        return checkCommand(bus, line).run(bus);
    } catch (const std::exception& error) {
        return {.text = std::string("error: ") + error.what()};
    }
}

CheckedCommand checkCommand(const Roster& roster, std::string_view line) {
    const Command& command = commandNamed(takeWord(line));
    checkArguments(command, line);
    return command.check(roster, line);
}

void checkCommandName(std::string_view line) {
    const Command& command = commandNamed(takeWord(line));
    checkArguments(command, line);
}

std::vector<std::string_view> commandNames() {
    std::vector<std::string_view> names;
    names.reserve(std::size(commands));
    for (const Command& command : commands) {
        names.push_back(command.name);
    }
    return names;
}

std::string describeCommands() {
    std::string text;
    for (const Command& command : commands) {
        text += "  " + std::string(command.name) + (command.arguments.empty() ? "" : " ") +
                std::string(command.arguments) + "\n      " + std::string(command.meaning) + "\n";
    }
    return text;
}

} // namespace emulator
