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
    unsigned needed; // arguments that must be there
    CommandAnswer (*run)(Bus& bus, Text arguments);
};

constexpr std::array commands = {
    Command{"plug", "READER|DESCRIPTION", "plug a reader, or a new one; a new one's number is the answer", 1,
            actions::plug},
    Command{"unplug", "READER", "unplug a reader; what flies ends with \"no device\"", 1, actions::unplug},
    Command{"replug", "READER", "unplug it and plug it again at once", 1, actions::replug},
    Command{"string", "READER INDEX TEXT", "set a string descriptor", 2, actions::setString},
    Command{"remove-string", "READER INDEX", "the reader has no such string descriptor any more", 2,
            actions::removeString},
    Command{"fail-string", "READER INDEX on|off", "reading the string descriptor stalls", 3,
            actions::failString},
    Command{"descriptors", "READER HEX",
            "set the device and configuration descriptors that programs read from the next plug on", 2,
            actions::setDescriptors},
    Command{"stall", "READER PIPE [stuck]",
            "transfers stall, on a bulk pipe until the halt is cleared; not even then "
            "when stuck",
            2, actions::stall},
    Command{"unstall", "READER PIPE", "take that back", 2, actions::unstall},
    Command{"mute", "READER PIPE", "transfers are not answered and run into their time-out", 2,
            actions::mute},
    Command{"unmute", "READER PIPE", "take that back", 2, actions::unmute},
    Command{"delay", "READER PIPE MS", "transfers take that long", 3, actions::delay},
    Command{"short", "READER PIPE COUNT|off", "transfers move at most COUNT bytes", 3, actions::shorten},
    Command{"reply", "READER RULE", "answer frames by echo, reverse, none, fixed:HEX or pattern:COUNT", 2,
            actions::reply},
    Command{"flush", "READER", "forget answers that nobody has fetched", 1, actions::flush},
    Command{"busy", "READER on|off", "claiming an interface finds it busy", 2, actions::busy},
    Command{"driver", "READER NAME|none", "bind a kernel driver to the first interface", 2, actions::driver},
    Command{"refuse", "READER EACCES|EPERM|ENODEV|ENOENT|EMFILE|off", "opening the reader fails", 2,
            actions::refuse},
    Command{"fail-configuration", "READER on|off", "the reader refuses to be configured", 2,
            actions::failConfiguration},
    Command{"fail-reset", "READER on|off", "resetting the reader fails", 2, actions::failReset},
    Command{"list", "", "number, vendor:product, bus/address or \"unplugged\" and device ID of each reader",
            0, actions::list},
    Command{"frames", "READER", "how many frames it has got, and the last one with its endpoint", 1,
            actions::frames},
    Command{"counts", "READER", "how often it was opened, claimed, reset ...", 1, actions::counts},
    Command{"wait", "MS", "answer after that time", 1, actions::wait},
};

const Command& commandNamed(Text name) {
    const auto found = std::ranges::find(commands, name, &Command::name);
    if (found == commands.end()) {
        throw TextError(name.empty() ? "no command" : "'" + std::string(name) + "' is not a command");
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
        const Command& command = commandNamed(takeWord(line));
        checkArguments(command, line);
        return command.run(bus, line);
    } catch (const std::exception& error) {
        return {.text = std::string("error: ") + error.what()};
    }
}

void checkCommand(std::string_view line) {
    const Command& command = commandNamed(takeWord(line));
    checkArguments(command, line);
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
