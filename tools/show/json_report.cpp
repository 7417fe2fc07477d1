#include "explanations.h"
#include "hexadecimal.h"
#include "json.h"
#include "show/buffered_output.h"
#include "show/event_text.h"
#include "show/report.h"
#include "show/transfer_names.h"
#include "time_stamp.h"

#include <chrono>
#include <optional>
#include <string>

namespace {

using capture::Event;
using capture::EventType;
using capture::Time;
using capture::Transfer;

Json orNull(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

double milliseconds(Time time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

Json orNull(const std::optional<Time>& time) {
    return time ? Json(milliseconds(*time)) : Json(nullptr);
}

class JsonReport {
public:
    explicit JsonReport(const ShownRecording& recording)
        : m_recording(recording)
        , m_conversation(recording.conversation) {}

    void print() {
        addCapture();
        for (std::size_t i = 0; i < m_recording.shown.size(); ++i) {
            if (m_recording.shown[i]) {
                addReader(i);
            }
        }
        for (const Item& item : m_conversation.items) {
            add(item);
        }
        printSummary();
    }

    void printSummary() {
        addSummary();
        m_output.flush();
    }

private:
    const Transfer& transfer(std::size_t index) const { return m_recording.capture.transfers[index]; }

    void line(const Json& object) { m_output.add(jsonLine(object)); }

    // The beginning of every object about a reader.
    void place(Json& object, std::size_t reader) const {
        const RecordedReader& of = m_conversation.readers.readers[reader];
        object["reader"] = reader;
        object["id"] = orNull(of.id);
        object["path"] = orNull(of.path);
    }

    Json begin(const char* type, Time time, std::optional<std::size_t> reader) const {
        Json object = {{"type", type}, {"seconds", m_conversation.seconds(time)}};
        if (reader) {
            place(object, *reader);
        } else {
            object["reader"] = nullptr;
        }
        return object;
    }

    void addCapture() {
        const std::chrono::system_clock::time_point start(
            std::chrono::duration_cast<std::chrono::system_clock::duration>(m_conversation.begin));
        line({{"type", "capture"},
              {"file", m_recording.capture.path},
              {"recording", m_recording.capture.isRecording},
              {"start", timeStamp(start)},
              {"seconds", m_conversation.seconds(m_conversation.end)},
              {"packets", m_recording.capture.packets},
              {"notes", m_recording.capture.notes}});
    }

    void addReader(std::size_t index) {
        const RecordedReader& reader = m_conversation.readers.readers[index];
        Json object = {{"type", "reader"}};
        place(object, index);
        object["bus"] = reader.bus;
        object["address"] = reader.address;
        object["family"] = orNull(reader.family);
        object["name"] = orNull(reader.name);
        object["vendor"] = reader.vendor;
        object["product"] = reader.product;
        line(object);
    }

    void add(const Item& item) {
        switch (item.kind) {
        case Item::Kind::event:
            addEvent(item);
            break;
        case Item::Kind::exchange:
            if (const Exchange& exchange = m_conversation.exchanges[item.index];
                m_recording.shown[exchange.reader]) {
                addExchange(exchange);
            }
            break;
        case Item::Kind::requests:
            addRequests(m_conversation.requests[item.index]);
            break;
        case Item::Kind::transfer:
            if (const auto reader = m_conversation.readers.ofDevice[transfer(item.index).device];
                reader && m_recording.shown[*reader]) {
                addControl(*reader, transfer(item.index));
            }
            break;
        case Item::Kind::submission:
        case Item::Kind::completion:
            break; // part of their exchange
        }
    }

    void addEvent(const Item& item) {
        const Event& event = m_recording.capture.events[item.index];
        const auto reader = m_conversation.readerOfEvent[item.index];
        const bool isCall = event.type == EventType::call;
        const bool isShown = reader ? m_recording.shown[*reader] : !m_recording.isFiltered || !isCall;
        if (!isShown || item.isReturn || (isRoutine(event) && !m_recording.all)) {
            return;
        }
        Json object = begin(isCall ? "call" : "event", event.time, reader);
        if (isCall) {
            object["function"] = event.function;
            object["arguments"] = event.arguments;
            object["result"] = event.result ? Json(*event.result) : Json(nullptr);
            const Explanation* const found = event.result && *event.result < 0
                                                 ? findExplanation(static_cast<int>(*event.result))
                                                 : nullptr;
            object["name"] = found != nullptr ? Json(found->name) : Json(nullptr);
            object["ms"] =
                orNull(event.returned ? std::optional(*event.returned - event.time) : std::nullopt);
        } else {
            object["event"] = capture::nameOf(event.type);
            object["result"] = event.result ? Json(*event.result) : Json(nullptr);
            object["error"] = event.result && *event.result < 0 && event.type != EventType::end
                                  ? Json(errorName(*event.result))
                                  : Json(nullptr);
            object["details"] = event.details;
        }
        line(object);
    }

    static Json dataOf(const Transfer& of) {
        return of.redacted ? Json(nullptr) : Json(frameText(of.isIn() ? of.in : of.out, ""));
    }

    void addExchange(const Exchange& exchange) {
        const bool hasRequest = exchange.request.has_value();
        Json object = begin(hasRequest ? "exchange" : "received", exchange.start, exchange.reader);
        const std::size_t any = hasRequest ? *exchange.request : exchange.answers.front();
        bool isRedacted = transfer(any).redacted;
        if (hasRequest) {
            object["sent"] = dataOf(transfer(*exchange.request));
        }
        std::string answer;
        for (const std::size_t index : exchange.answers) {
            isRedacted |= transfer(index).redacted;
            answer += frameText(transfer(index).in, "");
        }
        const bool hasAnswer = exchange.outcome == Outcome::answered || !answer.empty();
        object["received"] = hasAnswer && !isRedacted ? Json(answer) : Json(nullptr);
        object["redacted"] = isRedacted;
        object["outcome"] = nameOf(exchange.outcome);
        object["error"] = exchange.status != 0 ? Json(errorName(exchange.status)) : Json(nullptr);
        object["ms"] = orNull(exchange.duration());
        if (!hasRequest) {
            object["late"] = exchange.isLate;
        }
        object["pipe"] = pipeText(transfer(any).type, transfer(any).endpoint);
        object["function"] =
            exchange.call ? Json(m_recording.capture.events[*exchange.call].function) : Json(nullptr);
        line(object);
    }

    void addRequests(const Requests& requests) {
        if (!m_recording.shown[requests.reader]) {
            return;
        }
        const Transfer& first = transfer(requests.transfers.front());
        const Transfer& last = transfer(requests.transfers.back());
        Json object = begin("requests", first.firstSeen(), requests.reader);
        object["count"] = requests.transfers.size();
        Json names = Json::array();
        std::size_t failed = 0;
        for (const std::size_t index : requests.transfers) {
            names.push_back(requestName(*transfer(index).setup));
            failed += transfer(index).completed && transfer(index).status != 0 ? 1 : 0;
        }
        object["failed"] = failed;
        object["names"] = std::move(names);
        object["ms"] =
            orNull(first.submitted && last.completed ? std::optional(*last.completed - *first.submitted)
                                                     : std::nullopt);
        line(object);
    }

    void addControl(std::size_t reader, const Transfer& control) {
        Json object = begin("control", control.firstSeen(), reader);
        object["setup"] = control.setup ? Json(frameText(*control.setup, "")) : Json(nullptr);
        object["name"] = control.setup ? Json(requestName(*control.setup)) : Json(nullptr);
        object["data"] = dataOf(control);
        object["redacted"] = control.redacted;
        object["kernel"] = control.fromKernelCopy;
        object["error"] =
            control.completed && control.status != 0 ? Json(errorName(control.status)) : Json(nullptr);
        object["ms"] = orNull(control.duration());
        line(object);
    }

    void addSummary() {
        const Summary summary = summaryOf(m_conversation, m_recording.shown);
        Json readers = Json::array();
        for (const ReaderSummary& each : summary.readers) {
            Json object = Json::object();
            place(object, each.reader);
            object["exchanges"] = each.exchanges;
            object["failed"] = each.failed();
            Json counts = Json::object();
            for (const Outcome outcome : outcomes) {
                counts[std::string(nameOf(outcome))] = each.of(outcome);
            }
            object["outcomes"] = std::move(counts);
            object["unasked"] = each.withoutRequest;
            object["late"] = each.late;
            if (each.times.count() != 0) {
                object["ms"] = {{"minimum", each.times.minimum()},
                                {"median", each.times.median()},
                                {"p99", each.times.percentile(99)},
                                {"maximum", each.times.maximum()}};
            }
            readers.push_back(std::move(object));
        }
        Json slowest = Json::array();
        for (const std::size_t index : summary.slowest) {
            const Exchange& exchange = m_conversation.exchanges[index];
            slowest.push_back({{"seconds", m_conversation.seconds(exchange.start)},
                               {"reader", exchange.reader},
                               {"ms", orNull(exchange.duration())},
                               {"outcome", nameOf(exchange.outcome)}});
        }
        line({{"type", "summary"},
              {"exchanges", summary.exchanges},
              {"failed", summary.failed},
              {"readers", std::move(readers)},
              {"slowest", std::move(slowest)}});
    }

    const ShownRecording& m_recording;
    const Conversation& m_conversation;
    BufferedOutput m_output;
};

} // namespace

void printJson(const ShownRecording& recording) {
    JsonReport(recording).print();
}

void printJsonSummary(const ShownRecording& recording) {
    JsonReport(recording).printSummary();
}
