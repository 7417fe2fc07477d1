// The cases in C++: gvusb.hpp, once with exceptions and gvusb::watch, once with error codes and gvusb::event_source.
#include "binding.h"

#include <gvusb.hpp>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

// The readers that a case has opened, by handle.
std::map<int, gvusb::reader>& readers() {
    static std::map<int, gvusb::reader> opened;
    return opened;
}

int keep(gvusb::reader reader) {
    const int handle = reader.handle();
    return readers().insert_or_assign(handle, std::move(reader)).first->first;
}

// An open reader, or for a handle that is not open a temporary object that does not close it.
class Borrowed {
public:
    explicit Borrowed(int handle)
        : m_known(readers().find(handle))
        , m_other(m_known == readers().end() ? handle : 0) {}
    ~Borrowed() { static_cast<void>(m_other.release()); }
    Borrowed(const Borrowed&) = delete;
    Borrowed& operator=(const Borrowed&) = delete;
    gvusb::reader& operator*() { return m_known == readers().end() ? m_other : m_known->second; }
    gvusb::reader* operator->() { return &**this; }

private:
    std::map<int, gvusb::reader>::iterator m_known;
    gvusb::reader m_other;
};

bool is_number(const std::string& text) {
    const std::size_t sign = text.compare(0, 1, "-") == 0 ? 1 : 0;
    return text.size() > sign && std::all_of(text.begin() + static_cast<std::ptrdiff_t>(sign), text.end(),
                                             [](unsigned char digit) { return std::isdigit(digit) != 0; });
}

std::string hexadecimal(gvusb::device_id id) {
    char text[16];
    std::snprintf(text, sizeof text, "%X", id);
    return text;
}

gvusb::search search_for(const wanted& wanted) {
    if (wanted.family != nullptr) {
        return gvusb::by_family(wanted.family);
    }
    if (wanted.name != nullptr) {
        return gvusb::by_name(wanted.name);
    }
    return wanted.id != nullptr
               ? gvusb::by_id(static_cast<gvusb::device_id>(std::stoul(wanted.id, nullptr, 16)))
               : gvusb::search();
}

// How calls report failures. run() passes a call what it needs for that, and returns its result or the code.
struct Throwing {
    template <class Call>
    static int run(Call call) {
        try {
            return call();
        } catch (const gvusb::error& failure) {
            const bool is_complete =
                failure.code().category() == gvusb::category() && *failure.what() != '\0';
            return is_complete ? failure.code().value() : GVUSB_ERR_INTERNAL;
        }
    }
};

struct WithErrorCode {
    template <class Call>
    static int run(Call call) {
        // A call that succeeds must clear it.
        std::error_code ec = std::make_error_code(std::errc::io_error);
        const int result = call(ec);
        if (ec && ec.category() != gvusb::category()) {
            return GVUSB_ERR_INTERNAL;
        }
        return ec ? ec.value() : result;
    }
};

// Events that a watch or an event source has reported.
class Events {
public:
    void add(const gvusb::event& event) {
        const std::lock_guard lock(m_mutex);
        m_events.push_back(event);
        m_changed.notify_all();
    }

    bool take(std::chrono::milliseconds longest, gvusb::event& event) {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, longest, [&] { return !m_events.empty(); })) {
            return false;
        }
        event = m_events.front();
        m_events.pop_front();
        return true;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<gvusb::event> m_events;
};

Events events;
gvusb::watch watching;
std::optional<gvusb::event_source> source;

int report(const gvusb::event& event, reported* to) {
    *to = {static_cast<int>(event.kind), event.handle, event.id};
    return 1;
}

int copied(const std::string& text, char* value) {
    std::strcpy(value, text.c_str());
    return 0;
}

int stored(const std::vector<gvusb::scan_entry>& entries, unsigned int* ids) {
    std::transform(entries.begin(), entries.end(), ids, [](const auto& entry) { return entry.id(); });
    return static_cast<int>(entries.size());
}

int stored(std::vector<gvusb::reader> opened, int* handles) {
    const int count = static_cast<int>(opened.size());
    for (gvusb::reader& reader : opened) {
        *handles++ = keep(std::move(reader));
    }
    return count;
}

// A parameter by its member function, or by its key if it has none. `ec` is nothing or an error code.
template <class... ErrorCode>
std::string parameter(int handle, const std::string& key, ErrorCode&... ec) {
    if (handle == GVUSB_DRIVER) {
        return key == "HOTPLUG-MODE" ? std::to_string(static_cast<int>(gvusb::driver::mode(ec...)))
                                     : gvusb::driver::parameter(key.c_str(), ec...);
    }
    Borrowed reader(handle);
    if (key == "DEVICE-ID") {
        return hexadecimal(reader->id(ec...));
    }
    if (key == "DEVICENAME") {
        return reader->name(ec...);
    }
    if (key == "FAMILYNAME") {
        return reader->family(ec...);
    }
    if (key == "INTERFACE") {
        return reader->interface_type(ec...);
    }
    if (key == "TYPENUMBER") {
        return reader->type_number(ec...);
    }
    if (key == "TIMEOUT") {
        return std::to_string(reader->timeout(ec...).count());
    }
    if (key == "DEVICEHND") {
        return reader->parameter("DEVICEHND", ec...) == std::to_string(reader->handle())
                   ? std::to_string(reader->handle())
                   : "another handle";
    }
    return reader->parameter(key.c_str(), ec...);
}

template <class... ErrorCode>
void set_parameter(int handle, const std::string& key, const std::string& value, ErrorCode&... ec) {
    if (handle == GVUSB_DRIVER) {
        if (key == "HOTPLUG-UPDATERATE" && is_number(value)) {
            gvusb::driver::set_update_interval(std::chrono::microseconds(std::stoll(value)), ec...);
        } else if (key == "HOTPLUG-SUSPEND" && is_number(value)) {
            gvusb::driver::suspend_polling(value == "1", ec...);
        } else {
            gvusb::driver::set_parameter(key.c_str(), value.c_str(), ec...);
        }
        return;
    }
    Borrowed reader(handle);
    if (key == "TIMEOUT" && is_number(value)) {
        reader->set_timeout(std::chrono::milliseconds(std::stoll(value)), ec...);
    } else if (key == "RESETDEVICE") {
        reader->reset(ec...);
    } else if (key == "RESETPIPE") {
        reader->reset_pipe(ec...);
    } else if (key == "CANCEL") {
        reader->cancel(ec...);
    } else {
        reader->set_parameter(key.c_str(), value.c_str(), ec...);
    }
}

// A null pointer is passed as a pointer and a size, other frames as a range.
template <class... ErrorCode>
std::size_t transceive_bytes(int handle, const unsigned char* frame, std::size_t length,
                             unsigned char* buffer, std::size_t size, ErrorCode&... ec) {
    Borrowed reader(handle);
    if (frame == nullptr || buffer == nullptr) {
        return reader->transceive(frame, length, buffer, size, ec...);
    }
    const std::vector<unsigned char> sent(frame, frame + length);
    return reader->transceive(sent, gvusb::mutable_bytes(buffer, size), ec...);
}

template <class... ErrorCode>
void transmit_bytes(int handle, const unsigned char* frame, std::size_t length, ErrorCode&... ec) {
    Borrowed reader(handle);
    if (frame == nullptr) {
        reader->transmit(frame, length, ec...);
    } else {
        reader->transmit(std::vector<unsigned char>(frame, frame + length), ec...);
    }
}

// A received frame is returned as a vector, except into a null pointer.
template <class... ErrorCode>
std::size_t receive_bytes(int handle, unsigned char* buffer, std::size_t size, ErrorCode&... ec) {
    Borrowed reader(handle);
    if (buffer == nullptr) {
        return reader->receive(buffer, size, ec...);
    }
    const std::vector<std::byte> received = reader->receive(size, ec...);
    std::transform(received.begin(), received.end(), buffer,
                   [](std::byte byte) { return std::to_integer<unsigned char>(byte); });
    return received.size();
}

// Remove a reader from those that the case has opened. An unknown handle gets an object too.
gvusb::reader taken(int handle) {
    const auto node = readers().extract(handle);
    return node.empty() ? gvusb::reader(handle) : std::move(node.mapped());
}

int code_named(const char* name) {
    // The name without its prefix is that of the enumerator; the codes are searched for the name.
    if (std::strcmp(name, "GVUSB_OK") == 0) {
        return static_cast<int>(gvusb::errc());
    }
    for (int code = -1200; code <= 1200; ++code) {
        if (to_string(static_cast<gvusb::errc>(code)) == name) {
            return code;
        }
    }
    return 1;
}

void text_of(int code, char* text) {
    std::strcpy(text, make_error_code(static_cast<gvusb::errc>(code)).message().c_str());
}

int unwatch() {
    watching = {};
    source.reset();
    return 0;
}

int watch_by_callables() {
    return Throwing::run([] {
        watching = gvusb::watch([](const gvusb::event& event) { events.add(event); },
                                [](const gvusb::event& event) { events.add(event); });
        return 0;
    });
}

int next_called(int longest_ms, reported* to) {
    gvusb::event event;
    return events.take(std::chrono::milliseconds(longest_ms), event) ? report(event, to) : 0;
}

int watch_by_source() {
    return WithErrorCode::run([](std::error_code& ec) {
        source.emplace(ec);
        return 0;
    });
}

int next_read(int longest_ms, reported* to) {
    return source->wait(std::chrono::milliseconds(longest_ms)) ? report(source->read(), to) : 0;
}

// Each call as one with or without an error code.
template <class Mode>
struct Calls {
    static int scan(const wanted* wanted, unsigned int* ids) {
        return Mode::run([&](auto&... ec) { return stored(gvusb::scan(search_for(*wanted), ec...), ids); });
    }
    static int open(unsigned int id) {
        return Mode::run([&](auto&... ec) { return keep(gvusb::open(id, ec...)); });
    }
    static int open_first(const wanted* wanted) {
        return Mode::run([&](auto&... ec) { return keep(gvusb::open_first(search_for(*wanted), ec...)); });
    }
    static int open_all(const wanted* wanted, int* handles) {
        return Mode::run(
            [&](auto&... ec) { return stored(gvusb::open_all(search_for(*wanted), ec...), handles); });
    }
    static int close(int handle) {
        return Mode::run([&](auto&... ec) {
            taken(handle).close(ec...);
            return 0;
        });
    }
    static int transceive(int handle, const unsigned char* frame, std::size_t length, unsigned char* buffer,
                          std::size_t size) {
        return Mode::run([&](auto&... ec) {
            return static_cast<int>(transceive_bytes(handle, frame, length, buffer, size, ec...));
        });
    }
    static int transmit(int handle, const unsigned char* frame, std::size_t length) {
        return Mode::run([&](auto&... ec) {
            transmit_bytes(handle, frame, length, ec...);
            return 0;
        });
    }
    static int receive(int handle, unsigned char* buffer, std::size_t size) {
        return Mode::run(
            [&](auto&... ec) { return static_cast<int>(receive_bytes(handle, buffer, size, ec...)); });
    }
    static int get(int handle, const char* key, char* value) {
        return Mode::run([&](auto&... ec) { return copied(parameter(handle, key, ec...), value); });
    }
    static int set(int handle, const char* key, const char* value) {
        return Mode::run([&](auto&... ec) {
            set_parameter(handle, key, value, ec...);
            return 0;
        });
    }
    static int present(int handle) {
        return Mode::run([&](auto&... ec) { return Borrowed(handle)->present(ec...) ? 1 : 0; });
    }
};

template <class Mode>
constexpr binding binding_of(int (*watch)(), int (*next_event)(int, reported*)) {
    using Called = Calls<Mode>;
    return {Called::scan,  Called::open,       Called::open_first, Called::open_all,
            Called::close, Called::transceive, Called::transmit,   Called::receive,
            Called::get,   Called::set,        Called::present,    watch,
            unwatch,       next_event,         code_named,         text_of,
            nullptr};
}

} // namespace

const binding cxx_binding = binding_of<Throwing>(watch_by_callables, next_called);
const binding cxx_binding_without_exceptions = binding_of<WithErrorCode>(watch_by_source, next_read);
