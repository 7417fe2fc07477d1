#include "doctor/settings.h"

#include "base/numbers.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>

namespace {

constexpr std::string_view hotPlugName = "gvusb_hotplug";
constexpr std::string_view logFileName = "gvusb_logfile";
constexpr std::string_view withoutHotPlug = "nopnp";
constexpr std::array<std::string_view, 6> names = {"libusb_debuglevel", "gvusb_debuglevel", hotPlugName,
                                                   "gvusb_updaterate",  "gvusb_parallel",   logFileName};
constexpr std::string_view separators = " \t\r\n,;";

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

std::optional<std::string_view> knownName(std::string_view word) {
    const auto isSame = [](char first, char second) {
        return std::tolower(static_cast<unsigned char>(first)) == second;
    };
    const auto found = std::ranges::find_if(
        names, [&](std::string_view name) { return std::ranges::equal(word, name, isSame); });
    return found == names.end() ? std::nullopt : std::optional(*found);
}

// The library searches the whole text for each key, so the first occurrence counts, even in a comment.
class Examination {
public:
    explicit Examination(std::string_view text)
        : m_text(text.substr(0, text.find('\0'))) {}

    std::vector<SettingMistake> run() {
        for (std::size_t begin = 0; begin < m_text.size();) {
            const std::size_t end = std::min(m_text.find('\n', begin), m_text.size());
            ++m_line;
            examineLine(begin, m_text.substr(begin, end - begin));
            begin = end + 1;
        }
        return std::move(m_mistakes);
    }

private:
    void add(std::string text, std::string remedy) {
        m_mistakes.push_back({.line = m_line, .text = std::move(text), .remedy = std::move(remedy)});
    }

    void examineLine(std::size_t position, std::string_view line) {
        const std::size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string_view::npos) {
            return;
        }
        if (line[first] == '#' || line[first] == ';' || line.substr(first, 2) == "//") {
            examineComment(position, line);
            return;
        }
        for (const std::string_view name : names) {
            examineKey(name, position, line);
        }
        examineWords(line);
    }

    void examineComment(std::size_t position, std::string_view line) {
        const auto counts = [&](std::string_view key) {
            const std::size_t found = m_text.find(key);
            return found >= position && found < position + line.size();
        };
        for (const std::string_view name : names) {
            if (counts(std::string(name) + '=')) {
                reportComment(std::string(name) + '=');
            }
        }
        if (counts(withoutHotPlug)) {
            reportComment(withoutHotPlug);
        }
    }

    void reportComment(std::string_view key) {
        add(quoted(key) + " counts although the line looks like a comment",
            "The library searches the whole file and knows no comments. Remove the line, or break up the "
            "word.");
    }

    void examineKey(std::string_view name, std::size_t position, std::string_view line) {
        const std::string key = std::string(name) + '=';
        const std::size_t inLine = line.find(key);
        if (inLine == std::string_view::npos) {
            return;
        }
        if (const std::size_t counts = m_text.find(key); counts < position) {
            const auto before = m_text.substr(0, counts);
            add(quoted(key) + " is ignored, because line " +
                    std::to_string(1 + std::ranges::count(before, '\n')) + " sets it first",
                "Keep one of the two lines.");
            return;
        }
        const std::string value(m_text.substr(position + inLine + key.size()));
        if (name == logFileName) {
            return; // any file may be meant
        }
        if (name != hotPlugName) {
            if (!leadingNumber<int>(value.c_str())) {
                add(quoted(key) + " is ignored, because no number follows", "Write a number behind it.");
            }
        } else if (value.empty() || value[0] < '0' || value[0] > '2' ||
                   (value.size() > 1 && separators.find(value[1]) == std::string_view::npos)) {
            add(quoted(key) + " is not followed by 0, 1 or 2, so readers may not be reported",
                "Write 'gvusb_hotplug=0', 'gvusb_hotplug=1' or 'gvusb_hotplug=2', without blanks.");
        }
    }

    // Words with "=" that contain no key, and names without "=".
    void examineWords(std::string_view line) {
        std::string_view previous;
        for (;;) {
            const std::size_t begin = line.find_first_not_of(separators);
            if (begin == std::string_view::npos) {
                break;
            }
            line.remove_prefix(begin);
            const std::string_view word = line.substr(0, line.find_first_of(separators));
            line.remove_prefix(word.size());
            const std::size_t equals = word.find('=');
            if (equals != std::string_view::npos) {
                examineAssignment(equals == 0 ? previous : word.substr(0, equals), word, equals == 0);
            } else if (const auto name = knownName(word);
                       name &&
                       !line.substr(std::min(line.find_first_not_of(" \t"), line.size())).starts_with('=')) {
                reportSpelling(word, *name);
            }
            previous = word;
        }
    }

    void examineAssignment(std::string_view name, std::string_view word, bool isApart) {
        const auto hasKey = [&](std::string_view known) {
            return word.find(std::string(known) + '=') != std::string_view::npos;
        };
        if (std::ranges::any_of(names, hasKey)) {
            return;
        }
        if (const auto known = knownName(name)) {
            reportSpelling(isApart ? std::string(name) + " " + std::string(word) : std::string(word), *known);
            return;
        }
        std::string list;
        for (const std::string_view each : names) {
            list += std::string(each) + ", ";
        }
        add(quoted(isApart ? std::string(name) + " " + std::string(word) : std::string(word)) +
                " is not a setting of the library",
            "The settings are " + list + "and " + std::string(withoutHotPlug) + "; see gvusb.conf(5).");
    }

    void reportSpelling(std::string_view written, std::string_view name) {
        add(quoted(written) + " is ignored",
            "Write '" + std::string(name) +
                "=', in lower case, with the value behind it and without blanks.");
    }

    std::string_view m_text;
    std::size_t m_line = 0;
    std::vector<SettingMistake> m_mistakes;
};

} // namespace

std::vector<SettingMistake> findSettingMistakes(std::string_view text) {
    return Examination(text).run();
}
