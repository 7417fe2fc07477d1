#include "show/conversation.h"

#include "show/transfer_names.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <map>
#include <utility>

#include <gvusb.h>

namespace {

using capture::Event;
using capture::EventType;
using capture::Time;
using capture::Transfer;
using capture::TransferType;

enum class Role { frameOut, frameIn, standardRequest, otherRequest };

Role roleOf(const Transfer& transfer) {
    if (transfer.type != TransferType::control) {
        return transfer.isIn() ? Role::frameIn : Role::frameOut;
    }
    // Without its submission, nothing tells a request that carries a frame from another one.
    if (!transfer.setup) {
        return Role::otherRequest;
    }
    if (isFrameRequest(*transfer.setup)) {
        return transfer.isIn() ? Role::frameIn : Role::frameOut;
    }
    return isStandardRequest(*transfer.setup) ? Role::standardRequest : Role::otherRequest;
}

bool movesFrames(const Event& call) {
    return call.function == "GVUSB_Transceive" || call.function == "GVUSB_Transmit" ||
           call.function == "GVUSB_Receive";
}

// A transfer that times out is canceled, like one that the program cancels. What the library returned tells
// them apart.
Outcome outcomeOf(std::int32_t status, const Event* call) {
    const std::int64_t result = call != nullptr ? call->result.value_or(0) : 0;
    switch (-status) {
    case 0:
        return Outcome::answered;
    case ENOENT:
    case ECONNRESET:
        return result == GVUSB_ERR_NOT_PRESENT             ? Outcome::gone
               : result < 0 && result != GVUSB_ERR_TIMEOUT ? Outcome::canceled
                                                           : Outcome::timeOut;
    case ETIMEDOUT:
        return Outcome::timeOut;
    case EPIPE:
        return Outcome::stall;
    case ENODEV:
    case ESHUTDOWN:
        return Outcome::gone;
    default:
        return Outcome::error;
    }
}

class Building {
public:
    Building(const capture::Capture& capture, bool all)
        : m_capture(capture)
        , m_all(all) {
        findTimes();
        m_made.readers = recordedReaders(capture, m_made.begin, all);
        m_made.readerOfEvent.resize(capture.events.size());
        m_states.resize(m_made.readers.readers.size());
        m_exchangeOf.resize(capture.transfers.size(), none);
    }

    Conversation build() {
        for (const Point& point : points()) {
            add(point);
        }
        for (const State& state : m_states) {
            finish(state);
        }
        std::ranges::stable_sort(m_made.items, {}, &Item::at);
        return std::move(m_made);
    }

private:
    static constexpr std::size_t none = SIZE_MAX;

    enum class What { submission, completion, event, returned };

    struct Point {
        std::size_t at;
        What what;
        std::size_t index;
    };

    struct State {
        std::optional<std::size_t> current;  // the last exchange with a request
        bool isOpen = false;                 // its answer is not complete
        bool continues = false;              // its answer filled the buffer
        bool expectsLate = false;            // it ended with a time-out
        std::size_t waiting = 0;             // transfers to the host that are under way
        std::optional<std::size_t> requests; // those that the next standard request belongs to
        Time lastRequest{};
    };

    void findTimes() {
        std::optional<Time> first;
        Time last{};
        const auto see = [&](const std::optional<Time>& time) {
            if (time) {
                first = std::min(first.value_or(*time), *time);
                last = std::max(last, *time);
            }
        };
        for (const Transfer& transfer : m_capture.transfers) {
            see(transfer.submitted);
            see(transfer.completed);
        }
        for (const Event& event : m_capture.events) {
            see(event.time);
            see(event.returned);
        }
        m_made.begin = first.value_or(Time{});
        m_made.end = std::max(last, m_made.begin);
    }

    std::vector<Point> points() const {
        std::vector<Point> points;
        points.reserve(2 * m_capture.transfers.size() + m_capture.events.size());
        for (std::size_t i = 0; i < m_capture.transfers.size(); ++i) {
            const Transfer& transfer = m_capture.transfers[i];
            if (transfer.fromKernelCopy && !m_all) {
                continue;
            }
            if (transfer.submitted) {
                points.push_back({.at = transfer.submittedAt, .what = What::submission, .index = i});
            }
            if (transfer.completed) {
                points.push_back({.at = transfer.completedAt, .what = What::completion, .index = i});
            }
        }
        for (std::size_t i = 0; i < m_capture.events.size(); ++i) {
            const Event& event = m_capture.events[i];
            points.push_back({.at = event.at, .what = What::event, .index = i});
            if (event.returned) {
                points.push_back({.at = event.returnedAt, .what = What::returned, .index = i});
            }
        }
        std::ranges::stable_sort(points, {}, &Point::at);
        return points;
    }

    void add(const Point& point) {
        switch (point.what) {
        case What::submission:
        case What::completion:
            if (const auto reader = m_made.readers.ofDevice[m_capture.transfers[point.index].device]) {
                addTransfer(point, *reader);
            }
            break;
        case What::event:
            addEvent(point);
            break;
        case What::returned:
            endCall(point.index);
            addItem(point.at, Item::Kind::event, point.index, 0, true);
            break;
        }
    }

    void addItem(std::size_t at, Item::Kind kind, std::size_t index, std::size_t exchange = 0,
                 bool isReturn = false) {
        m_made.items.push_back(
            {.at = at, .kind = kind, .isReturn = isReturn, .index = index, .exchange = exchange});
    }

    // ---- events

    void addEvent(const Point& point) {
        const Event& event = m_capture.events[point.index];
        if (event.device) {
            const auto reader = m_made.readers.ofDevice[*event.device];
            if (!reader) {
                return;
            }
            m_made.readerOfEvent[point.index] = reader;
            if (event.type != EventType::discarded) {
                m_states[*reader].requests.reset();
            }
        }
        if (event.type == EventType::call) {
            beginCall(point.index);
        } else if (const auto reader = m_made.readerOfEvent[point.index]) {
            noteReader(*reader);
        }
        addItem(point.at, Item::Kind::event, point.index);
    }

    // ---- calls of the library

    struct Call {
        std::size_t event = 0;
        std::optional<std::size_t> reader; // the only one that something happened to meanwhile
        bool isAlone = true;               // no other call ran at the same time
        bool hasSeveral = false;           // readers
    };

    // A call names its reader by a handle, which the recording has from the call that opened the reader.
    void beginCall(std::size_t index) {
        const Event& event = m_capture.events[index];
        if (const auto known = m_readerOfHandle.find(handleOf(event)); known != m_readerOfHandle.end()) {
            m_made.readerOfEvent[index] = known->second;
        }
        for (Call& call : m_calls) {
            call.isAlone = false;
        }
        m_calls.push_back({.event = index, .reader = {}, .isAlone = m_calls.empty()});
    }

    void endCall(std::size_t index) {
        const auto found = std::ranges::find(m_calls, index, &Call::event);
        if (found == m_calls.end()) {
            return;
        }
        const Call call = *found;
        m_calls.erase(found);
        const Event& event = m_capture.events[index];
        std::optional<std::size_t>& reader = m_made.readerOfEvent[index];
        if (!reader && call.isAlone && !call.hasSeveral) {
            reader = call.reader;
        }
        if (givesHandle(event) && event.result.value_or(0) > 0) {
            if (!reader) {
                reader = readerWithId(event.arguments);
            }
            if (reader) {
                m_readerOfHandle[*event.result] = *reader;
            }
        }
    }

    // Something happens to a reader while the calls run.
    void noteReader(std::size_t reader) {
        for (Call& call : m_calls) {
            call.hasSeveral |= call.reader.value_or(reader) != reader;
            call.reader = reader;
        }
    }

    static bool givesHandle(const Event& call) {
        return call.function == "GVUSB_OpenDevice" || call.function == "GVUSB_GetDeviceHnd";
    }

    // The first argument; 0 if it is none.
    static std::int64_t handleOf(const Event& call) {
        std::int64_t handle = 0;
        if (!givesHandle(call)) {
            std::from_chars(call.arguments.data(), call.arguments.data() + call.arguments.size(), handle);
        }
        return handle;
    }

    std::optional<std::size_t> readerWithId(const std::string& arguments) const {
        std::optional<std::size_t> found;
        const auto& readers = m_made.readers.readers;
        for (std::size_t i = 0; i < readers.size(); ++i) {
            if (!readers[i].id.empty() && isNamed(readers[i], arguments)) {
                if (found) {
                    return std::nullopt;
                }
                found = i;
            }
        }
        return found;
    }

    // The running call that a frame to or from the reader belongs to, if the recording tells.
    std::optional<std::size_t> runningCall(std::size_t reader) const {
        std::optional<std::size_t> only;
        std::size_t unnamed = 0;
        for (const Call& call : m_calls) {
            const auto named = m_made.readerOfEvent[call.event];
            if (!movesFrames(m_capture.events[call.event])) {
                continue;
            }
            if (named == reader) {
                return call.event;
            }
            if (!named) {
                only = call.event;
                ++unnamed;
            }
        }
        return unnamed == 1 ? only : std::nullopt;
    }

    // The call is on this reader.
    void learnReader(const std::optional<std::size_t>& call, std::size_t reader) {
        if (call && !m_made.readerOfEvent[*call]) {
            m_made.readerOfEvent[*call] = reader;
            if (const std::int64_t handle = handleOf(m_capture.events[*call]); handle != 0) {
                m_readerOfHandle.emplace(handle, reader);
            }
        }
    }

    const Event* eventOf(const std::optional<std::size_t>& call) const {
        return call ? &m_capture.events[*call] : nullptr;
    }

    // ---- transfers

    void addTransfer(const Point& point, std::size_t reader) {
        const Transfer& transfer = m_capture.transfers[point.index];
        const bool begins = point.what == What::submission;
        State& state = m_states[reader];
        const Role role = roleOf(transfer);
        noteReader(reader);
        if (role == Role::standardRequest && !m_all) {
            addStandardRequest(point, reader);
            return;
        }
        state.requests.reset();
        if (role == Role::standardRequest || role == Role::otherRequest) {
            if (begins || !transfer.submitted) {
                addItem(point.at, Item::Kind::transfer, point.index);
            }
        } else if (role == Role::frameOut) {
            if (begins || !transfer.submitted) {
                beginExchange(point, reader);
            }
            if (!begins) {
                endRequest(point, reader);
            }
        } else if (begins) {
            ++state.waiting;
            m_callOf.emplace_back(point.index, runningCall(reader));
        } else {
            state.waiting -= state.waiting != 0 && transfer.submitted ? 1 : 0;
            endAnswer(point, reader);
        }
    }

    void addStandardRequest(const Point& point, std::size_t reader) {
        const Transfer& transfer = m_capture.transfers[point.index];
        if (point.what == What::completion && transfer.submitted) {
            return;
        }
        constexpr std::chrono::seconds longestPause(1);
        State& state = m_states[reader];
        const Time time = transfer.firstSeen();
        if (!state.requests || time - state.lastRequest > longestPause) {
            state.requests = m_made.requests.size();
            m_made.requests.push_back({.reader = reader, .transfers = {}});
            addItem(point.at, Item::Kind::requests, *state.requests);
        }
        state.lastRequest = time;
        m_made.requests[*state.requests].transfers.push_back(point.index);
    }

    void beginExchange(const Point& point, std::size_t reader) {
        State& state = m_states[reader];
        const Transfer& transfer = m_capture.transfers[point.index];
        const std::size_t index = m_made.exchanges.size();
        Exchange exchange;
        exchange.reader = reader;
        exchange.request = point.index;
        exchange.start = transfer.firstSeen();
        exchange.call = runningCall(reader);
        learnReader(exchange.call, reader);
        m_made.exchanges.push_back(std::move(exchange));
        m_exchangeOf[point.index] = index;
        state.current = index;
        state.isOpen = true;
        state.continues = false;
        state.expectsLate = false;
        addItem(point.at, Item::Kind::exchange, index);
        addItem(point.at, Item::Kind::submission, point.index, index);
    }

    void endRequest(const Point& point, std::size_t reader) {
        State& state = m_states[reader];
        const Transfer& transfer = m_capture.transfers[point.index];
        const std::size_t index = m_exchangeOf[point.index];
        Exchange& exchange = m_made.exchanges[index];
        const bool hasFailed = transfer.status != 0;
        const bool isAnswered = exchange.outcome == Outcome::answered; // before the request was completed
        if (!hasFailed && !isAnswered) {
            exchange.outcome = Outcome::sent;
        }
        if (!isAnswered) {
            exchange.end = transfer.completed;
        }
        if (hasFailed) {
            exchange.outcome = outcomeOf(transfer.status, eventOf(exchange.call));
            exchange.status = transfer.status;
            if (state.current == index) {
                state.isOpen = false;
            }
        }
        addItem(point.at, Item::Kind::completion, point.index, index);
    }

    void endAnswer(const Point& point, std::size_t reader) {
        State& state = m_states[reader];
        const Transfer& transfer = m_capture.transfers[point.index];
        const std::optional<std::size_t> call = takeCall(point.index);
        const bool isPart = state.isOpen && !(state.continues && transfer.status != 0);
        const std::size_t index = isPart ? *state.current : addUnasked(point, reader, call);
        Exchange& exchange = m_made.exchanges[index];
        exchange.answers.push_back(point.index);
        if (!state.continues || !isPart) {
            exchange.end = transfer.completed;
            exchange.outcome = outcomeOf(transfer.status, eventOf(call ? call : exchange.call));
            exchange.status = transfer.status;
        }
        if (isPart) {
            state.continues =
                transfer.status == 0 && transfer.requested != 0 && transfer.actual == transfer.requested;
            state.isOpen = state.continues;
            state.expectsLate = exchange.outcome == Outcome::timeOut;
        } else {
            exchange.isLate = state.expectsLate && transfer.status == 0;
            state.expectsLate &= transfer.status != 0;
            state.isOpen = false;
            state.continues = false;
        }
        addItem(point.at, Item::Kind::completion, point.index, index);
    }

    std::size_t addUnasked(const Point& point, std::size_t reader, std::optional<std::size_t> call) {
        const Transfer& transfer = m_capture.transfers[point.index];
        Exchange exchange;
        exchange.reader = reader;
        exchange.start = transfer.firstSeen();
        exchange.call = call;
        learnReader(call, reader);
        m_made.exchanges.push_back(std::move(exchange));
        addItem(point.at, Item::Kind::exchange, m_made.exchanges.size() - 1);
        return m_made.exchanges.size() - 1;
    }

    // The call during which a transfer to the host was submitted. There are as many as transfers are under way.
    std::optional<std::size_t> takeCall(std::size_t transfer) {
        const auto found =
            std::ranges::find(m_callOf, transfer, &std::pair<std::size_t, std::optional<std::size_t>>::first);
        if (found == m_callOf.end()) {
            return std::nullopt;
        }
        const auto call = found->second;
        m_callOf.erase(found);
        return call;
    }

    // An exchange whose answer was still awaited at the end.
    void finish(const State& state) {
        if (state.current && state.isOpen && !state.continues && state.waiting != 0) {
            Exchange& exchange = m_made.exchanges[*state.current];
            if (exchange.outcome == Outcome::sent) {
                exchange.outcome = Outcome::unfinished;
                exchange.end.reset();
            }
        }
    }

    const capture::Capture& m_capture;
    bool m_all;
    Conversation m_made;
    std::vector<State> m_states;           // of the readers
    std::vector<std::size_t> m_exchangeOf; // of requests
    std::vector<Call> m_calls;             // that are running
    std::map<std::int64_t, std::size_t> m_readerOfHandle;
    std::vector<std::pair<std::size_t, std::optional<std::size_t>>> m_callOf; // of transfers under way
};

} // namespace

std::string_view nameOf(Outcome outcome) {
    switch (outcome) {
    case Outcome::answered:
        return "answered";
    case Outcome::sent:
        return "sent";
    case Outcome::timeOut:
        return "time-out";
    case Outcome::canceled:
        return "canceled";
    case Outcome::stall:
        return "stall";
    case Outcome::gone:
        return "gone";
    case Outcome::error:
        return "error";
    case Outcome::unfinished:
        break;
    }
    return "unfinished";
}

std::string outcomeText(Outcome outcome, std::int32_t status) {
    switch (outcome) {
    case Outcome::stall:
    case Outcome::error:
        return std::string(nameOf(outcome)) + " [" + errorName(status) + "]";
    case Outcome::gone:
        return "the reader is gone [" + errorName(status) + "]";
    case Outcome::sent:
        return "no answer was read";
    case Outcome::unfinished:
        return "unfinished when the capture ended";
    default:
        return std::string(nameOf(outcome));
    }
}

Conversation conversationOf(const capture::Capture& capture, bool all) {
    return Building(capture, all).build();
}
