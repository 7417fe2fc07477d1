// Who said what to whom in a capture: exchanges, what surrounds them, and how they ended.
//
// An exchange is a frame to a reader (on an OUT endpoint, or by the readers' vendor request) and the first transfer to the
// host that is completed after it. If that one fills its buffer, the answer continues in the next. What a reader sends
// besides has no request.
#pragma once

#include "show/recorded_readers.h"

#include "capture/capture.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class Outcome {
    answered,
    sent,       // and no answer was read
    timeOut,    //
    canceled,   // by the program
    stall,      //
    gone,       // the reader
    error,      // another one
    unfinished, // when the capture ended
};

inline constexpr std::array<Outcome, 8> outcomes = {Outcome::answered, Outcome::sent,      Outcome::timeOut,
                                                    Outcome::canceled, Outcome::stall,     Outcome::gone,
                                                    Outcome::error,    Outcome::unfinished};

// "answered", "time-out" and so on, as in JSON.
std::string_view nameOf(Outcome outcome);

// What a person reads: "stall [EPIPE]".
std::string outcomeText(Outcome outcome, std::int32_t status);

constexpr bool isFailure(Outcome outcome) {
    return outcome != Outcome::answered && outcome != Outcome::sent;
}

struct Exchange {
    std::size_t reader = 0;
    std::optional<std::size_t> request; // transfers; without a request, the reader sent something unasked
    std::vector<std::size_t> answers;
    Outcome outcome = Outcome::unfinished;
    std::int32_t status = 0; // a negative errno
    bool isLate = false;     // without a request: data that came after the time-out of the request before
    capture::Time start{};
    std::optional<capture::Time>
        end; // of the first transfer of the answer, or of the request if none was read
    std::optional<std::size_t> call; // event: what the library was asked for

    std::optional<capture::Time> duration() const { return end ? std::optional(*end - start) : std::nullopt; }
};

// Standard requests to one reader with nothing else to it between them.
struct Requests {
    std::size_t reader = 0;
    std::vector<std::size_t> transfers;
};

// The conversation in the order of the capture.
struct Item {
    enum class Kind { event, exchange, requests, transfer, submission, completion };
    // Submissions and completions are those of exchanges' transfers.
    std::size_t at = 0; // position
    Kind kind = Kind::event;
    bool isReturn = false;    // of a call
    std::size_t index = 0;    // of the event, exchange, requests or transfer
    std::size_t exchange = 0; // of a submission or completion
};

struct Conversation {
    capture::Time begin{};
    capture::Time end{};
    RecordedReaders readers;
    std::vector<Exchange> exchanges;                       // in the order in which they were seen
    std::vector<Requests> requests;                        //
    std::vector<std::optional<std::size_t>> readerOfEvent; // also of calls, as far as it is known
    std::vector<Item> items;

    double seconds(capture::Time time) const { return std::chrono::duration<double>(time - begin).count(); }
};

// With `all`, every device counts as a reader, each standard request is an item of its own, and what the kernel answered in place
// of the device is there too. Throws capture::CaptureError if there is no reader.
Conversation conversationOf(const capture::Capture& capture, bool all = false);
