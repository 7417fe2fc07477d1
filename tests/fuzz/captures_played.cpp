#include "captures_played.h"

#include "expect.h"

#include "model/model.h"
#include "replay/played_reader.h"
#include "replay/recording.h"

#include <memory>
#include <string>
#include <utility>

namespace emulator::replay {
namespace {

// No program sends more in one transfer, but a capture may claim so.
constexpr std::size_t mostSent = 1 << 16;

Transfer transferOf(const RecordedRequest& request) {
    const auto word = [&request](std::size_t at) {
        return static_cast<std::uint16_t>(request.setup[at] | request.setup[at + 1] << 8);
    };
    Transfer transfer{.endpoint = request.endpoint, .data = request.data};
    transfer.data.resize(request.length);
    if (request.endpoint == 0) {
        transfer.setup = {request.setup[0], request.setup[1], word(2), word(4), word(6)};
        transfer.capacity = transfer.setup.in() ? transfer.setup.length : 0;
    }
    return transfer;
}

void runTransfer(ReaderModel& model, Transfer transfer, Time& now) {
    const std::size_t capacity = transfer.capacity;
    const TransferId id = model.submit(std::move(transfer), now);
    now += std::chrono::milliseconds(10);
    model.advance(now);
    std::optional<Completion> completion = model.takeCompletion();
    if (!completion) {
        model.cancel(id, now);
        completion = model.takeCompletion();
    }
    fuzz::expect(!completion || completion->data.size() <= capacity, "no answer is longer than asked for");
}

void playReader(const std::shared_ptr<const Recording>& recording, std::size_t index, Mode mode) {
    const std::shared_ptr<const RecordedReader> recorded(recording, &recording->readers[index]);
    const auto timeline = std::make_shared<Timeline>(std::vector<Happening>{}, mode, Pace(0), [] {});
    ReaderModel model(recorded->description);
    const auto played = std::make_shared<PlayedReader>("reader", recorded, mode, Pace(0), timeline,
                                                       [](const std::string&) {});
    model.setPlayback(played);
    Time now{std::chrono::hours(1)};
    timeline->start(now);
    played->plugged();
    model.power(now);
    for (const RecordedRequest& request : recorded->requests) {
        if (request.length > mostSent) {
            continue;
        }
        runTransfer(model, transferOf(request), now);
        for (const RecordedAnswer& answer : request.answers) {
            constexpr std::size_t capacity = 64;
            if (answer.endpoint != 0) {
                runTransfer(model, {.endpoint = answer.endpoint, .capacity = capacity}, now);
            }
        }
    }
    played->reportMissed();
}

} // namespace

void playCapture(const capture::Capture& read) {
    const auto recording = std::make_shared<const Recording>(recordingFrom(read));
    fuzz::expect(!recording->readers.empty(), "a recording has a reader");
    for (const Happening& each : recording->happenings) {
        fuzz::expect(each.reader < recording->readers.size(), "the reader that comes or leaves exists");
    }
    for (std::size_t i = 0; i < recording->readers.size(); ++i) {
        playReader(recording, i, Mode::matching);
        playReader(recording, i, Mode::strict);
    }
}

} // namespace emulator::replay
