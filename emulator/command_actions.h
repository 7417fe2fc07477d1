// What each text command does. `arguments` is the rest of the command's line; a mistake in it throws
// TextError.
//
// Run by the launcher's thread only.

#ifndef GVUSB_EMULATOR_COMMAND_ACTIONS_H
#define GVUSB_EMULATOR_COMMAND_ACTIONS_H

#include "commands.h"

namespace emulator::actions {

CommandAnswer plug(VirtualBus& bus, std::string_view arguments);
CommandAnswer unplug(VirtualBus& bus, std::string_view arguments);
CommandAnswer replug(VirtualBus& bus, std::string_view arguments);
CommandAnswer setString(VirtualBus& bus, std::string_view arguments);
CommandAnswer removeString(VirtualBus& bus, std::string_view arguments);
CommandAnswer failString(VirtualBus& bus, std::string_view arguments);
CommandAnswer stall(VirtualBus& bus, std::string_view arguments);
CommandAnswer unstall(VirtualBus& bus, std::string_view arguments);
CommandAnswer mute(VirtualBus& bus, std::string_view arguments);
CommandAnswer unmute(VirtualBus& bus, std::string_view arguments);
CommandAnswer delay(VirtualBus& bus, std::string_view arguments);
CommandAnswer shorten(VirtualBus& bus, std::string_view arguments);
CommandAnswer reply(VirtualBus& bus, std::string_view arguments);
CommandAnswer flush(VirtualBus& bus, std::string_view arguments);
CommandAnswer busy(VirtualBus& bus, std::string_view arguments);
CommandAnswer driver(VirtualBus& bus, std::string_view arguments);
CommandAnswer refuse(VirtualBus& bus, std::string_view arguments);
CommandAnswer failConfiguration(VirtualBus& bus, std::string_view arguments);
CommandAnswer failReset(VirtualBus& bus, std::string_view arguments);
CommandAnswer list(VirtualBus& bus, std::string_view arguments);
CommandAnswer frames(VirtualBus& bus, std::string_view arguments);
CommandAnswer counts(VirtualBus& bus, std::string_view arguments);
CommandAnswer wait(VirtualBus& bus, std::string_view arguments);

} // namespace emulator::actions

#endif
