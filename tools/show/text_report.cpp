#include "output.h"
#include "printable_text.h"
#include "show/buffered_output.h"
#include "show/event_text.h"
#include "show/report.h"
#include "show/transfer_names.h"
#include "table.h"
#include "time_stamp.h"
#include "wrapped_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <string>

namespace {

using capture::Event;
using capture::EventType;
using capture::Time;
using capture::Transfer;

std::string number(double value, int decimals) {
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

std::string milliseconds(Time time) {
    return number(std::chrono::duration<double, std::milli>(time).count(), 3);
}

std::string rightAligned(const std::string& text, std::size_t width) {
    return std::string(width > text.size() ? width - text.size() : 0, ' ') + text;
}

std::string counted(std::size_t count, const std::string& one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

std::string orDash(const std::string& text) {
    return text.empty() ? "-" : printable(text);
}

class TextReport {
public:
    explicit TextReport(const ShownRecording& recording)
        : m_recording(recording)
        , m_conversation(recording.conversation)
        , m_lineWidth(output::isTerminal() ? output::width() : 0) {
        m_timeWidth = std::max(std::string_view("SECONDS").size(), seconds(m_conversation.end).size());
        for (std::size_t i = 0; i < recording.shown.size(); ++i) {
            if (recording.shown[i]) {
                m_labelWidth = std::max(m_labelWidth, m_conversation.readers.readers[i].label.size());
            }
        }
    }

    void print() {
        addHead();
        for (const Item& item : m_conversation.items) {
            add(item);
        }
        m_output.add("\n");
        printSummary();
    }

    void printSummary() {
        addSummary();
        m_output.flush();
    }

private:
    const RecordedReader& reader(std::size_t index) const { return m_conversation.readers.readers[index]; }
    const Transfer& transfer(std::size_t index) const { return m_recording.capture.transfers[index]; }

    std::string seconds(Time time) const { return number(m_conversation.seconds(time), 6); }

    void addHead() {
        const std::chrono::system_clock::time_point start(
            std::chrono::duration_cast<std::chrono::system_clock::duration>(m_conversation.begin));
        m_output.add(timeStamp(start) + ", " + number(m_conversation.seconds(m_conversation.end), 3) +
                     " s\n\n");
        Table table;
        table.add({"READER", "PATH", "FAMILY", "NAME"});
        for (std::size_t i = 0; i < m_recording.shown.size(); ++i) {
            if (m_recording.shown[i]) {
                const RecordedReader& each = reader(i);
                table.add({each.id.empty() ? each.label : each.id, orDash(each.path), orDash(each.family),
                           orDash(each.name)});
            }
        }
        m_output.add(table.text() + "\n");
        m_output.add(padded("SECONDS", m_timeWidth) + "  " + padded("READER", m_labelWidth) + "  " +
                     padded("", arrowWidth + pipeWidth) + rightAligned("MS", timeColumnWidth) + "\n");
    }

    // ---- lines

    static constexpr std::size_t arrowWidth = 3;
    static constexpr std::size_t pipeWidth = 9;
    static constexpr std::size_t timeColumnWidth = 9;

    void addLine(Time time, std::optional<std::size_t> of, const std::string& columns,
                 const std::string& text) {
        const std::string label = rightAligned(seconds(time), m_timeWidth) + "  " +
                                  padded(of ? reader(*of).label : "", m_labelWidth) + "  " + columns;
        m_output.add(m_lineWidth == 0 ? label + text + "\n" : wrapped(label, text, m_lineWidth));
    }

    void addTransferLine(Time time, std::size_t of, const Transfer& of_, bool toReader,
                         std::optional<Time> duration, const std::string& text) {
        const std::string pipe = pipeText(of_.type, of_.endpoint);
        addLine(time, of,
                (toReader ? "-> " : "<- ") + padded(pipe, pipeWidth) +
                    rightAligned(duration ? milliseconds(*duration) : "", timeColumnWidth) + "  ",
                text);
    }

    void add(const Item& item) {
        switch (item.kind) {
        case Item::Kind::event:
            addEvent(item);
            break;
        case Item::Kind::requests:
            addRequests(m_conversation.requests[item.index]);
            break;
        case Item::Kind::transfer:
            if (const auto of = readerOf(transfer(item.index)); m_recording.shown[of]) {
                addControl(of, transfer(item.index));
            }
            break;
        case Item::Kind::submission:
        case Item::Kind::completion:
            addFrame(item);
            break;
        case Item::Kind::exchange:
            break;
        }
    }

    std::size_t readerOf(const Transfer& of) const {
        return m_conversation.readers.ofDevice[of.device].value_or(0);
    }

    void addEvent(const Item& item) {
        const Event& event = m_recording.capture.events[item.index];
        const auto of = m_conversation.readerOfEvent[item.index];
        const bool isShown =
            of ? m_recording.shown[*of] : !m_recording.isFiltered || event.type != EventType::call;
        if (!isShown || (isRoutine(event) && !m_recording.all)) {
            return;
        }
        if (event.type != EventType::call) {
            addLine(event.time, of, "", eventText(event));
            return;
        }
        // A call during which nothing else happened is one line.
        const bool isQuiet = event.returned && event.returnedAt == event.at + 1;
        if (item.isReturn) {
            if (!isQuiet) {
                addLine(*event.returned, of, "", printable(event.function) + resultText(event));
            }
        } else {
            addLine(event.time, of, "",
                    callText(event) + (isQuiet || !event.returned ? resultText(event) : ""));
        }
    }

    void addRequests(const Requests& requests) {
        if (!m_recording.shown[requests.reader]) {
            return;
        }
        const Transfer& first = transfer(requests.transfers.front());
        addLine(first.firstSeen(), requests.reader, "", requestsText(m_recording.capture, requests));
    }

    // A control transfer that carries no frame, in one line.
    void addControl(std::size_t of, const Transfer& control) {
        std::string text;
        if (control.setup) {
            text = requestName(*control.setup) + " (" + setupText(*control.setup) + ")";
        }
        if (control.fromKernelCopy) {
            text += ", the kernel's copy";
        }
        if (!control.completed) {
            text += ": not completed";
        } else if (control.status != 0) {
            text += ": failed [" + errorName(control.status) + "]";
        } else if (control.isIn() || !control.out.empty() || control.redacted) {
            text += (text.empty() ? "" : ": ") + dataText(control);
        }
        addTransferLine(control.firstSeen(), of, control, !control.isIn(), control.duration(), text);
    }

    void addFrame(const Item& item) {
        const Exchange& exchange = m_conversation.exchanges[item.exchange];
        if (!m_recording.shown[exchange.reader]) {
            return;
        }
        const Transfer& frame = transfer(item.index);
        const std::string failure = outcomeText(exchange.outcome, exchange.status);
        if (item.kind == Item::Kind::submission) {
            const bool neverEnds = !frame.completed;
            addTransferLine(*frame.submitted, exchange.reader, frame, true, std::nullopt,
                            dataText(frame) + (neverEnds ? "  (" + failure + ")" : ""));
            return;
        }
        if (exchange.request == item.index) {
            if (frame.status != 0) {
                addTransferLine(*frame.completed, exchange.reader, frame, true, exchange.duration(), failure);
            }
            return;
        }
        const bool isFirst = exchange.answers.front() == item.index;
        std::string text = frame.status == 0 ? dataText(frame) : failure;
        if (frame.status != 0 && frame.actual != 0) {
            text += "; until then " + dataText(frame);
        }
        if (exchange.isLate) {
            text += "  (late: an answer after its time-out)";
        } else if (!exchange.request && frame.status == 0) {
            text += "  (without a request)";
        }
        addTransferLine(*frame.completed, exchange.reader, frame, false,
                        isFirst && exchange.request ? exchange.duration() : std::nullopt, text);
    }

    // ---- summary

    void addSummary() {
        const Summary summary = summaryOf(m_conversation, m_recording.shown);
        m_output.add(counted(summary.readers.size(), "reader") + ", " +
                     counted(summary.exchanges, "exchange") + ", " + std::to_string(summary.failed) +
                     " failed\n\n");
        addTable(summary);
        if (!summary.slowest.empty()) {
            m_output.add("\nSlowest exchanges:\n");
            for (const std::size_t index : summary.slowest) {
                addSlow(m_conversation.exchanges[index]);
            }
        }
    }

    void addTable(const Summary& summary) {
        Table table;
        table.add({"READER", "PATH", "EXCHANGES", "ANSWERED", "FAILED", "MEDIAN MS", "P99 MS", "MAX MS",
                   "NOT ANSWERED"});
        for (const ReaderSummary& each : summary.readers) {
            const RecordedReader& of = reader(each.reader);
            const bool hasTimes = each.times.count() != 0;
            table.add({of.id.empty() ? of.label : of.id, orDash(of.path), std::to_string(each.exchanges),
                       std::to_string(each.of(Outcome::answered)), std::to_string(each.failed()),
                       hasTimes ? number(each.times.median(), 3) : "-",
                       hasTimes ? number(each.times.percentile(99), 3) : "-",
                       hasTimes ? number(each.times.maximum(), 3) : "-", kinds(each)});
        }
        m_output.add(table.text());
    }

    // "3 time-out, 1 stall", and what arrived after its time-out.
    static std::string kinds(const ReaderSummary& summary) {
        std::string text;
        const auto append = [&text](std::size_t count, std::string_view what) {
            if (count != 0) {
                text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + std::string(what);
            }
        };
        for (const Outcome outcome : outcomes) {
            if (outcome != Outcome::answered) {
                append(summary.of(outcome), nameOf(outcome));
            }
        }
        append(summary.late, "answered late");
        return text.empty() ? "-" : text;
    }

    void addSlow(const Exchange& exchange) {
        constexpr std::size_t most = 24; // bytes of a frame
        std::string frame = dataText(transfer(*exchange.request));
        if (frame.size() > 3 * most && !transfer(*exchange.request).redacted) {
            frame.resize(3 * most);
            frame += "...";
        }
        const std::string outcome = exchange.outcome == Outcome::answered
                                        ? ""
                                        : "  " + outcomeText(exchange.outcome, exchange.status);
        addLine(exchange.start, exchange.reader,
                rightAligned(milliseconds(*exchange.duration()), timeColumnWidth) + " ms  ", frame + outcome);
    }

    const ShownRecording& m_recording;
    const Conversation& m_conversation;
    std::size_t m_lineWidth; // 0: without limit
    std::size_t m_timeWidth = 0;
    std::size_t m_labelWidth = std::string_view("READER").size();
    BufferedOutput m_output;
};

} // namespace

void printText(const ShownRecording& recording) {
    TextReport(recording).print();
}

void printTextSummary(const ShownRecording& recording) {
    TextReport(recording).printSummary();
}
