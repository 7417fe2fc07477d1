// One function for each command. `arguments` is the rest of the command's line. Each throws TextError for a
// mistake.
//
// For the launcher's thread only.
#pragma once

#include "control/commands.h"

namespace emulator::actions {

CommandAnswer plug(Bus& bus, std::string_view arguments);
CommandAnswer unplug(Bus& bus, std::string_view arguments);
CommandAnswer replug(Bus& bus, std::string_view arguments);
CommandAnswer setString(Bus& bus, std::string_view arguments);
CommandAnswer removeString(Bus& bus, std::string_view arguments);
CommandAnswer failString(Bus& bus, std::string_view arguments);
CommandAnswer setDescriptors(Bus& bus, std::string_view arguments);
CommandAnswer stall(Bus& bus, std::string_view arguments);
CommandAnswer unstall(Bus& bus, std::string_view arguments);
CommandAnswer mute(Bus& bus, std::string_view arguments);
CommandAnswer unmute(Bus& bus, std::string_view arguments);
CommandAnswer delay(Bus& bus, std::string_view arguments);
CommandAnswer shorten(Bus& bus, std::string_view arguments);
CommandAnswer reply(Bus& bus, std::string_view arguments);
CommandAnswer flush(Bus& bus, std::string_view arguments);
CommandAnswer busy(Bus& bus, std::string_view arguments);
CommandAnswer driver(Bus& bus, std::string_view arguments);
CommandAnswer refuse(Bus& bus, std::string_view arguments);
CommandAnswer failConfiguration(Bus& bus, std::string_view arguments);
CommandAnswer failReset(Bus& bus, std::string_view arguments);
CommandAnswer list(Bus& bus, std::string_view arguments);
CommandAnswer frames(Bus& bus, std::string_view arguments);
CommandAnswer counts(Bus& bus, std::string_view arguments);
CommandAnswer wait(Bus& bus, std::string_view arguments);

} // namespace emulator::actions
