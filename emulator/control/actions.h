// One function for each command. Each checks `arguments`, the rest of the command's line, and returns what is to be
// done. Each throws TextError for a mistake.
//
// For the launcher's thread only.
#pragma once

#include "control/commands.h"

namespace emulator::actions {

CheckedCommand plug(const Roster& roster, std::string_view arguments);
CheckedCommand unplug(const Roster& roster, std::string_view arguments);
CheckedCommand replug(const Roster& roster, std::string_view arguments);
CheckedCommand setString(const Roster& roster, std::string_view arguments);
CheckedCommand removeString(const Roster& roster, std::string_view arguments);
CheckedCommand failString(const Roster& roster, std::string_view arguments);
CheckedCommand setDescriptors(const Roster& roster, std::string_view arguments);
CheckedCommand stall(const Roster& roster, std::string_view arguments);
CheckedCommand unstall(const Roster& roster, std::string_view arguments);
CheckedCommand mute(const Roster& roster, std::string_view arguments);
CheckedCommand unmute(const Roster& roster, std::string_view arguments);
CheckedCommand delay(const Roster& roster, std::string_view arguments);
CheckedCommand shorten(const Roster& roster, std::string_view arguments);
CheckedCommand fail(const Roster& roster, std::string_view arguments);
CheckedCommand chance(const Roster& roster, std::string_view arguments);
CheckedCommand reply(const Roster& roster, std::string_view arguments);
CheckedCommand onFrame(const Roster& roster, std::string_view arguments);
CheckedCommand jitter(const Roster& roster, std::string_view arguments);
CheckedCommand push(const Roster& roster, std::string_view arguments);
CheckedCommand flush(const Roster& roster, std::string_view arguments);
CheckedCommand busy(const Roster& roster, std::string_view arguments);
CheckedCommand driver(const Roster& roster, std::string_view arguments);
CheckedCommand refuse(const Roster& roster, std::string_view arguments);
CheckedCommand failConfiguration(const Roster& roster, std::string_view arguments);
CheckedCommand failReset(const Roster& roster, std::string_view arguments);
CheckedCommand list(const Roster& roster, std::string_view arguments);
CheckedCommand frames(const Roster& roster, std::string_view arguments);
CheckedCommand counts(const Roster& roster, std::string_view arguments);
CheckedCommand wait(const Roster& roster, std::string_view arguments);

} // namespace emulator::actions
