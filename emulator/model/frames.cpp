// What a reader does with a frame that has arrived, and the answers that the host can read.

#include "model/model.h"

#include <algorithm>

namespace emulator {

// Stalled if the transfer that brought the frame is to stall.
Outcome ReaderModel::takeFrame(std::uint8_t endpoint, Bytes frame, Time now) {
    const bool byControl = endpoint == 0;
    static const FrameRule usual;
    const FrameRule* const found = m_frameRules.find(frame);
    const FrameRule& rule = found != nullptr ? *found : usual;
    std::optional<Bytes> answer = (rule.reply ? *rule.reply : m_description.reply).answer(frame);
    ++m_frameCount;
    m_lastFrame = {.endpoint = endpoint, .data = std::move(frame)};
    if (m_logic) {
        m_logic->take(endpoint, m_lastFrame.data);
    }

    switch (rule.action) {
    case FrameRule::Action::mute:
        break;
    case FrameRule::Action::unplug:
        m_leaving = true;
        break;
    case FrameRule::Action::stall:
        // A bulk reader has accepted the frame by the time that it knows it.
        for (const Endpoint& each : m_description.endpoints) {
            if (!byControl && each.in() && each.type == TransferType::bulk) {
                m_pipeFaults[pipeOf(each.address)].stalled = true;
                m_othersChanged = true;
            }
        }
        return byControl ? Outcome::stalled : Outcome::done;
    case FrameRule::Action::reply:
        // A mute reader does not answer later what it received while it was mute.
        if (answer && !answersAreLost(byControl)) {
            queueAnswer(byControl, std::move(*answer), now + rule.delay + drawJitter(byControl));
        }
        break;
    }
    return Outcome::done;
}

void ReaderModel::push(Bytes frame, Time now) {
    const auto sendsBulk = [](const Endpoint& each) { return each.in() && each.type == TransferType::bulk; };
    push(std::ranges::none_of(m_description.endpoints, sendsBulk), std::move(frame), now);
}

void ReaderModel::push(bool byControl, Bytes frame, Time now) {
    if (!answersAreLost(byControl)) {
        if (m_playback) {
            const auto sender = std::ranges::find_if(m_description.endpoints, [](const Endpoint& each) {
                return each.in() && each.type == TransferType::bulk;
            });
            const bool none = byControl || sender == m_description.endpoints.end();
            m_playback->push(none ? std::uint8_t{0} : sender->address, std::move(frame), now);
        } else {
            queueAnswer(byControl, std::move(frame), now);
        }
        advance(now);
    }
}

bool ReaderModel::answersAreLost(bool byControl) const {
    if (byControl) {
        return pipeFaults(Pipe::control).with(pipeFaults(Pipe::controlFrameIn)).mute;
    }
    return std::ranges::any_of(m_description.endpoints, [this](const Endpoint& each) {
        return each.in() && pipeFaults(pipeOf(each.address)).mute;
    });
}

void ReaderModel::queueAnswer(bool byControl, Bytes answer, Time due) {
    (byControl ? m_controlAnswers : m_bulkAnswers).push(std::move(answer), due);
    m_othersChanged |= !byControl;
}

Time::duration ReaderModel::drawJitter(bool byControl) {
    if (!m_jitter) {
        return {};
    }
    // Not a pipe's, whose transfers draw too.
    constexpr std::uint64_t bulkSequence = 0x1000;
    constexpr std::uint64_t controlSequence = 0x1001;
    std::optional<Draws>& draws = byControl ? m_controlJitter : m_bulkJitter;
    if (!draws) {
        draws.emplace(Draws::derived(m_seed, byControl ? controlSequence : bulkSequence));
    }
    return m_jitter->draw(*draws);
}

// ---- a program that plays the reader

bool ReaderModel::takesFrames() const {
    return m_logic ? m_logic->takesFrames() : m_description.logic.empty();
}

void ReaderModel::setLogic(std::shared_ptr<ReaderLogic> logic, Time now) {
    m_logic = std::move(logic);
    advance(now);
}

void ReaderModel::note(ReaderEvent event, std::uint8_t value) {
    if (m_logic) {
        m_logic->note(event, value);
    }
}

void ReaderModel::stallNext(Pipe pipe, Time now) {
    if (pipe == Pipe::control || pipe == Pipe::controlFrameOut || pipe == Pipe::controlFrameIn) {
        m_stalledOnce.insert(pipe);
    } else {
        m_pipeFaults[pipe].stalled = true;
    }
    advance(now);
}

} // namespace emulator
