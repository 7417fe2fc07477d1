#include "fleet/answer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <system_error>
#include <utility>

namespace fleet {
namespace {

constexpr std::array<std::pair<std::string_view, Status>, 7> names = {{{"ok", Status::ok},
                                                                       {"failed", Status::failed},
                                                                       {"absent", Status::absent},
                                                                       {"busy", Status::busy},
                                                                       {"expired", Status::expired},
                                                                       {"refused", Status::refused},
                                                                       {"unknown", Status::unknown}}};

template <class Number>
std::optional<Number> parseNumber(std::string_view text) {
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc{} && stop == end ? std::optional(number) : std::nullopt;
}

} // namespace

std::string_view statusName(Status status) {
    return std::ranges::find(names, status, &std::pair<std::string_view, Status>::second)->first;
}

std::optional<Status> parseStatus(std::string_view name) {
    const auto* const found = std::ranges::find(names, name, &std::pair<std::string_view, Status>::first);
    return found == names.end() ? std::nullopt : std::optional(found->second);
}

void addAnswer(mqtt::Properties& properties, const Answer& answer) {
    properties.addUserProperty("status", std::string(statusName(answer.status)));
    if (answer.code) {
        properties.addUserProperty("code", std::to_string(*answer.code));
    }
    properties.addUserProperty("text", answer.text);
    if (answer.microseconds) {
        properties.addUserProperty("duration", std::to_string(*answer.microseconds));
    }
}

std::optional<Answer> answerOf(const mqtt::MessageProperties& properties) {
    std::optional<Status> status;
    Answer answer;
    for (const auto& [name, value] : properties.userProperties) {
        if (name == "status") {
            status = parseStatus(value);
        } else if (name == "code") {
            answer.code = parseNumber<int>(value);
        } else if (name == "text") {
            answer.text = value;
        } else if (name == "duration") {
            answer.microseconds = parseNumber<std::uint64_t>(value);
        }
    }
    if (!status) {
        return std::nullopt;
    }
    answer.status = *status;
    return answer;
}

} // namespace fleet
