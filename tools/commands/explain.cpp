#include "command.h"
#include "explanations.h"
#include "failure.h"
#include "json.h"
#include "output.h"
#include "table.h"
#include "wrapped_text.h"

#include <charconv>
#include <memory>
#include <optional>

namespace explain_command {
namespace {

constexpr const char* examples = R"(
EXAMPLES
  gvusb explain -1145
  gvusb explain GVUSB_ERR_CANNOT_CLAIM
  gvusb explain
)";

struct Options {
    std::string code;
    bool json = false;
};

constexpr int lowestPublished = 1100;

// Codes are negative; 1144 is accepted for -1144.
std::optional<int> parseCode(const std::string& text) {
    if (const Explanation* const named = findExplanation(std::string_view(text))) {
        return named->code;
    }
    int code = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, code);
    if (error != std::errc{} || stop != end) {
        return std::nullopt;
    }
    return code >= lowestPublished ? -code : code;
}

const CLI::Validator isCode(
    [](std::string& text) {
        return parseCode(text) ? std::string{}
                               : "'" + text + "' is not a code such as -1144 or GVUSB_ERR_NOT_OPENED";
    },
    "");

void explainAll(bool json) {
    if (json) {
        Json all = Json::array();
        for (const Explanation& each : explanations()) {
            all.push_back({{"code", each.code},
                           {"text", libraryText(each.code)},
                           {"cause", each.cause},
                           {"remedy", each.remedy},
                           {"name", each.name}});
        }
        output::print(jsonLine(all, 2));
        return;
    }
    Table table;
    table.add({"CODE", "TEXT", "NAME"});
    for (const Explanation& each : explanations()) {
        table.add({std::to_string(each.code), libraryText(each.code), std::string(each.name)});
    }
    output::print(table.text());
}

void explainOne(int code, bool json) {
    const Explanation* const found = findExplanation(code);
    if (json) {
        Json object = {{"code", code}, {"text", libraryText(code)}};
        object["cause"] = found != nullptr ? Json(found->cause) : Json(nullptr);
        object["remedy"] = found != nullptr ? Json(found->remedy) : Json(nullptr);
        object["name"] = found != nullptr ? Json(found->name) : Json(nullptr);
        output::print(jsonLine(object, 2));
        return;
    }
    std::string text = libraryText(code) + '\n';
    if (found == nullptr) {
        text += wrapped("", "This code is not published.");
    } else {
        text += '\n' + wrapped("Name:    ", found->name) + wrapped("Cause:   ", found->cause);
        if (!found->remedy.empty()) {
            text += wrapped("Remedy:  ", found->remedy);
        }
    }
    output::print(text);
}

ExitStatus explain(const Options& options) {
    if (options.code.empty()) {
        explainAll(options.json);
    } else {
        explainOne(parseCode(options.code).value_or(0), options.json);
    }
    return ExitStatus::ok;
}

} // namespace
} // namespace explain_command

void addExplain(CLI::App& app, ExitStatus& status) {
    using namespace explain_command;
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("explain", "Explain a return code: usual causes and remedies");
    command
        ->add_option("CODE", options->code, "A code such as -1144, or its name; without it, list all codes")
        ->type_name("")
        ->check(isCode);
    command->add_flag("--json", options->json, "Print an object, or an array of all codes, instead of text");
    command->footer(joinSections({exitStatusHelp, examples}));
    command->callback([options, &status] { status = explain(*options); });
}
