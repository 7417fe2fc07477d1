#include "model/description.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace emulator {

namespace {

// A string descriptor has at most 255 bytes: two for its header, two for each UTF-16 unit.
constexpr std::size_t longestString = 126;
constexpr std::uint64_t mostCopies = 1000;

struct Draft {
    ReaderDescription reader;
    std::uint64_t copies = 1;
    bool hasReply = false;
};

std::vector<Endpoint> parseEndpoints(std::string_view text) {
    if (text == "bulk") {
        return {{.address = 0x81}, {.address = 0x02}};
    }
    if (text == "none" || text == "control") {
        return {};
    }
    if (text == "in-only") {
        return {{.address = 0x81}};
    }
    if (text == "out-only") {
        return {{.address = 0x02}};
    }
    if (text == "interrupt") {
        return {{.address = 0x83, .type = TransferType::interrupt}};
    }
    std::vector<Endpoint> endpoints;
    for (const std::string& piece : splitEscaped(text, '+')) {
        const std::vector<std::string> parts = splitEscaped(piece, ':');
        Endpoint endpoint;
        if (!piece.starts_with("0x") || parts.size() > 3) {
            throw TextError(
                "endpoints must be bulk, control, none, in-only, out-only, interrupt or a list such "
                "as 0x81+0x02:bulk:64+0x83:interrupt, not '" +
                piece + "'");
        }
        endpoint.address = static_cast<std::uint8_t>(number("endpoint address", parts[0], 0x01, 0x8F));
        if ((endpoint.address & 0x70) != 0 || (endpoint.address & 0x0F) == 0) {
            throw TextError("endpoint address must be 0x01 to 0x0F or 0x81 to 0x8F, not '" + parts[0] + "'");
        }
        if (parts.size() > 1) {
            if (parts[1] == "bulk") {
                endpoint.type = TransferType::bulk;
            } else if (parts[1] == "interrupt") {
                endpoint.type = TransferType::interrupt;
            } else if (parts[1] == "iso") {
                endpoint.type = TransferType::isochronous;
            } else {
                throw TextError("endpoint type must be bulk, interrupt or iso, not '" + parts[1] + "'");
            }
        }
        if (parts.size() > 2) {
            endpoint.packetSize = static_cast<std::uint16_t>(number("packet size", parts[2], 1, 1024));
        }
        if (std::ranges::find(endpoints, endpoint.address, &Endpoint::address) != endpoints.end()) {
            throw TextError("duplicate endpoint " + parts[0]);
        }
        endpoints.push_back(endpoint);
    }
    return endpoints;
}

std::vector<std::uint8_t> parseConfigurations(std::string_view text) {
    std::vector<std::uint8_t> values;
    if (text == "none") {
        return values;
    }
    for (const std::string& piece : splitEscaped(text, '+')) {
        const auto value = static_cast<std::uint8_t>(number("configuration", piece, 1, 255));
        if (std::find(values.begin(), values.end(), value) != values.end()) {
            throw TextError("duplicate configuration value " + piece);
        }
        values.push_back(value);
    }
    return values;
}

Speed parseSpeed(std::string_view text) {
    if (text == "low") {
        return Speed::low;
    }
    if (text == "full") {
        return Speed::full;
    }
    if (text == "high") {
        return Speed::high;
    }
    throw TextError("speed must be low, full or high, not '" + std::string(text) + "'");
}

FrameEnd parseFrames(std::string_view text) {
    if (text == "transfer") {
        return FrameEnd::transfer;
    }
    if (text == "short-packet") {
        return FrameEnd::shortPacket;
    }
    throw TextError("frames must be transfer or short-packet, not '" + std::string(text) + "'");
}

bool parseYesNo(std::string_view what, std::string_view text) {
    if (text == "yes") {
        return true;
    }
    if (text == "no") {
        return false;
    }
    throw TextError(std::string(what) + " must be yes or no, not '" + std::string(text) + "'");
}

void setString(Draft& draft, std::uint8_t index, std::string_view text) {
    if (text.size() > longestString) {
        throw TextError("string " + std::to_string(index) + " is longer than " +
                        std::to_string(longestString) + " characters");
    }
    draft.reader.strings[index] = text;
}

void removeStrings(Draft& draft, std::string_view indexes) {
    for (const std::string& piece : splitEscaped(indexes, '+')) {
        draft.reader.strings.erase(static_cast<std::uint8_t>(number("missing string", piece, 1, 255)));
    }
}

struct Key {
    std::string_view name;
    std::string_view meaning;
    void (*apply)(Draft& draft, std::string_view value);
};

using Value = std::string_view;

constexpr std::array keys = {
    Key{"id", "device ID, string 1 (1A2B3C)", [](Draft& d, Value v) { setString(d, deviceIdString, v); }},
    Key{"family", "family name, string 3", [](Draft& d, Value v) { setString(d, familyNameString, v); }},
    Key{"name", "device name, string 5", [](Draft& d, Value v) { setString(d, deviceNameString, v); }},
    Key{"interface", "interface type, string 6 (TESK RCI2)",
        [](Draft& d, Value v) { setString(d, interfaceTypeString, v); }},
    Key{"type", "type number, string 10", [](Draft& d, Value v) { setString(d, typeNumberString, v); }},
    Key{"missing", "string descriptors that the reader lacks, such as 3 or 3+5", removeStrings},
    Key{"product", "product ID (1)",
        [](Draft& d, Value v) {
            d.reader.product = static_cast<std::uint16_t>(number("product", v, 0, 0xFFFF));
        }},
    Key{"vendor", "vendor ID, for a device of another vendor",
        [](Draft& d, Value v) {
            d.reader.vendor = static_cast<std::uint16_t>(number("vendor", v, 0, 0xFFFF));
        }},
    Key{"release", "device release number (0x0100)",
        [](Draft& d, Value v) {
            d.reader.release = static_cast<std::uint16_t>(number("release", v, 0, 0xFFFF));
        }},
    Key{"endpoints",
        "bulk (0x81 and 0x02), control (or none), in-only, out-only, interrupt, or a list of\n"
        "                    ADDRESS[:bulk|interrupt|iso[:PACKETSIZE]] joined by +",
        [](Draft& d, Value v) { d.reader.endpoints = parseEndpoints(v); }},
    Key{"configuration", "configuration values in descriptor order, such as 2+1, or none (1)",
        [](Draft& d, Value v) { d.reader.configurations = parseConfigurations(v); }},
    Key{"interfaces", "number of interfaces, 0 to 8 (1)",
        [](Draft& d, Value v) {
            d.reader.interfaces = static_cast<std::uint8_t>(number("interfaces", v, 0, 8));
        }},
    Key{"first-interface", "number of the first interface (0)",
        [](Draft& d, Value v) {
            d.reader.firstInterface = static_cast<std::uint8_t>(number("first-interface", v, 0, 7));
        }},
    Key{"descriptors",
        "device and configuration descriptors as programs read them, in hexadecimal, for a\n"
        "                    reader that describes itself wrongly; how it behaves is up to the other keys",
        [](Draft& d, Value v) { d.reader.descriptors = hexBytes("descriptors", v); }},
    Key{"speed", "low, full or high (full)", [](Draft& d, Value v) { d.reader.speed = parseSpeed(v); }},
    Key{"bus", "bus number (1)",
        [](Draft& d, Value v) { d.reader.bus = static_cast<std::uint8_t>(number("bus", v, 1, 255)); }},
    Key{"address", "device address, 2 to 127, kept over replugging; by default the next free one",
        [](Draft& d, Value v) {
            d.reader.address = static_cast<std::uint8_t>(number("address", v, 2, 127));
        }},
    Key{"driver", "kernel driver bound to the first interface, such as usbhid",
        [](Draft& d, Value v) { d.reader.kernelDriver = v; }},
    Key{"reply", "echo, reverse, none, fixed:HEX or pattern:COUNT (echo)",
        [](Draft& d, Value v) {
            d.reader.reply = ReplyRule::parse(v);
            d.hasReply = true;
        }},
    Key{"frames",
        "what ends a frame to a bulk reader: transfer, or short-packet for a frame that goes on in\n"
        "                    the next transfer until a short or zero-length packet (transfer)",
        [](Draft& d, Value v) { d.reader.frames = parseFrames(v); }},
    Key{"plugged", "yes, or no to leave plugging to a command (yes)",
        [](Draft& d, Value v) { d.reader.plugged = parseYesNo("plugged", v); }},
    Key{"copies", "number of readers, with consecutive device IDs (1)",
        [](Draft& d, Value v) { d.copies = number("copies", v, 1, mostCopies); }},
    Key{"logic",
        "shell command that plays the reader, see LOGIC; the last key, because its value is the\n"
        "                    rest of the text, with commas and backslashes",
        [](Draft& d, Value v) {
            d.reader.logic = trimmed(v);
            if (d.reader.logic.empty()) {
                throw TextError("logic needs a command");
            }
        }},
};

void applyPair(Draft& draft, std::string_view pair) {
    const auto equals = pair.find('=');
    if (equals == std::string_view::npos) {
        throw TextError("expected KEY=VALUE, not '" + std::string(pair) + "'");
    }
    const std::string_view name = trimmed(pair.substr(0, equals));
    const std::string_view value = pair.substr(equals + 1);
    if (name.starts_with("string")) {
        setString(draft, static_cast<std::uint8_t>(number("string index", name.substr(6), 1, 255)), value);
        return;
    }
    for (const Key& key : keys) {
        if (key.name == name) {
            key.apply(draft, value);
            return;
        }
    }
    throw TextError("unknown key '" + std::string(name) + "'");
}

// A real host accepts no such device either.
void checkSpeed(const ReaderDescription& reader) {
    const auto fits = [](const Endpoint& endpoint) { return endpoint.type == TransferType::interrupt; };
    if (reader.speed == Speed::low && !std::ranges::all_of(reader.endpoints, fits)) {
        throw TextError(
            "speed=low cannot be used with bulk or isochronous endpoints, which low-speed devices do not "
            "have; add endpoints=control or endpoints=interrupt");
    }
}

// The pairs of a line without escapes. The value of "logic" is everything after it.
std::vector<std::string> pairsOf(std::string_view line) {
    std::vector<std::string> pairs;
    for (;;) {
        const std::size_t key = line.find_first_of(",=");
        if (key != std::string_view::npos && line[key] == '=' && trimmed(line.substr(0, key)) == "logic") {
            pairs.emplace_back(line);
            return pairs;
        }
        std::size_t end = 0;
        while (end < line.size() && line[end] != ',') {
            end += line[end] == '\\' ? 2U : 1U;
        }
        pairs.push_back(splitEscaped(line.substr(0, end), ',').front());
        if (end >= line.size()) {
            return pairs;
        }
        line.remove_prefix(end + 1);
    }
}

std::uint64_t hexadecimalId(const std::string& text) {
    try {
        return number("id", "0x" + text, 0, 0xFFFFFFFF);
    } catch (const TextError&) {
        throw TextError("id must be hexadecimal if there are copies, not '" + text + "'");
    }
}

std::string hexNumber(std::uint64_t value) {
    std::array<char, 17> text{};
    std::snprintf(text.data(), text.size(), "%llX", static_cast<unsigned long long>(value));
    return text.data();
}

} // namespace

std::vector<ReaderDescription> parseReaders(std::string_view line) {
    Draft draft;
    for (const std::string& pair : pairsOf(line)) {
        if (!trimmed(pair).empty()) {
            applyPair(draft, pair);
        }
    }
    checkSpeed(draft.reader);
    if (!draft.reader.logic.empty() && !draft.hasReply) {
        draft.reader.reply = ReplyRule::parse("none");
    }
    std::vector<ReaderDescription> readers(static_cast<std::size_t>(draft.copies), draft.reader);
    for (std::size_t i = 0; i < readers.size(); ++i) {
        readers[i].copy = i + 1;
    }
    if (draft.copies > 1 && draft.reader.address) {
        throw TextError("copies cannot be used with address: two readers cannot share an address");
    }
    if (draft.copies > 1 && draft.reader.strings.contains(deviceIdString)) {
        const std::uint64_t first = hexadecimalId(draft.reader.strings[deviceIdString]);
        for (std::size_t i = 0; i < readers.size(); ++i) {
            readers[i].strings[deviceIdString] = hexNumber(first + i);
        }
    }
    return readers;
}

std::vector<ReaderDescription> readReaders(const std::filesystem::path& file) {
    std::ifstream stream(file);
    if (!stream) {
        throw TextError("cannot read " + file.string());
    }
    std::vector<ReaderDescription> readers;
    std::string line;
    for (unsigned lineNumber = 1; std::getline(stream, line); ++lineNumber) {
        const std::string_view text = trimmed(lineNumber == 1 ? withoutByteOrderMark(line) : line);
        if (text.empty() || text.front() == '#') {
            continue;
        }
        try {
            std::ranges::move(parseReaders(text), std::back_inserter(readers));
        } catch (const TextError& error) {
            throw TextError(file.string() + ":" + std::to_string(lineNumber) + ": " + error.what());
        }
    }
    if (stream.bad()) {
        throw TextError("cannot read " + file.string());
    }
    return readers;
}

std::vector<ReaderDescription> defaultReaders() {
    ReaderDescription bulk;
    bulk.strings[deviceNameString] = "Virtual Bulk Reader";
    ReaderDescription control;
    control.product = lowestReaderProduct + 1;
    control.endpoints.clear();
    control.strings[deviceIdString] = "1A2B3D";
    control.strings[deviceNameString] = "Virtual Control Reader";
    return {bulk, control};
}

std::string describeKeys() {
    constexpr std::size_t column = 20;
    std::string text;
    for (const Key& key : keys) {
        std::string line = "  " + std::string(key.name) + "=";
        line.resize(std::max(line.size() + 1, column), ' ');
        text += line + std::string(key.meaning) + "\n";
    }
    text += "  stringN=          string descriptor N\n";
    return text;
}

} // namespace emulator
