// The behavior of a reader, independent of how programs reach it: completes transfers at once, later, or when
// they are cancelled.
//
// It has no clock: the owner passes the present time, fetches completions after every call, and calls
// advance() no later than nextDeadline(). One thread at a time; the owner guards it.
#pragma once

#include "model/answer_queue.h"
#include "model/description.h"
#include "model/faults.h"
#include "model/frame_rules.h"
#include "model/playback.h"
#include "model/reader_logic.h"
#include "model/time_range.h"
#include "model/transfer.h"
#include "model/transfer_faults.h"

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace emulator {

class ReaderModel {
public:
    explicit ReaderModel(ReaderDescription description);

    // ---- transfers
    TransferId submit(Transfer transfer, Time now);

    // Complete a pending transfer as cancelled. False if it has completed already.
    bool cancel(TransferId id, Time now);

    // Remove and return the oldest completion.
    std::optional<Completion> takeCompletion();

    std::optional<Time> nextDeadline() const;
    void advance(Time now);

    // ---- life on the bus
    // Both end pending transfers. Power also resets the reader and chooses the first configuration.
    void power(Time now);
    void unplug();

    // Whether the reader has unplugged itself. It completes nothing until the owner unplugs it.
    bool leaving() const { return m_leaving; }

    // End pending transfers other than control, as when their interface is released.
    void endTransfers() { endAll(Outcome::gone, false); }

    // Choose the interface's only setting, which clears halts.
    void chooseSetting(unsigned interfaceNumber, Time now);

    // A port reset: ends transfers other than control, clears halts and discards answers. The configuration
    // stays.
    void reset(Time now);

    // Choose a configuration; 0 unconfigures the reader. False if the reader refuses.
    bool configure(std::uint8_t value, Time now);
    std::uint8_t configuration() const { return m_configuration; }
    bool hasEndpoint(std::uint8_t address) const;
    void clearHalt(std::uint8_t endpoint, Time now);

    // ---- a program that plays the reader
    // A reader whose description names a logic takes no frames before it has one.
    void setLogic(std::shared_ptr<ReaderLogic> logic, Time now);

    // Tell the logic what the host did. The model itself tells what it learns by its other functions.
    void note(ReaderEvent event, std::uint8_t value = 0);

    // Send a frame that may answer none. It is lost if the reader is mute in this direction.
    void push(bool byControl, Bytes frame, Time now);

    // Stall a bulk or interrupt endpoint until its halt is cleared, or the next transfer of another pipe.
    void stallNext(Pipe pipe, Time now);

    // The room that waiting answers take. Each counts at least 64 bytes.
    std::size_t waitingAnswers() const { return m_bulkAnswers.taken() + m_controlAnswers.taken(); }

    // ---- a recording that is played
    void setPlayback(std::shared_ptr<Playback> playback) { m_playback = std::move(playback); }

    // What the recording says of an action of the host, if it says anything.
    std::optional<int> recordedResult(HostAction action, unsigned number = 0) {
        return m_playback ? m_playback->result(action, number) : std::nullopt;
    }

    // ---- what commands see and change
    const ReaderDescription& description() const { return m_description; }
    void setString(std::uint8_t index, std::optional<std::string> text);
    void setDescriptors(Bytes descriptors) { m_description.descriptors = std::move(descriptors); }
    void setReply(ReplyRule rule) { m_description.reply = std::move(rule); }
    void setKernelDriver(std::string name) { m_description.kernelDriver = std::move(name); }
    void forgetAnswers();

    // Of a hub: what is connected to a port, counted from 1.
    void connectPort(unsigned port, std::optional<Speed> speed);
    unsigned portCount() const { return m_portCount; } // grows to the highest port that has been in use
    RequestFaults& requestFaults() { return m_requestFaults; }

    // Send a frame that is no answer: by bulk, or by control if there is no bulk IN endpoint.
    void push(Bytes frame, Time now);

    FrameRules& frameRules() { return m_frameRules; }
    void setJitter(std::optional<TimeRange> jitter) { m_jitter = jitter; }

    // The seed of everything that the reader draws, to be set before.
    void setSeed(std::uint64_t seed) { m_seed = seed; }
    TransferFaults& transferFaults(Pipe pipe) { return m_transferFaults[pipe]; }

    PipeFaults pipeFaults(Pipe pipe) const;
    void setPipeFaults(Pipe pipe, const PipeFaults& faults, Time now);

    struct SeenFrame {
        std::uint8_t endpoint = 0;
        Bytes data;
        bool forgotten = false; // the data, for lack of memory
    };
    std::uint64_t frameCount() const { return m_frameCount; }
    const SeenFrame& lastFrame() const { return m_lastFrame; }
    void forgetLastFrame();

    // The memory of answers that have not been read and of the last frame.
    std::size_t storedBytes() const;

private:
    struct Waiting {
        Transfer transfer;
        TransferFate fate = {};
        std::optional<Time> ready = std::nullopt;          // when its delay ends; set once it can complete
        bool lost = false;                                 // a mute transfer whose answer has been discarded
        std::optional<PlayedAnswer> played = std::nullopt; // of a request that a recording answers
    };
    using WaitingQueue = std::map<TransferId, Waiting>; // cancelling one of thousands must be cheap

    void run(std::uint8_t endpoint, Time now);
    bool runFirst(WaitingQueue& queue, Time now);
    PipeFaults faultsFor(const Transfer& transfer) const;
    TransferFate fateOf(const Transfer& transfer);
    bool isBulk(std::uint8_t address) const;
    const AnswerQueue* answersFor(const Transfer& transfer) const;
    bool couldComplete(Waiting& waiting, Time now);
    Completion perform(Transfer& transfer, const PipeFaults& faults, Time now);
    Completion takePackets(Transfer& transfer, const PipeFaults& faults, Time now);
    Completion sendPackets(const Transfer& transfer);
    void loseAnswer(const Transfer& transfer);
    void restart(Time now);
    void endAll(Outcome outcome, bool controlToo);

    // playing.cpp
    bool couldCompletePlayed(Waiting& waiting, Time now);
    std::optional<Time> playedDeadline(const Waiting& waiting) const;
    Completion performPlayed(Waiting& waiting, const PipeFaults& faults, Time now);
    Completion endPlayed(Waiting& waiting, Outcome outcome);

    // frames.cpp
    Outcome takeFrame(std::uint8_t endpoint, Bytes frame, Time now);
    Time::duration drawJitter(bool byControl);
    void queueAnswer(bool byControl, Bytes answer, Time due);
    bool answersAreLost(bool byControl) const;
    bool takesFrames() const;

    // requests.cpp
    Completion control(const Transfer& transfer, const PipeFaults& faults, Time now);
    Completion standardRequest(const Transfer& transfer, Time now);

    // hub_requests.cpp
    std::optional<Bytes> answerOfHub(const ControlSetup& setup) const;
    Bytes hubDescriptor() const;
    std::optional<Bytes> descriptor(std::uint8_t type, std::uint8_t index) const;

    ReaderDescription m_description;
    std::uint8_t m_configuration = 0;
    std::map<Pipe, PipeFaults> m_pipeFaults;
    std::map<Pipe, TransferFaults> m_transferFaults;
    std::set<Pipe> m_stalledOnce; // control pipes whose next transfer stalls
    std::uint64_t m_seed = 0;
    FrameRules m_frameRules;
    std::optional<TimeRange> m_jitter;
    std::optional<Draws> m_bulkJitter;
    std::optional<Draws> m_controlJitter;
    RequestFaults m_requestFaults;
    std::map<std::uint8_t, WaitingQueue> m_waiting; // by endpoint; each queue completes in order
    std::deque<Completion> m_completions;
    std::map<unsigned, Speed> m_ports; // of a hub, with what is connected
    unsigned m_portCount = 8;
    AnswerQueue m_bulkAnswers;
    AnswerQueue m_controlAnswers;
    std::map<std::uint8_t, Bytes> m_begunFrames; // by endpoint
    bool m_leaving = false;
    bool m_othersChanged = false; // a frame has changed what transfers on other pipes wait for
    std::uint64_t m_frameCount = 0;
    SeenFrame m_lastFrame;
    TransferId m_lastId = 0;
    std::shared_ptr<ReaderLogic> m_logic; // may be null
    std::shared_ptr<Playback> m_playback; // may be null
};

} // namespace emulator
