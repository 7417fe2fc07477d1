// A reader that does what a recording says of it.
//
// The model calls it in whatever thread owns the model at that time.
#pragma once

#include "replay/recorded.h"
#include "replay/request_table.h"
#include "replay/timeline.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace emulator::replay {

class PlayedReader final : public Playback {
public:
    using Report = std::function<void(const std::string& line)>;

    // `name` is for reports.
    PlayedReader(std::string name, std::shared_ptr<const RecordedReader> recorded, Mode mode, Pace pace,
                 std::shared_ptr<Timeline> timeline, Report report);

    bool reads(const Transfer& transfer) const override;
    std::optional<PlayedAnswer> request(const Transfer& transfer, Time now) override;
    void used(Time now) override;
    const PlayedAnswer* next(const Transfer& transfer) const override;
    PlayedAnswer take(const Transfer& transfer) override;
    PlayedAnswer cancel(const Transfer& transfer) override;
    std::optional<int> result(HostAction action, unsigned number) override;
    void push(std::uint8_t endpoint, Bytes data, Time now) override;
    void forget() override { m_answers.clear(); }
    void plugged() override;
    void reset(Time now) override;
    void haltCleared(std::uint8_t endpoint) override { m_halted.erase(endpoint); }

    // Whether the program made a request that differs from the recording, or that the recording does not have.
    bool differed() const { return m_differed; }

    // In strict mode: report the first request that the program did not make, and return whether there is one.
    bool reportMissed();

private:
    std::optional<PlayedAnswer> standardRequest(const Transfer& transfer, Time now);
    const RecordedRequest* nextStrict(const Transfer& transfer, Time now);
    const RecordedRequest* nextMatching(Occurrences& occurrences) const;
    static void advance(Occurrences& occurrences, const RecordedRequest& used);
    PlayedAnswer play(const RecordedRequest& request, Time now);
    PlayedAnswer unknown(const Transfer& transfer, std::uint64_t chain);
    void queue(const RecordedAnswers& answers, Time now);
    void insert(std::uint8_t endpoint, PlayedAnswer answer);
    PlayedAnswer answerOf(const RecordedAnswer& recorded, Time now) const;
    void endSilence();
    bool isGone(const RecordedRequest& request) const {
        return request.gone && m_timeline->passed(request.position);
    }
    std::size_t packetSizeOf(std::uint8_t endpoint) const;
    void reportDifference(const RecordedRequest* recorded, const Transfer& transfer, Time now);

    std::string m_name;
    std::shared_ptr<const RecordedReader> m_recorded;
    Mode m_mode;
    Pace m_pace;
    std::shared_ptr<Timeline> m_timeline;
    Report m_report;

    RequestTable m_requests;
    RequestTable m_standard;
    std::size_t m_position = 0; // of the next request, in strict mode
    std::map<std::uint8_t, Chain> m_chains;
    std::map<std::uint8_t, std::uint64_t> m_begun; // chain numbers of transfers that wait for another reader
    std::map<std::uint8_t, std::deque<PlayedAnswer>> m_answers;       // by endpoint, in order of time
    std::set<std::uint8_t> m_halted;                                  // endpoints
    std::map<std::pair<HostAction, unsigned>, std::size_t> m_results; // how many have been given
    std::set<std::string> m_reported;
    std::size_t m_plugs = 0;
    std::size_t m_resets = 0;
    bool m_isUsed = false; // since it was plugged in
    bool m_differed = false;
    bool m_strayed = false; // from the order of strict mode
};

} // namespace emulator::replay
