// Runs a case of cases.json, which describes the steps. See there.
//
// usage: runner c|cxx|cxx-error-codes cases.json CASE
#include "binding.h"
extern "C" {
#include "bus.h"
}

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

// How late a change may be on a busy machine.
constexpr std::chrono::milliseconds longEnough{60000};
// The length that goes with a null pointer.
constexpr std::size_t anyLength = 5;

class Mismatch : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::string textOr(const json& step, const char* key, const char* otherwise) {
    return step.contains(key) ? step.at(key).get<std::string>() : otherwise;
}

Bytes bytesOf(const std::string& text) {
    Bytes bytes;
    std::size_t position = 0;
    while (position < text.size()) {
        std::size_t digits = 0;
        const auto byte = static_cast<unsigned char>(std::stoul(text.substr(position, 2), &digits, 16));
        position += digits;
        std::size_t times = 1;
        if (position < text.size() && text[position] == '*') {
            times = std::stoul(text.substr(position + 1), &digits, 10);
            position += 1 + digits;
        }
        bytes.insert(bytes.end(), times, byte);
        position += position < text.size() ? 1 : 0; // the blank
    }
    return bytes;
}

std::string shown(const Bytes& bytes) {
    std::string text = std::to_string(bytes.size()) + " bytes:";
    for (std::size_t i = 0; i < bytes.size() && i < 16; ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, " %02X", bytes[i]);
        text += digits;
    }
    return text;
}

unsigned int idOf(const json& step) {
    return static_cast<unsigned int>(std::stoul(step.at("id").get<std::string>(), nullptr, 16));
}

// The texts of a search that a C record points to.
struct Search {
    explicit Search(const json& step)
        : family(textOr(step, "family", ""))
        , name(textOr(step, "name", ""))
        , id(textOr(step, "id", ""))
        , record{family.empty() ? nullptr : family.c_str(), name.empty() ? nullptr : name.c_str(),
                 id.empty() ? nullptr : id.c_str()} {}
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;

    std::string family;
    std::string name;
    std::string id;
    wanted record;
};

class Runner {
public:
    Runner(const binding& language, const json& codes)
        : m_language(language) {
        for (const json& code : codes) {
            check(code);
            m_codes[code.at("name")] = code.at("code");
        }
    }

    void run(const json& step) {
        static const std::map<std::string, int (Runner::*)(const json&)> actions = {
            {"bus", &Runner::command},
            {"scan", &Runner::scan},
            {"open", &Runner::open},
            {"open-first", &Runner::openFirst},
            {"open-all", &Runner::openAll},
            {"close", &Runner::close},
            {"transceive", &Runner::transceive},
            {"transmit", &Runner::transmit},
            {"receive", &Runner::receive},
            {"get", &Runner::get},
            {"set", &Runner::set},
            {"present", &Runner::present},
            {"watch", &Runner::watch},
            {"unwatch", &Runner::unwatch},
            {"event", &Runner::event},
            {"call", &Runner::call},
        };
        const Clock::time_point start = Clock::now();
        const int result = (this->*actions.at(step.at("do")))(step);
        const auto taken = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        if (taken < step.value("takes-ms", 0.0)) {
            throw Mismatch("took only " + std::to_string(taken) + " ms");
        }
        if (step.contains("fails")) {
            expect(result, step.at("fails"));
        } else if (!step.contains("returns") && result < 0) {
            throw Mismatch("failed with " + std::to_string(result));
        }
    }

private:
    // Check that the language has a code, with its number and text.
    void check(const json& code) const {
        const std::string name = code.at("name");
        const int number = m_language.code_named(name.c_str());
        if (number != code.at("code").get<int>()) {
            throw Mismatch(name + " is " + std::to_string(number));
        }
        char text[GVUSB_TEXT_SIZE] = "";
        m_language.text_of(number, text);
        if (code.contains("text") && code.at("text") != text) {
            throw Mismatch("the text of " + name + " is \"" + text + "\"");
        }
    }

    void expect(int result, const json& wanted) const {
        const int number = wanted.is_number() ? wanted.get<int>() : m_codes.at(wanted);
        if (result != number) {
            throw Mismatch("the result is " + std::to_string(result) + " instead of " +
                           std::to_string(number));
        }
    }

    [[nodiscard]] int handle(const json& reader) const {
        if (reader.is_number()) {
            return reader.get<int>();
        }
        return reader == "driver" ? static_cast<int>(GVUSB_DRIVER) : m_readers.at(reader);
    }

    // Store the handle of an opened reader.
    int opened(const json& step, int result) {
        if (result > 0 && step.contains("as")) {
            m_readers[step.at("as")] = result;
        }
        return result;
    }

    int
    command(const json& step) { // NOLINT(readability-convert-member-functions-to-static): one of the actions
        bus("%s", step.at("command").get<std::string>().c_str());
        return 0;
    }

    int scan(const json& step) {
        const Search search(step);
        std::vector<unsigned int> wantedIds;
        for (const json& id : step.at("finds")) {
            wantedIds.push_back(static_cast<unsigned int>(std::stoul(id.get<std::string>(), nullptr, 16)));
        }
        const Clock::time_point end = Clock::now() + longEnough;
        for (;;) {
            unsigned int ids[most_found] = {};
            const int count = m_language.scan(&search.record, ids);
            if (count < 0 || std::equal(wantedIds.begin(), wantedIds.end(), ids, ids + count)) {
                return count;
            }
            if (!step.value("until", false) || Clock::now() > end) {
                throw Mismatch(std::to_string(count) + " readers were found, the first is " +
                               std::to_string(ids[0]));
            }
        }
    }

    int open(const json& step) { return opened(step, m_language.open(idOf(step))); }

    int openFirst(const json& step) {
        const Search search(step);
        return opened(step, m_language.open_first(&search.record));
    }

    int openAll(const json& step) {
        const Search search(step);
        int handles[most_found] = {};
        const int count = m_language.open_all(&search.record, handles);
        if (count < 0) {
            return count;
        }
        expect(count, step.at("as").size());
        for (int i = 0; i < count; ++i) {
            m_readers[step.at("as").at(static_cast<std::size_t>(i))] = handles[i];
        }
        return count;
    }

    int close(const json& step) { return m_language.close(handle(step.at("reader"))); }

    // Pass the frame of a step to a function.
    template <class Send>
    static int sent(const json& step, Send send) {
        if (step.at("send").is_null()) {
            return send(nullptr, anyLength);
        }
        const Bytes frame = bytesOf(step.at("send"));
        static const unsigned char nothing = 0;
        return send(frame.empty() ? &nothing : frame.data(), frame.size());
    }

    // Pass the buffer of a step to a function, and check what it has received.
    template <class Receive>
    static int received(const json& step, Receive receive) {
        if (step.contains("size") && step.at("size").is_null()) {
            return receive(nullptr, anyLength);
        }
        const std::size_t size = step.value("size", std::size_t{512});
        Bytes buffer(size + 1);
        const int count = receive(buffer.data(), size);
        if (count >= 0 && step.contains("answer")) {
            buffer.resize(static_cast<std::size_t>(count));
            if (buffer != bytesOf(step.at("answer"))) {
                throw Mismatch("the answer has " + shown(buffer));
            }
        }
        return count;
    }

    int transceive(const json& step) {
        return sent(step, [&](const unsigned char* frame, std::size_t length) {
            return received(step, [&](unsigned char* buffer, std::size_t size) {
                return m_language.transceive(handle(step.at("reader")), frame, length, buffer, size);
            });
        });
    }

    int transmit(const json& step) {
        return sent(step, [&](const unsigned char* frame, std::size_t length) {
            return m_language.transmit(handle(step.at("reader")), frame, length);
        });
    }

    int receive(const json& step) {
        return received(step, [&](unsigned char* buffer, std::size_t size) {
            return m_language.receive(handle(step.at("reader")), buffer, size);
        });
    }

    int get(const json& step) {
        char value[GVUSB_PARAMETER_SIZE] = "";
        const std::string key = step.at("key");
        const int result = m_language.get(handle(step.at("reader")), key.c_str(), value);
        if (result == 0 && step.at("value") != value) {
            throw Mismatch("the value is \"" + std::string(value) + '"');
        }
        return result;
    }

    int set(const json& step) {
        return m_language.set(handle(step.at("reader")), step.at("key").get<std::string>().c_str(),
                              step.at("value").get<std::string>().c_str());
    }

    int present(const json& step) {
        const int result = m_language.present(handle(step.at("reader")));
        if (result >= 0) {
            expect(result, step.at("is").get<bool>() ? 1 : 0);
        }
        return result;
    }

    int watch(const json& /*step*/) { return m_language.watch(); }

    int unwatch(const json& /*step*/) { return m_language.unwatch(); }

    int event(const json& step) {
        reported event = {};
        if (!awaitEvent(step, event)) {
            throw Mismatch("there is no event");
        }
        expect(event.kind, step.at("kind") == "connect" ? GVUSB_EVENT_CONNECT : GVUSB_EVENT_DISCONNECT);
        expect(static_cast<int>(event.id), idOf(step));
        if (step.contains("handle")) {
            expect(event.handle, handle(step.at("handle")));
        }
        return 0;
    }

    bool awaitEvent(const json& step, reported& event) {
        if (!step.contains("exchanging")) {
            return m_language.next_event(static_cast<int>(longEnough.count()), &event) == 1;
        }
        const Clock::time_point end = Clock::now() + longEnough;
        const int reader = handle(step.at("exchanging"));
        while (m_language.next_event(0, &event) == 0) {
            const unsigned char frame = 1;
            unsigned char buffer[512];
            const int count = m_language.transceive(reader, &frame, 1, buffer, sizeof buffer);
            if (count != 1 || Clock::now() > end) {
                return false;
            }
        }
        return true;
    }

    int call(const json& step) {
        const json& given = step.at("arguments");
        std::vector<std::string> texts(given.size()); // keeps the texts in place
        std::vector<argument> arguments;
        for (std::size_t i = 0; i < given.size(); ++i) {
            if (given[i].is_number()) {
                arguments.push_back({1, given[i].get<int>(), nullptr});
            } else if (given[i].is_string()) {
                texts[i] = given[i];
                arguments.push_back({0, 0, texts[i].c_str()});
            } else {
                arguments.push_back({0, 0, nullptr});
            }
        }
        const std::string function = step.at("function");
        const int result = m_language.call(function.c_str(), arguments.data(), arguments.size());
        expect(result, step.at("returns"));
        return result;
    }

    const binding& m_language;
    std::map<std::string, int> m_codes;
    std::map<std::string, int> m_readers;
};

const binding& bindingNamed(const std::string& name) {
    if (name == "c") {
        return c_binding;
    }
    if (name == "cxx") {
        return cxx_binding;
    }
    if (name == "cxx-error-codes") {
        return cxx_binding_without_exceptions;
    }
    throw std::invalid_argument("there is no binding named " + name);
}

int runCase(const binding& language, const json& table, const std::string& name) {
    Runner runner(language, table.at("codes"));
    for (const json& known : table.at("cases")) {
        if (known.at("name") != name) {
            continue;
        }
        for (const json& step : known.at("steps")) {
            try {
                runner.run(step);
            } catch (const std::exception& error) {
                std::fprintf(stderr, "%s\n  %s\n", step.dump().c_str(), error.what());
                return 1;
            }
        }
        return 0;
    }
    throw std::invalid_argument("there is no case named " + name);
}

} // namespace

int main(int count, char** arguments) try {
    if (count != 4) {
        std::fprintf(stderr, "usage: %s BINDING cases.json CASE\n", arguments[0]);
        return 2;
    }
    std::ifstream file(arguments[2]);
    return runCase(bindingNamed(arguments[1]), json::parse(file), arguments[3]);
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
