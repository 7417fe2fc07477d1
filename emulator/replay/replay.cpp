#include "replay/replay.h"

#include <utility>

#include <sys/eventfd.h>

namespace emulator::replay {

namespace {

std::string nameOf(std::size_t number, const ReaderDescription& description) {
    const auto id = description.strings.find(deviceIdString);
    return "reader " + std::to_string(number) +
           (id == description.strings.end() ? "" : " (" + id->second + ")");
}

} // namespace

Replay::Replay(const Settings& settings, Bus& bus, Report report)
    : m_bus(bus)
    , m_report(std::move(report))
    , m_bell(std::make_shared<FileDescriptor>(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
    const Recording& recording = *settings.recording;
    m_timeline = std::make_shared<Timeline>(
        settings.plugging == Plugging::recorded ? recording.happenings : std::vector<Happening>{},
        settings.mode, Pace(settings.speed), [bell = m_bell] { ::eventfd_write(bell->get(), 1); });
    for (std::size_t i = 0; i < recording.readers.size(); ++i) {
        const std::shared_ptr<const RecordedReader> recorded(settings.recording, &recording.readers[i]);
        m_readers.push_back(std::make_shared<PlayedReader>(nameOf(i + 1, recorded->description), recorded,
                                                           settings.mode, Pace(settings.speed), m_timeline,
                                                           m_report));
        m_bus.with(i + 1, [&](ReaderModel& model) { model.setPlayback(m_readers[i]); });
        m_plugged.push_back(recorded->description.plugged);
    }
}

void Replay::serve(Time now) {
    eventfd_t ignored = 0;
    ::eventfd_read(m_bell->get(), &ignored);
    bool changed = false;
    while (const std::optional<Happening> due = m_timeline->due(now)) {
        const std::size_t number = due->reader + 1;
        try {
            if (due->comes && !m_bus.plugged(number)) {
                m_bus.plug(number);
            } else if (!due->comes && m_bus.plugged(number)) {
                m_bus.unplug(number);
            }
        } catch (const TextError& error) {
            m_report(error.what());
        }
        m_plugged[due->reader] = due->comes;
        m_timeline->done();
        changed = true;
    }
    if (!changed) {
        return;
    }
    // Requests may have waited for this.
    for (std::size_t number = 1; number <= m_readers.size(); ++number) {
        if (m_bus.plugged(number)) {
            m_bus.with(number, [&](ReaderModel& model) { model.advance(now); });
        }
    }
}

void Replay::notePlugging() {
    for (std::size_t i = 0; i < m_readers.size(); ++i) {
        const bool plugged = m_bus.plugged(i + 1);
        if (plugged != m_plugged[i]) {
            m_plugged[i] = plugged;
            m_timeline->noteState(i, plugged);
        }
    }
}

bool Replay::finish() {
    bool differed = false;
    for (std::size_t i = 0; i < m_readers.size(); ++i) {
        m_bus.with(i + 1, [&](ReaderModel&) {
            differed |= m_readers[i]->reportMissed();
            differed |= m_readers[i]->differed();
        });
    }
    return differed;
}

} // namespace emulator::replay
