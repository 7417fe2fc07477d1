// Plays a recording on a bus: gives its readers what they do, and plugs and unplugs them.
//
// For the launcher's thread only.
#pragma once

#include "control/bus.h"
#include "replay/played_reader.h"
#include "replay/recorded.h"
#include "replay/timeline.h"
#include "usbfs/file_descriptor.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace emulator::replay {

enum class Plugging { recorded, byCommands };

struct Settings {
    std::shared_ptr<const Recording> recording;
    Mode mode = Mode::matching;
    double speed = 1;
    Plugging plugging = Plugging::recorded;
};

class Replay {
public:
    using Report = PlayedReader::Report; // in any thread

    // Its readers are the first of the bus and not plugged in yet.
    Replay(const Settings& settings, Bus& bus, Report report);

    void start(Time now) { m_timeline->start(now); }

    // Readable when serve() has something to do.
    int descriptor() const { return m_bell->get(); }
    void serve(Time now);
    std::optional<Time> nextDeadline() const { return m_timeline->nextDeadline(); }

    // A command may have plugged or unplugged readers.
    void notePlugging();

    // Report what the program did not do, and return whether it did something else than the recorded one.
    bool finish();

private:
    Bus& m_bus;
    Report m_report;
    std::shared_ptr<FileDescriptor> m_bell;
    std::shared_ptr<Timeline> m_timeline;
    std::vector<std::shared_ptr<PlayedReader>> m_readers;
    std::vector<bool> m_plugged; // as far as it is noted
};

} // namespace emulator::replay
