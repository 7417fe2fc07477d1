#include "show/plot.h"

#include "printable_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iomanip>
#include <map>
#include <sstream>
#include <string_view>

namespace {

// Colors that people with any color vision can tell apart (Okabe and Ito), and shapes that need no color.
struct Kind {
    const char* block; // of data
    const char* title;
    const char* color;
    int shape; // of a mark above the box; 0: none
};

constexpr std::array<Kind, 4> kinds = {{{"answered", "answered", "#0072B2", 0},
                                        {"sent", "no answer read", "#999999", 0},
                                        {"timeout", "time-out", "#D55E00", 7},
                                        {"failed", "other failure", "#000000", 9}}};
constexpr const char* unaskedColor = "#009E73";
constexpr const char* absentColor = "#E8E4D0";

std::size_t kindOf(Outcome outcome) {
    switch (outcome) {
    case Outcome::answered:
        return 0;
    case Outcome::sent:
        return 1;
    case Outcome::timeOut:
        return 2;
    default:
        return 3;
    }
}

struct Unit {
    const char* name;
    double seconds;
};

Unit unitOf(double seconds) {
    constexpr double shortest = 2;
    constexpr double minute = 60;
    constexpr double hour = 3600;
    return seconds < shortest      ? Unit{"ms", 0.001}
           : seconds < 10 * minute ? Unit{"s", 1}
           : seconds < 6 * hour    ? Unit{"min", minute}
                                   : Unit{"h", hour};
}

std::string durationText(int decade) {
    constexpr std::array<const char*, 3> prefixes = {"s", "ms", "\302\265s"};
    int thousands = 0;
    while (decade < 0 && thousands < 2) {
        decade += 3;
        ++thousands;
    }
    std::string text = "1";
    for (; decade > 0; --decade) {
        text += '0';
    }
    return text + " " + prefixes[static_cast<std::size_t>(thousands)];
}

// A lane from `bottom` to `bottom` + 1.
struct Lane {
    std::size_t reader = 0;
    double bottom = 0;
    std::array<std::vector<PlotBox>, kinds.size()> boxes;
    std::vector<double> unasked;
};

class Plot {
public:
    Plot(const Conversation& conversation, const std::vector<bool>& shown)
        : m_conversation(conversation)
        , m_seconds(std::max(conversation.seconds(conversation.end), 1e-6))
        , m_unit(unitOf(m_seconds)) {
        makeLanes(shown);
        reduce();
        findScale();
    }

    std::string script(const std::string& title) {
        writeHead(title);
        writeLanes();
        writeData();
        writePlot();
        return m_script.str();
    }

private:
    static constexpr double lowest = 0.06; // where in its lane the scale begins: even the shortest is seen
    static constexpr double highest = 0.86;

    void makeLanes(const std::vector<bool>& shown) {
        std::vector<Lane*> ofReader(shown.size());
        const auto count = static_cast<std::size_t>(std::ranges::count(shown, true));
        m_lanes.resize(count);
        std::size_t next = 0;
        for (std::size_t i = 0; i < shown.size(); ++i) {
            if (shown[i]) {
                ofReader[i] = &m_lanes[next];
                m_lanes[next].reader = i;
                m_lanes[next].bottom = static_cast<double>(count - 1 - next);
                ++next;
            }
        }
        for (const Exchange& exchange : m_conversation.exchanges) {
            if (Lane* const lane = ofReader[exchange.reader]; lane != nullptr) {
                add(exchange, *lane);
            }
        }
    }

    void add(const Exchange& exchange, Lane& lane) const {
        const double begin = m_conversation.seconds(exchange.start);
        const double end = m_conversation.seconds(exchange.end.value_or(m_conversation.end));
        if (exchange.request) {
            lane.boxes[kindOf(exchange.outcome)].push_back(
                {.begin = begin, .end = end, .duration = end - begin});
        } else if (exchange.outcome == Outcome::answered) {
            lane.unasked.push_back(end);
        }
    }

    void reduce() {
        constexpr std::size_t mostBoxes = 20'000; // a file of about 2 megabytes
        constexpr std::size_t fewest = 200;
        constexpr std::size_t most = 1'000;
        const std::size_t columns =
            std::clamp(mostBoxes / std::max<std::size_t>(1, m_lanes.size()), fewest, most);
        for (Lane& lane : m_lanes) {
            for (auto& boxes : lane.boxes) {
                boxes = merged(boxes, m_seconds, columns);
            }
            const auto column = [&](double time) {
                return std::floor(time / m_seconds * static_cast<double>(columns));
            };
            const auto isSame = [&](double one, double other) { return column(one) == column(other); };
            lane.unasked.erase(std::unique(lane.unasked.begin(), lane.unasked.end(), isSame),
                               lane.unasked.end());
        }
    }

    // Whole decades around all durations.
    void findScale() {
        double shortest = 0;
        double longest = 0;
        for (const Lane& lane : m_lanes) {
            for (const auto& boxes : lane.boxes) {
                for (const PlotBox& box : boxes) {
                    const double duration = std::max(box.duration, 1e-6);
                    shortest = shortest == 0 ? duration : std::min(shortest, duration);
                    longest = std::max(longest, duration);
                }
            }
        }
        if (longest != 0) {
            m_lowDecade = static_cast<int>(std::floor(std::log10(shortest)));
            constexpr double slightly = 0.04; // beyond a decade, as time-outs are
            m_highDecade =
                std::max(static_cast<int>(std::ceil(std::log10(longest) - slightly)), m_lowDecade + 1);
        }
    }

    double height(double duration) const {
        const double decade = std::log10(std::max(duration, 1e-6));
        const double part = (decade - m_lowDecade) / (m_highDecade - m_lowDecade);
        return lowest + (highest - lowest) * std::clamp(part, 0.0, 1.0);
    }

    double x(double seconds) const { return seconds / m_unit.seconds; }

    bool has(std::size_t kind) const {
        return std::ranges::any_of(m_lanes, [kind](const Lane& lane) { return !lane.boxes[kind].empty(); });
    }

    bool hasUnasked() const {
        return std::ranges::any_of(m_lanes, [](const Lane& lane) { return !lane.unasked.empty(); });
    }

    bool hasAbsences() const {
        return std::ranges::any_of(m_lanes, [this](const Lane& lane) {
            return !m_conversation.readers.readers[lane.reader].absences.empty();
        });
    }

    // ---- what is drawn

    void writeHead(const std::string& title) {
        constexpr std::size_t around = 130;
        constexpr std::size_t tallest = 6'000;
        const std::size_t lane = m_lanes.size() <= 4 ? 120 : m_lanes.size() <= 16 ? 80 : 40;
        const std::size_t height =
            std::min(tallest, around + lane * std::max<std::size_t>(1, m_lanes.size()));
        m_isNarrow = height < around + 60 * m_lanes.size();
        m_script << "set terminal svg size 1200," << height
                 << " noenhanced font 'sans-serif,13' background '#FFFFFF'\n"
                 << "set encoding utf8\n"
                 << "set title " << gnuplotString(title) << " font ',15'\n"
                 << "set key outside bottom center horizontal samplen 2 maxrows 1\n"
                 << "set border 3 linecolor '#444444'\n"
                 << "set tics nomirror out\n"
                 << "set style fill solid 1.0\n"
                 << "set xlabel 'time since the start of the recording (" << m_unit.name
                 << ")' offset 0,0.4\n"
                 << "set xrange [0:" << x(m_seconds) * 1.005 << "]\n"
                 << "set yrange [0:" << std::max<std::size_t>(1, m_lanes.size()) << "]\n"
                 << "set y2range [0:" << std::max<std::size_t>(1, m_lanes.size()) << "]\n"
                 << "set y2label 'duration of an exchange'\n";
    }

    void writeLanes() {
        std::string labels;
        std::string scale;
        for (const Lane& lane : m_lanes) {
            const RecordedReader& reader = m_conversation.readers.readers[lane.reader];
            std::string label = gnuplotString(reader.label);
            if (!reader.path.empty() && reader.path != reader.label && !m_isNarrow) {
                label += ".\"\\n\"." + gnuplotString(reader.path);
            }
            labels += (labels.empty() ? "" : ", ") + label + " " + std::to_string(lane.bottom + 0.5);
            m_script << "set arrow from graph 0, first " << lane.bottom << " to graph 1, first "
                     << lane.bottom << " nohead linewidth 1 linecolor '#444444' back\n";
            writeScale(lane, scale);
        }
        m_script << "set ytics scale 0 (" << labels << ")\n";
        m_script << "set y2tics scale 0.5 font ',10' (" << scale << ")\n";
    }

    void writeScale(const Lane& lane, std::string& labels) {
        const int decades = m_highDecade - m_lowDecade;
        const int step = m_isNarrow ? decades + 1 : (decades + 3) / 4; // labels that do not overlap
        for (int decade = m_lowDecade; decade <= m_highDecade; ++decade) {
            const double at = lane.bottom + height(std::pow(10.0, decade));
            m_script << "set arrow from graph 0, first " << at << " to graph 1, first " << at
                     << " nohead linewidth 0.5 linecolor '#DDDDDD' back\n";
            if ((m_highDecade - decade) % step == 0) {
                labels += (labels.empty() ? "" : ", ") + gnuplotString(durationText(decade)) + " " +
                          std::to_string(at);
            }
        }
    }

    // Without rows, a block would be an error.
    void writeData() {
        m_script << std::setprecision(9);
        for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
            if (!has(kind)) {
                continue;
            }
            m_script << "$" << kinds[kind].block << " << EOD\n";
            for (const Lane& lane : m_lanes) {
                for (const PlotBox& box : lane.boxes[kind]) {
                    const double top = lane.bottom + height(box.duration);
                    m_script << x(box.begin) << ' ' << lane.bottom + 0.02 << ' ' << x(box.begin) << ' '
                             << x(box.end) << ' ' << lane.bottom + 0.02 << ' ' << top << ' '
                             << x((box.begin + box.end) / 2) << ' ' << top + 0.06 << '\n';
                }
            }
            m_script << "EOD\n";
        }
        if (hasUnasked()) {
            m_script << "$unasked << EOD\n";
            for (const Lane& lane : m_lanes) {
                for (const double time : lane.unasked) {
                    m_script << x(time) << ' ' << lane.bottom + 0.06 << '\n';
                }
            }
            m_script << "EOD\n";
        }
        if (hasAbsences()) {
            m_script << "$absent << EOD\n";
            for (const Lane& lane : m_lanes) {
                for (const auto& [from, to] : m_conversation.readers.readers[lane.reader].absences) {
                    const double begin = x(m_conversation.seconds(from));
                    const double end = x(m_conversation.seconds(to.value_or(m_conversation.end)));
                    m_script << begin << ' ' << lane.bottom << ' ' << begin << ' ' << end << ' '
                             << lane.bottom << ' ' << lane.bottom + 0.98 << '\n';
                }
            }
            m_script << "EOD\n";
        }
    }

    void writePlot() {
        std::vector<std::string> parts;
        if (hasAbsences()) {
            parts.push_back(boxes("absent", absentColor, "reader absent"));
        }
        for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
            if (!has(kind)) {
                continue;
            }
            const Kind& each = kinds[kind];
            const bool hasMark = each.shape != 0;
            parts.push_back(boxes(each.block, each.color, hasMark ? nullptr : each.title));
            if (hasMark) {
                parts.push_back("$" + std::string(each.block) + " using 7:8 with points pointtype " +
                                std::to_string(each.shape) + " pointsize 0.8 linecolor '" + each.color +
                                "' title '" + each.title + "'");
            }
        }
        if (hasUnasked()) {
            parts.push_back("$unasked using 1:2 with points pointtype 13 pointsize 0.5 linecolor '" +
                            std::string(unaskedColor) + "' title 'frame without a request'");
        }
        if (parts.empty()) {
            parts.emplace_back("NaN notitle");
        }
        m_script << "plot ";
        for (const std::string& part : parts) {
            m_script << (&part == parts.data() ? "" : ", \\\n  ") << part;
        }
        m_script << '\n';
    }

    static std::string boxes(const char* block, const char* color, const char* title) {
        return "$" + std::string(block) + " using 1:2:3:4:5:6 with boxxyerror linewidth 1 linecolor '" +
               color + "' " + (title != nullptr ? "title '" + std::string(title) + "'" : "notitle");
    }

    const Conversation& m_conversation;
    double m_seconds;
    Unit m_unit;
    std::vector<Lane> m_lanes;
    int m_lowDecade = -3;
    int m_highDecade = 0;
    bool m_isNarrow = false;
    std::ostringstream m_script;
};

} // namespace

std::vector<PlotBox> merged(const std::vector<PlotBox>& boxes, double seconds, std::size_t columns) {
    if (boxes.size() <= columns) {
        return boxes;
    }
    std::map<std::size_t, PlotBox> byColumn;
    for (const PlotBox& box : boxes) {
        const auto column = static_cast<std::size_t>(box.begin / seconds * static_cast<double>(columns));
        const auto [found, isNew] = byColumn.try_emplace(column, box);
        if (!isNew) {
            PlotBox& known = found->second;
            known.end = std::max(known.end, box.end);
            known.duration = std::max(known.duration, box.duration);
        }
    }
    std::vector<PlotBox> result;
    result.reserve(byColumn.size());
    for (const auto& [column, box] : byColumn) {
        result.push_back(box);
    }
    return result;
}

std::string gnuplotString(const std::string& text) {
    std::string result = "'";
    for (const char character : printable(text)) {
        result += character;
        if (character == '\'') {
            result += character;
        }
    }
    return result + "'";
}

std::string plotScript(const Conversation& conversation, const std::vector<bool>& shown,
                       const std::string& title) {
    return Plot(conversation, shown).script(title);
}
