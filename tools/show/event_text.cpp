#include "show/event_text.h"

#include "explanations.h"
#include "hexadecimal.h"
#include "printable_text.h"
#include "show/transfer_names.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <vector>

namespace {

using capture::Event;
using capture::EventType;
using capture::Transfer;

std::optional<std::int64_t> numberOf(const Event& event, const char* key) {
    const auto found = event.details.find(key);
    return found != event.details.end() && found->is_number_integer()
               ? std::optional(found->get<std::int64_t>())
               : std::nullopt;
}

std::string textOf(const Event& event, const char* key) {
    const auto found = event.details.find(key);
    if (found == event.details.end()) {
        return {};
    }
    return printable(found->is_string()
                         ? found->get<std::string>()
                         : found->dump(-1, ' ', false, capture::Json::error_handler_t::replace));
}

// " of interface 0", or nothing if the number is not in the recording.
std::string with(const Event& event, const char* before, const char* key, bool hexadecimal = false) {
    const auto number = numberOf(event, key);
    if (!number) {
        return {};
    }
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), hexadecimal ? "%02llX" : "%lld", static_cast<long long>(*number));
    return before + std::string(text.data());
}

struct Words {
    std::string done;   // if it succeeded
    std::string failed; // what failed
};

Words wordsOf(const Event& event) {
    const std::string interface = with(event, " interface ", "interface");
    const std::string endpoint = with(event, " of endpoint ", "endpoint", true);
    switch (event.type) {
    case EventType::came:
        return {"came", "coming"};
    case EventType::left:
        return {"left", "leaving"};
    case EventType::opened:
        return {"opened", "opening"};
    case EventType::closed:
        return {"closed", "closing"};
    case EventType::claimed:
        return {"claimed" + interface, "claiming" + interface};
    case EventType::released:
        return {"released" + interface, "releasing" + interface};
    case EventType::driverDetached:
        return {"detached the kernel driver" + with(event, " of interface ", "interface"),
                "detaching the kernel driver" + with(event, " of interface ", "interface")};
    case EventType::driverAttached:
        return {"attached the kernel driver" + with(event, " of interface ", "interface"),
                "attaching the kernel driver" + with(event, " of interface ", "interface")};
    case EventType::configurationSet:
        return {"set configuration" + with(event, " ", "configuration"),
                "setting configuration" + with(event, " ", "configuration")};
    case EventType::interfaceSet:
        return {"chose a setting of" + interface, "choosing a setting of" + interface};
    case EventType::reset:
        return {"reset", "resetting"};
    case EventType::haltCleared:
        return {"cleared the halt" + endpoint, "clearing the halt" + endpoint};
    case EventType::endpointReset:
        return {"reset the data toggle" + endpoint, "resetting the data toggle" + endpoint};
    case EventType::discarded:
        return {"canceled a transfer" + endpoint, "canceling a transfer" + endpoint};
    default:
        return {};
    }
}

// The names of what was asked for, each once, in the order in which it was; strings in one list.
std::string askedFor(const capture::Capture& capture, const Requests& requests) {
    std::vector<std::string> names;
    std::vector<std::string> strings;
    const auto addOnce = [](std::vector<std::string>& list, std::string text) {
        if (std::ranges::find(list, text) == list.end()) {
            list.push_back(std::move(text));
        }
    };
    constexpr std::string_view string = "string ";
    for (const std::size_t index : requests.transfers) {
        const Transfer& transfer = capture.transfers[index];
        std::string name = requestName(*transfer.setup);
        if (name.starts_with(string)) {
            addOnce(strings, name.substr(string.size()));
        } else {
            addOnce(names, std::move(name));
        }
    }
    if (!strings.empty()) {
        std::string list = strings.size() == 1 ? "string " : "strings ";
        for (const std::string& each : strings) {
            list += (&each == strings.data() ? "" : ", ") + each;
        }
        names.push_back(std::move(list));
    }
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

std::string failuresOf(const capture::Capture& capture, const Requests& requests) {
    std::string text;
    for (const std::size_t index : requests.transfers) {
        const Transfer& transfer = capture.transfers[index];
        if (!transfer.completed) {
            text += "; " + requestName(*transfer.setup) + ": not completed";
        } else if (transfer.status != 0) {
            text += "; " + requestName(*transfer.setup) + " failed [" + errorName(transfer.status) + "]";
        }
    }
    return text;
}

} // namespace

bool isRoutine(const Event& event) {
    return event.type == EventType::discarded ||
           (event.type == EventType::driverDetached && event.result == -ENODATA);
}

std::string eventText(const Event& event) {
    switch (event.type) {
    case EventType::start: {
        const std::string program = textOf(event, "program");
        return "the recording starts" + (program.empty() ? "" : ": " + program);
    }
    case EventType::end:
        return "the recording ends" + with(event, "; the program's exit status is ", "result");
    case EventType::lost:
        return "the recorder lost records here" + with(event, ": ", "count");
    case EventType::limitReached:
        return "the recording reached its largest size";
    default:
        break;
    }
    const Words words = wordsOf(event);
    if (words.done.empty()) {
        return textOf(event, "type");
    }
    return event.result && *event.result < 0 ? words.failed + " failed [" + errorName(*event.result) + "]"
                                             : words.done;
}

std::string callText(const Event& call) {
    return printable(call.function + "(" + call.arguments + ")");
}

std::string resultText(const Event& call) {
    if (!call.returned) {
        return " did not return";
    }
    if (!call.result) {
        return " returned";
    }
    const auto code = static_cast<int>(*call.result);
    const Explanation* const found = code < 0 ? findExplanation(code) : nullptr;
    const std::string value = textOf(call, "value");
    return " returned " + std::to_string(*call.result) +
           (found != nullptr ? " (" + std::string(found->name) + ")" : "") +
           (value.empty() ? "" : ", \"" + value + "\"");
}

std::string requestsText(const capture::Capture& capture, const Requests& requests) {
    const std::size_t count = requests.transfers.size();
    const Transfer& first = capture.transfers[requests.transfers.front()];
    const Transfer& last = capture.transfers[requests.transfers.back()];
    std::string text = std::to_string(count) + (count == 1 ? " control request" : " control requests");
    if (first.submitted && last.completed) {
        std::array<char, 48> time{};
        std::snprintf(time.data(), time.size(), " in %.1f ms",
                      std::chrono::duration<double, std::milli>(*last.completed - *first.submitted).count());
        text += time.data();
    }
    return text + ": " + askedFor(capture, requests) + failuresOf(capture, requests);
}

std::string dataText(const Transfer& transfer) {
    const capture::Bytes& data = transfer.isIn() ? transfer.in : transfer.out;
    const std::uint32_t length = transfer.isIn() ? transfer.actual : transfer.requested;
    const std::string count = std::to_string(length) + (length == 1 ? " byte" : " bytes");
    if (transfer.redacted) {
        return "(" + count + ", redacted)";
    }
    if (length == 0) {
        return "(empty)";
    }
    std::string text = frameText(data);
    if (data.size() < length) {
        text += (text.empty() ? "" : " ... ") +
                ("(" + count + ", " + std::to_string(data.size()) + " of them captured)");
    }
    return text;
}
