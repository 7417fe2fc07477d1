/**
 * @file gvusb.hpp
 *
 * The interface of the library for C++17 and later: the functions of gvusb.h as classes that own what they open,
 * report failures by exceptions or std::error_code, and call any callable. See @ref cxx.
 */
#ifndef GVUSB_HPP
#define GVUSB_HPP

#include <gvusb.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

/**
 * @defgroup cxx The C++ interface
 *
 * The header gvusb.hpp gives C++ programs what gvusb.h gives C programs. It needs C++17 and no other library. Link with
 * the same library. A program may mix both interfaces.
 *
 * @par Failures
 * A call that fails throws gvusb::error. The same call with a std::error_code& as its last argument does not throw: it
 * clears the error code or stores the failure in it. Codes are those of gvusb.h, so `error.code() ==
 * gvusb::errc::timeout` and `error.code() == std::errc::timed_out` work. If memory runs out, calls without an error
 * code throw std::bad_alloc, and the others store gvusb::errc::no_memory. The text of an error comes from
 * GVUSB_GetErrorText, which clears the manager's last error.
 *
 * @par Readers
 * gvusb::open, gvusb::open_first and gvusb::open_all return a gvusb::reader, which closes the reader when it is
 * destroyed. Two of these objects can refer to the same reader; the last one closes it.
 *
 * @par Frames
 * A frame is any contiguous range of bytes: std::array, std::vector, std::span (where the standard library has it),
 * std::string_view, or a pointer and a size. With a buffer of the caller, neither memory is allocated nor is the frame
 * copied.
 *
 * @par Events
 * gvusb::watch calls callables. gvusb::event_source queues events for the event loop of the application.
 *
 * @par Threads
 * Functions may be called from any thread. Two threads may use one object at the same time, but not while one of them
 * closes, moves, assigns or destroys it.
 *
 * @{
 */

/** The C++ interface. */
namespace gvusb {

/** The device ID of a reader. */
using device_id = unsigned int;

/**
 * The codes of gvusb.h. Their names lack the prefix and are in lower case: errc::timeout is #GVUSB_ERR_TIMEOUT, and
 * errc::no_scan_list_entry is GVUSB_NO_SCAN_LIST_ENTRY. The library does not return errc::no_memory, but functions
 * of this header do. A std::error_code compares equal to its code.
 */
enum class errc : int {
    /** @cond */
    empty_device_list = GVUSB_ERR_EMPTY_DEVICE_LIST,
    empty_scan_list = GVUSB_ERR_EMPTY_SCAN_LIST,
    null_pointer = GVUSB_ERR_NULL_POINTER,
    no_memory = GVUSB_ERR_NO_MEMORY,
    set_configuration = GVUSB_ERR_SET_CONFIGURATION,
    kernel_function = GVUSB_ERR_KERNEL_FUNCTION,
    unsupported_option = GVUSB_ERR_UNSUPPORTED_OPTION,
    unsupported_method = GVUSB_ERR_UNSUPPORTED_METHOD,
    no_configuration = GVUSB_ERR_NO_CONFIGURATION,
    libusb_api = GVUSB_ERR_LIBUSB_API,
    no_gavo_device = GVUSB_ERR_NO_GAVO_DEVICE,
    search_mismatch = GVUSB_ERR_SEARCH_MISMATCH,
    no_device_found = GVUSB_ERR_NO_DEVICE_FOUND,
    already_scanned = GVUSB_ERR_ALREADY_SCANNED,
    scan_list_overflow = GVUSB_ERR_SCAN_LIST_OVERFLOW,
    no_current_entry = GVUSB_ERR_NO_CURRENT_ENTRY,
    unknown_device_handle = GVUSB_ERR_UNKNOWN_DEVICE_HANDLE,
    null_handle = GVUSB_ERR_NULL_HANDLE,
    negative_handle = GVUSB_ERR_NEGATIVE_HANDLE,
    handle_not_found = GVUSB_ERR_HANDLE_NOT_FOUND,
    timeout = GVUSB_ERR_TIMEOUT,
    no_send_data = GVUSB_ERR_NO_SEND_DATA,
    unknown_interface = GVUSB_ERR_UNKNOWN_INTERFACE,
    unknown_direction = GVUSB_ERR_UNKNOWN_DIRECTION,
    receive_buffer_too_small = GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL,
    send_length = GVUSB_ERR_SEND_LENGTH,
    unknown_descriptor = GVUSB_ERR_UNKNOWN_DESCRIPTOR,
    not_present = GVUSB_ERR_NOT_PRESENT,
    transmit_process = GVUSB_ERR_TRANSMIT_PROCESS,
    bulk_transfer = GVUSB_ERR_BULK_TRANSFER,
    not_scanned = GVUSB_ERR_NOT_SCANNED,
    not_in_scan_list = GVUSB_ERR_NOT_IN_SCAN_LIST,
    device_list_handle = GVUSB_ERR_DEVICE_LIST_HANDLE,
    cannot_open = GVUSB_ERR_CANNOT_OPEN,
    not_opened = GVUSB_ERR_NOT_OPENED,
    cannot_claim = GVUSB_ERR_CANNOT_CLAIM,
    wrong_device = GVUSB_ERR_WRONG_DEVICE,
    unknown_parameter = GVUSB_ERR_UNKNOWN_PARAMETER,
    out_of_range = GVUSB_ERR_OUT_OF_RANGE,
    odd_parameter = GVUSB_ERR_ODD_PARAMETER,
    index_out_of_range = GVUSB_ERR_INDEX_OUT_OF_RANGE,
    unknown_scan_option = GVUSB_ERR_UNKNOWN_SCAN_OPTION,
    unknown_error_code = GVUSB_ERR_UNKNOWN_ERROR_CODE,
    parameter_syntax = GVUSB_ERR_PARAMETER_SYNTAX,
    parameter_not_available = GVUSB_ERR_PARAMETER_NOT_AVAILABLE,
    device_descriptor_length = GVUSB_ERR_DEVICE_DESCRIPTOR_LENGTH,
    config_descriptor_length = GVUSB_ERR_CONFIG_DESCRIPTOR_LENGTH,
    interface_descriptor_length = GVUSB_ERR_INTERFACE_DESCRIPTOR_LENGTH,
    endpoint_descriptor_length = GVUSB_ERR_ENDPOINT_DESCRIPTOR_LENGTH,
    hid_descriptor_length = GVUSB_ERR_HID_DESCRIPTOR_LENGTH,
    string_descriptor_length = GVUSB_ERR_STRING_DESCRIPTOR_LENGTH,
    device_descriptor_read = GVUSB_ERR_DEVICE_DESCRIPTOR_READ,
    config_descriptor_read = GVUSB_ERR_CONFIG_DESCRIPTOR_READ,
    string_descriptor_read = GVUSB_ERR_STRING_DESCRIPTOR_READ,
    too_many_interfaces = GVUSB_ERR_TOO_MANY_INTERFACES,
    too_many_endpoints = GVUSB_ERR_TOO_MANY_ENDPOINTS,
    too_many_strings = GVUSB_ERR_TOO_MANY_STRINGS,
    control_transfer = GVUSB_ERR_CONTROL_TRANSFER,
    internal = GVUSB_ERR_INTERNAL,
    no_scan_list_entry = GVUSB_NO_SCAN_LIST_ENTRY,
    /** @endcond */
};

} // namespace gvusb

/** @cond */
template <>
struct std::is_error_code_enum<gvusb::errc> : std::true_type {};
/** @endcond */

namespace gvusb {

/**
 * Get the name of a code in gvusb.h.
 *
 * @param code  any code
 * @return  the name, such as "GVUSB_ERR_TIMEOUT"; the number for a code without a name
 */
[[nodiscard]] inline std::string to_string(errc code) {
    struct entry {
        errc code;
        const char* name;
    };
    static constexpr entry names[] = {
        {errc::empty_device_list, "GVUSB_ERR_EMPTY_DEVICE_LIST"},
        {errc::empty_scan_list, "GVUSB_ERR_EMPTY_SCAN_LIST"},
        {errc::null_pointer, "GVUSB_ERR_NULL_POINTER"},
        {errc::no_memory, "GVUSB_ERR_NO_MEMORY"},
        {errc::set_configuration, "GVUSB_ERR_SET_CONFIGURATION"},
        {errc::kernel_function, "GVUSB_ERR_KERNEL_FUNCTION"},
        {errc::unsupported_option, "GVUSB_ERR_UNSUPPORTED_OPTION"},
        {errc::unsupported_method, "GVUSB_ERR_UNSUPPORTED_METHOD"},
        {errc::no_configuration, "GVUSB_ERR_NO_CONFIGURATION"},
        {errc::libusb_api, "GVUSB_ERR_LIBUSB_API"},
        {errc::no_gavo_device, "GVUSB_ERR_NO_GAVO_DEVICE"},
        {errc::search_mismatch, "GVUSB_ERR_SEARCH_MISMATCH"},
        {errc::no_device_found, "GVUSB_ERR_NO_DEVICE_FOUND"},
        {errc::already_scanned, "GVUSB_ERR_ALREADY_SCANNED"},
        {errc::scan_list_overflow, "GVUSB_ERR_SCAN_LIST_OVERFLOW"},
        {errc::no_current_entry, "GVUSB_ERR_NO_CURRENT_ENTRY"},
        {errc::unknown_device_handle, "GVUSB_ERR_UNKNOWN_DEVICE_HANDLE"},
        {errc::null_handle, "GVUSB_ERR_NULL_HANDLE"},
        {errc::negative_handle, "GVUSB_ERR_NEGATIVE_HANDLE"},
        {errc::handle_not_found, "GVUSB_ERR_HANDLE_NOT_FOUND"},
        {errc::timeout, "GVUSB_ERR_TIMEOUT"},
        {errc::no_send_data, "GVUSB_ERR_NO_SEND_DATA"},
        {errc::unknown_interface, "GVUSB_ERR_UNKNOWN_INTERFACE"},
        {errc::unknown_direction, "GVUSB_ERR_UNKNOWN_DIRECTION"},
        {errc::receive_buffer_too_small, "GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL"},
        {errc::send_length, "GVUSB_ERR_SEND_LENGTH"},
        {errc::unknown_descriptor, "GVUSB_ERR_UNKNOWN_DESCRIPTOR"},
        {errc::not_present, "GVUSB_ERR_NOT_PRESENT"},
        {errc::transmit_process, "GVUSB_ERR_TRANSMIT_PROCESS"},
        {errc::bulk_transfer, "GVUSB_ERR_BULK_TRANSFER"},
        {errc::not_scanned, "GVUSB_ERR_NOT_SCANNED"},
        {errc::not_in_scan_list, "GVUSB_ERR_NOT_IN_SCAN_LIST"},
        {errc::device_list_handle, "GVUSB_ERR_DEVICE_LIST_HANDLE"},
        {errc::cannot_open, "GVUSB_ERR_CANNOT_OPEN"},
        {errc::not_opened, "GVUSB_ERR_NOT_OPENED"},
        {errc::cannot_claim, "GVUSB_ERR_CANNOT_CLAIM"},
        {errc::wrong_device, "GVUSB_ERR_WRONG_DEVICE"},
        {errc::unknown_parameter, "GVUSB_ERR_UNKNOWN_PARAMETER"},
        {errc::out_of_range, "GVUSB_ERR_OUT_OF_RANGE"},
        {errc::odd_parameter, "GVUSB_ERR_ODD_PARAMETER"},
        {errc::index_out_of_range, "GVUSB_ERR_INDEX_OUT_OF_RANGE"},
        {errc::unknown_scan_option, "GVUSB_ERR_UNKNOWN_SCAN_OPTION"},
        {errc::unknown_error_code, "GVUSB_ERR_UNKNOWN_ERROR_CODE"},
        {errc::parameter_syntax, "GVUSB_ERR_PARAMETER_SYNTAX"},
        {errc::parameter_not_available, "GVUSB_ERR_PARAMETER_NOT_AVAILABLE"},
        {errc::device_descriptor_length, "GVUSB_ERR_DEVICE_DESCRIPTOR_LENGTH"},
        {errc::config_descriptor_length, "GVUSB_ERR_CONFIG_DESCRIPTOR_LENGTH"},
        {errc::interface_descriptor_length, "GVUSB_ERR_INTERFACE_DESCRIPTOR_LENGTH"},
        {errc::endpoint_descriptor_length, "GVUSB_ERR_ENDPOINT_DESCRIPTOR_LENGTH"},
        {errc::hid_descriptor_length, "GVUSB_ERR_HID_DESCRIPTOR_LENGTH"},
        {errc::string_descriptor_length, "GVUSB_ERR_STRING_DESCRIPTOR_LENGTH"},
        {errc::device_descriptor_read, "GVUSB_ERR_DEVICE_DESCRIPTOR_READ"},
        {errc::config_descriptor_read, "GVUSB_ERR_CONFIG_DESCRIPTOR_READ"},
        {errc::string_descriptor_read, "GVUSB_ERR_STRING_DESCRIPTOR_READ"},
        {errc::too_many_interfaces, "GVUSB_ERR_TOO_MANY_INTERFACES"},
        {errc::too_many_endpoints, "GVUSB_ERR_TOO_MANY_ENDPOINTS"},
        {errc::too_many_strings, "GVUSB_ERR_TOO_MANY_STRINGS"},
        {errc::control_transfer, "GVUSB_ERR_CONTROL_TRANSFER"},
        {errc::internal, "GVUSB_ERR_INTERNAL"},
        {errc::no_scan_list_entry, "GVUSB_NO_SCAN_LIST_ENTRY"},
    };
    for (const entry& known : names) {
        if (known.code == code) {
            return known.name;
        }
    }
    return std::to_string(static_cast<int>(code));
}

/** @cond */
// Objects of several shared libraries of a process use these classes and functions together, so they are visible even
// in a library that hides its symbols: errors are caught by their type, and categories compare by their address.
#define GVUSB_HPP_SHARED [[gnu::visibility("default")]]

namespace detail {

class GVUSB_HPP_SHARED error_category final : public std::error_category {
public:
    [[nodiscard]] const char* name() const noexcept override { return "gvusb"; }

    [[nodiscard]] std::string message(int code) const override {
        char text[GVUSB_TEXT_SIZE] = "";
        GVUSB_GetErrorText(code, text);
        return text;
    }

    [[nodiscard]] std::error_condition default_error_condition(int code) const noexcept override {
        switch (static_cast<errc>(code)) {
        case errc::timeout:
            return std::errc::timed_out;
        case errc::not_present:
            return std::errc::no_such_device;
        case errc::cannot_claim:
            return std::errc::device_or_resource_busy;
        case errc::no_memory:
            return std::errc::not_enough_memory;
        case errc::null_pointer:
        case errc::out_of_range:
            return std::errc::invalid_argument;
        case errc::unsupported_method:
            return std::errc::function_not_supported;
        default:
            return {code, *this};
        }
    }
};

} // namespace detail
/** @endcond */

/**
 * Get the category of the codes.
 *
 * @return  the category, named "gvusb"
 */
GVUSB_HPP_SHARED inline const std::error_category& category() noexcept {
    // Never destroyed: objects with static storage duration may fail at the end of the process.
    alignas(detail::error_category) static unsigned char storage[sizeof(detail::error_category)];
    static const detail::error_category* const instance = new (storage) detail::error_category;
    return *instance;
}

/**
 * Convert a code.
 *
 * @param code  the code
 * @return  the error code of gvusb::category()
 */
[[nodiscard]] inline std::error_code make_error_code(errc code) noexcept {
    return {static_cast<int>(code), category()};
}

/**
 * Print the name of a code.
 *
 * @param stream  where to print
 * @param code  the code
 * @return  the stream
 */
inline std::ostream& operator<<(std::ostream& stream, errc code) {
    return stream << to_string(code);
}

/**
 * A failure. code() has a code of gvusb::category(), except that an event source that gets no file descriptor reports
 * the system's error.
 */
class GVUSB_HPP_SHARED error : public std::system_error {
public:
    using std::system_error::system_error;
};

/** @cond */
namespace detail {

// Out of line, so that a call costs as little as possible as long as it succeeds.
[[noreturn, gnu::cold, gnu::noinline]] inline void fail(int code, const char* call) {
    throw error(make_error_code(static_cast<errc>(code)), call);
}

inline int check(int code, const char* call) {
    if (code < 0) {
        fail(code, call);
    }
    return code;
}

// Store a failure, or clear the error code. Out of line too, because neither is needed as long as calls succeed.
[[gnu::cold, gnu::noinline]] inline int settle(int code, std::error_code& ec) noexcept {
    if (code < 0) {
        ec = static_cast<errc>(code);
        return 0;
    }
    ec.clear();
    return code;
}

// Run a call that returns a count or a code, and split what it returns. Return 0 for a failure.
template <class Call>
int split(Call call, std::error_code& ec) noexcept {
    int code = 0;
    try {
        code = call();
    } catch (const std::bad_alloc&) {
        code = GVUSB_ERR_NO_MEMORY;
    }
    return code < 0 || ec ? settle(code, ec) : code;
}

// Run a call that throws, and store what it throws. Return an empty value for a failure.
template <class Call>
auto without_exceptions(Call call, std::error_code& ec) noexcept -> decltype(call()) {
    try {
        ec.clear();
        return call();
    } catch (const error& failure) {
        ec = failure.code();
    } catch (const std::bad_alloc&) {
        ec = errc::no_memory;
    } catch (const std::length_error&) {
        ec = errc::no_memory; // the size of a vector
    }
    return decltype(call())();
}

template <class Type>
constexpr bool is_byte = std::is_same_v<Type, std::byte> || std::is_same_v<Type, unsigned char> ||
                         std::is_same_v<Type, char> || std::is_same_v<Type, signed char>;

// The element of a contiguous range. A string literal is not a range of bytes, because its terminating zero would count.
template <class Range>
using element = std::remove_pointer_t<decltype(std::data(std::declval<Range&>()))>;
template <class Range>
constexpr bool is_text = std::is_array_v<Range>&& std::is_same_v<std::remove_cv_t<element<Range>>, char>;

// A range without elements may have a null pointer, which the C functions would report instead of the size 0.
inline unsigned char nothing = 0;

constexpr unsigned int limited(std::size_t size) noexcept {
    constexpr unsigned int most = std::numeric_limits<unsigned int>::max();
    return size < most ? static_cast<unsigned int>(size) : most;
}

} // namespace detail
/** @endcond */

/** A view of bytes to send. Made from any contiguous range of bytes; does not own them. */
class const_bytes {
public:
    /**
     * View a contiguous range of std::byte, char, signed char or unsigned char, except a string literal.
     *
     * @param range  the range
     */
    template <class Range, class Element = detail::element<const Range>,
              class = std::enable_if_t<detail::is_byte<std::remove_cv_t<Element>> && !detail::is_text<Range>>,
              class = decltype(std::size(std::declval<const Range&>()))>
    const_bytes(const Range& range) noexcept // NOLINT(*-explicit-*): a range is a frame
        : const_bytes(std::size(range) == 0 ? &detail::nothing : static_cast<const void*>(std::data(range)),
                      std::size(range)) {}

    /**
     * View bytes in memory.
     *
     * @param data  the first byte
     * @param size  the number of bytes
     */
    template <class Byte, class = std::enable_if_t<detail::is_byte<std::remove_cv_t<Byte>>>>
    const_bytes(Byte* data, std::size_t size) noexcept
        : const_bytes(static_cast<const void*>(data), size) {}

    /**
     * Get the bytes.
     *
     * @return  the first byte
     */
    [[nodiscard]] const unsigned char* data() const noexcept { return m_data; }

    /**
     * Get the number of bytes.
     *
     * @return  the number
     */
    [[nodiscard]] std::size_t size() const noexcept { return m_size; }

private:
    friend class reader;
    const_bytes(const void* data, std::size_t size) noexcept
        : m_data(static_cast<const unsigned char*>(data))
        , m_size(size) {}

    const unsigned char* m_data;
    std::size_t m_size;
};

/** A view of a buffer that receives bytes. Made from any contiguous range of bytes; does not own them. */
class mutable_bytes {
public:
    /**
     * View a contiguous range of std::byte, char, signed char or unsigned char.
     *
     * @param range  the range
     */
    template <class Range, class Element = detail::element<Range>,
              class = std::enable_if_t<detail::is_byte<Element> &&
                                       !std::is_same_v<std::remove_reference_t<Range>, mutable_bytes>>,
              class = decltype(std::size(std::declval<Range&>()))>
    mutable_bytes(
        Range&& range) noexcept // NOLINT(*-explicit-*, *-forwarding-reference-*): a view may be a temporary
        : mutable_bytes(std::size(range) == 0 ? &detail::nothing : static_cast<void*>(std::data(range)),
                        std::size(range)) {}

    /**
     * View a buffer in memory.
     *
     * @param data  the first byte
     * @param size  the number of bytes
     */
    template <class Byte, class = std::enable_if_t<detail::is_byte<Byte>>>
    mutable_bytes(Byte* data, std::size_t size) noexcept
        : mutable_bytes(static_cast<void*>(data), size) {}

    /**
     * Get the bytes.
     *
     * @return  the first byte
     */
    [[nodiscard]] unsigned char* data() const noexcept { return m_data; }

    /**
     * Get the number of bytes.
     *
     * @return  the number
     */
    [[nodiscard]] std::size_t size() const noexcept { return m_size; }

private:
    friend class reader;
    mutable_bytes(void* data, std::size_t size) noexcept
        : m_data(static_cast<unsigned char*>(data))
        , m_size(size) {}

    unsigned char* m_data;
    std::size_t m_size;
};

/** How much the functions receive that return a vector, unless they are told: the longest answer by control transfer. */
constexpr std::size_t default_answer_size = 4096;

/** @cond */
namespace detail {

// How many objects of the process own each open reader. The mutex is also held from a scan until its result is read.
// Never destroyed, because objects with static storage duration may close readers at the end of the process.
struct GVUSB_HPP_SHARED open_readers {
    struct entry {
        int handle;
        std::size_t owners;
    };
    std::mutex mutex;
    std::vector<entry> entries;

    entry* find(int handle) noexcept {
        for (entry& known : entries) {
            if (known.handle == handle) {
                return &known;
            }
        }
        return nullptr;
    }

    // Make room before readers are opened, so that memory cannot run out while nobody owns them.
    void reserve(std::size_t more) {
        if (entries.capacity() - entries.size() < more) {
            entries.reserve(2 * entries.size() + more);
        }
    }

    void add(int handle) {
        if (entry* const known = find(handle)) {
            ++known->owners;
        } else {
            entries.push_back({handle, 1});
        }
    }

    // Return whether this was the last owner.
    bool remove(int handle) noexcept {
        entry* const known = find(handle);
        if (known != nullptr && --known->owners > 0) {
            return false;
        }
        if (known != nullptr) {
            *known = entries.back();
            entries.pop_back();
        }
        return true;
    }
};

GVUSB_HPP_SHARED inline open_readers& all_open_readers() {
    static open_readers* const instance = new open_readers;
    return *instance;
}

inline std::string device_parameter(int handle, const char* key, const char* call) {
    char value[GVUSB_PARAMETER_SIZE] = "";
    check(GVUSB_GetDevicePara(handle, key, value), call);
    return value;
}

inline std::string scan_list_parameter(int index, const char* key) {
    char value[GVUSB_PARAMETER_SIZE] = "";
    const int code = GVUSB_GetScanListPara(index, key, value);
    if (code != 0) {
        fail(code, "gvusb::scan");
    }
    return value;
}

} // namespace detail
/** @endcond */

/** Which readers a scan finds. Made by gvusb::by_family, gvusb::by_name or gvusb::by_id; by default every reader. */
class search {
public:
    /** Find every reader. */
    search() noexcept = default;

private:
    friend search by_family(std::string_view family);
    friend search by_name(std::string_view name);
    friend search by_id(device_id id) noexcept;
    friend struct search_access;

    template <std::size_t Size>
    static search by_text(std::int32_t mask, char (GVUSB_SCANSEARCH::*field)[Size], std::string_view text,
                          const char* call) {
        if (text.size() > Size || text.find('\0') != std::string_view::npos) {
            detail::fail(GVUSB_ERR_OUT_OF_RANGE, call);
        }
        search result;
        result.m_record.mask = mask;
        text.copy(result.m_record.*field, Size);
        return result;
    }

    GVUSB_SCANSEARCH m_record = {};
};

/**
 * Find the readers of a family.
 *
 * @param family  the family name, at most 25 characters
 * @return  the search
 * @throws error  errc::out_of_range if the name is too long or contains a zero
 */
[[nodiscard]] inline search by_family(std::string_view family) {
    return search::by_text(GVUSB_SEARCH_FAMILY_NAME, &GVUSB_SCANSEARCH::famName, family, "gvusb::by_family");
}

/**
 * @copydoc by_family(std::string_view)
 * @param ec  cleared, or gets the failure
 */
[[nodiscard]] inline search by_family(std::string_view family, std::error_code& ec) noexcept {
    return detail::without_exceptions([&] { return by_family(family); }, ec);
}

/**
 * Find the readers with a device name.
 *
 * @param name  the device name, at most 50 characters
 * @return  the search
 * @throws error  errc::out_of_range if the name is too long or contains a zero
 */
[[nodiscard]] inline search by_name(std::string_view name) {
    return search::by_text(GVUSB_SEARCH_DEVICE_NAME, &GVUSB_SCANSEARCH::devName, name, "gvusb::by_name");
}

/**
 * @copydoc by_name(std::string_view)
 * @param ec  cleared, or gets the failure
 */
[[nodiscard]] inline search by_name(std::string_view name, std::error_code& ec) noexcept {
    return detail::without_exceptions([&] { return by_name(name); }, ec);
}

/**
 * Find the reader with a device ID.
 *
 * @param id  the device ID
 * @return  the search
 */
[[nodiscard]] inline search by_id(device_id id) noexcept {
    search result;
    result.m_record.mask = GVUSB_SEARCH_DEVICE_ID;
    std::snprintf(result.m_record.devId, sizeof result.m_record.devId, "%X", id);
    return result;
}

/** @cond */
struct search_access {
    // Call GVUSB_Scan or GVUSB_ScanAndOpen.
    static int scan(int (*function)(int, GVUSB_SCANSEARCH*), int option, const search& wanted) {
        GVUSB_SCANSEARCH record = wanted.m_record;
        return record.mask == 0 ? function(option, nullptr) : function(option | GVUSB_SCAN_SEARCH, &record);
    }
};
/** @endcond */

/**
 * An open reader. Closes it when the last object that refers to it is destroyed. An object that is empty, because it
 * was moved from or closed, fails with errc::null_handle.
 */
class reader {
public:
    /** Make an empty object. */
    reader() noexcept = default;

    /**
     * Own a reader that was opened by a function of gvusb.h.
     *
     * @param handle  its handle; 0 makes an empty object
     */
    explicit reader(int handle) {
        if (handle != 0) {
            detail::open_readers& all = detail::all_open_readers();
            const std::lock_guard<std::mutex> lock(all.mutex);
            all.add(handle);
            m_handle = handle;
        }
    }

    /**
     * Move a reader. The other object is empty then.
     *
     * @param other  the other object
     */
    reader(reader&& other) noexcept
        : m_handle(std::exchange(other.m_handle, 0)) {}

    /**
     * Close the reader of this object and move the other one.
     *
     * @param other  the other object, empty then
     * @return  this object
     */
    reader& operator=(reader&& other) noexcept {
        if (this != &other) {
            disown(true);
            m_handle = std::exchange(other.m_handle, 0);
        }
        return *this;
    }

    reader(const reader&) = delete;
    reader& operator=(const reader&) = delete;

    /** Close the reader. */
    ~reader() { disown(true); }

    /**
     * Test whether the object is not empty.
     *
     * @return  true if it owns a reader, even an unplugged one
     */
    [[nodiscard]] explicit operator bool() const noexcept { return m_handle != 0; }

    /**
     * Get the handle, for the functions of gvusb.h.
     *
     * @return  the handle; 0 if the object is empty
     */
    [[nodiscard]] int handle() const noexcept { return m_handle; }

    /**
     * Close the reader, unless another object refers to it, and leave this object empty. Does nothing if it is empty.
     */
    void close() { detail::check(disown(true), "gvusb::reader::close"); }

    /**
     * @copydoc close()
     * @param ec  cleared, or gets the failure
     */
    void close(std::error_code& ec) noexcept {
        detail::split([&] { return disown(true); }, ec);
    }

    /**
     * Give the reader up without closing it.
     *
     * @return  the handle; 0 if the object is empty
     */
    [[nodiscard]] int release() noexcept {
        const int handle = m_handle;
        disown(false);
        return handle;
    }

    /**
     * Get the device ID.
     *
     * @return  the device ID
     */
    [[nodiscard]] device_id id() const {
        const std::string digits =
            detail::device_parameter(checked_handle(), "DEVICE-ID", "gvusb::reader::id");
        return static_cast<device_id>(std::strtoul(digits.c_str(), nullptr, 16));
    }

    /**
     * @copydoc id() const
     * @param ec  cleared, or gets the failure
     */
    [[nodiscard]] device_id id(std::error_code& ec) const noexcept {
        return detail::without_exceptions([&] { return id(); }, ec);
    }

    /**
     * Get the device name.
     *
     * @return  the text
     */
    [[nodiscard]] std::string name() const {
        return detail::device_parameter(checked_handle(), "DEVICENAME", "gvusb::reader::name");
    }

    /**
     * @copydoc name() const
     * @param ec  cleared, or gets the failure
     */
    [[nodiscard]] std::string name(std::error_code& ec) const noexcept {
        return detail::without_exceptions([&] { return name(); }, ec);
    }

    /**
     * Get the family name.
     *
     * @return  the text
     */
    [[nodiscard]] std::string family() const {
        return detail::device_parameter(checked_handle(), "FAMILYNAME", "gvusb::reader::family");
    }

    /**
     * @copydoc family() const
     * @param ec  cleared, or gets the failure
     */
    [[nodiscard]] std::string family(std::error_code& ec) const noexcept {
        return detail::without_exceptions([&] { return family(); }, ec);
    }

    /**
     * Get the interface type.
     *
     * @return  the text
     */
    [[nodiscard]] std::string interface_type() const {
        return detail::device_parameter(checked_handle(), "INTERFACE", "gvusb::reader::interface_type");
    }

    /**
     * @copydoc interface_type() const
     * @param ec  cleared, or gets the failure
     */
    [[nodiscard]] std::string interface_type(std::error_code& ec) const noexcept {
        return detail::without_exceptions([&] { return interface_type(); }, ec);
    }

    /**
     * Read the type number from the reader.
     *
     * @return  the text
     */
    [[nodiscard]] std::string type_number() const {
        return detail::device_parameter(checked_handle(), "TYPENUMBER", "gvusb::reader::type_number");
    }

    /**
     * @copydoc type_number() const
     * @param ec  cleared, or gets the failure
     */
    [[nodiscard]] std::string type_number(std::error_code& ec) const noexcept {
        return detail::without_exceptions([&] { return type_number(); }, ec);
    }

    /**
     * Get how long a transfer may take.
     *
     * @return  the time; 1000 ms at first
     */
    [[nodiscard]] std::chrono::milliseconds timeout() const {
        const std::string digits =
            detail::device_parameter(checked_handle(), "TIMEOUT", "gvusb::reader::timeout");
        return std::chrono::milliseconds(std::strtoll(digits.c_str(), nullptr, 10));
    }

    /**
     * @copydoc timeout() const
     * @param ec  cleared, or gets the failure
     */
    [[nodiscard]] std::chrono::milliseconds timeout(std::error_code& ec) const noexcept {
        return detail::without_exceptions([&] { return timeout(); }, ec);
    }

    /**
     * Set how long a transfer may take. It is 1000 ms again when the reader has been unplugged and has come back.
     *
     * @param time  1 to 4294967295 ms, otherwise errc::out_of_range
     */
    void set_timeout(std::chrono::milliseconds time) {
        // The C function would accept what is left of a number that is too large.
        const bool accepted = time.count() >= 1 && time.count() <= std::numeric_limits<std::uint32_t>::max();
        char value[16] = "0";
        if (accepted) {
            std::snprintf(value, sizeof value, "%lld", static_cast<long long>(time.count()));
        }
        detail::check(GVUSB_SetDevicePara(checked_handle(), "TIMEOUT", value), "gvusb::reader::set_timeout");
    }

    /**
     * @copydoc set_timeout(std::chrono::milliseconds)
     * @param ec  cleared, or gets the failure
     */
    void set_timeout(std::chrono::milliseconds time, std::error_code& ec) noexcept {
        detail::without_exceptions([&] { set_timeout(time); }, ec);
    }

    /**
     * Read a parameter by its key, as GVUSB_GetDevicePara does. Do not read "PRESENT", which blocks forever.
     *
     * @param key  the key
     * @return  the value
     */
    [[nodiscard]] std::string parameter(const char* key) const {
        return detail::device_parameter(checked_handle(), key, "gvusb::reader::parameter");
    }

    /**
     * @copydoc parameter(const char*) const
     * @param ec  cleared, or gets the failure
     */
    [[nodiscard]] std::string parameter(const char* key, std::error_code& ec) const noexcept {
        return detail::without_exceptions([&] { return parameter(key); }, ec);
    }

    /**
     * Change a parameter by its key, as GVUSB_SetDevicePara does.
     *
     * @param key  the key
     * @param value  the value
     */
    void set_parameter(const char* key, const char* value) {
        detail::check(GVUSB_SetDevicePara(checked_handle(), key, value), "gvusb::reader::set_parameter");
    }

    /**
     * @copydoc set_parameter(const char*, const char*)
     * @param ec  cleared, or gets the failure
     */
    void set_parameter(const char* key, const char* value, std::error_code& ec) noexcept {
        detail::without_exceptions([&] { set_parameter(key, value); }, ec);
    }

    /**
     * Test whether the reader is still there, by reading its device ID.
     *
     * @return  whether it answers
     */
    [[nodiscard]] bool present() const {
        return detail::check(GVUSB_IsDevicePresent(m_handle), "gvusb::reader::present") != 0;
    }

    /**
     * @copydoc present() const
     * @param ec  cleared, or gets the failure
     */
    [[nodiscard]] bool present(std::error_code& ec) const noexcept {
        return detail::split([&] { return GVUSB_IsDevicePresent(m_handle); }, ec) != 0;
    }

    /** Reset the reader. */
    void reset() {
        detail::check(GVUSB_SetDevicePara(checked_handle(), "RESETDEVICE", ""), "gvusb::reader::reset");
    }

    /**
     * @copydoc reset()
     * @param ec  cleared, or gets the failure
     */
    void reset(std::error_code& ec) noexcept {
        detail::without_exceptions([&] { reset(); }, ec);
    }

    /** Clear a halt of both bulk endpoints. It has no effect before the first exchange, or over control transfers. */
    void reset_pipe() {
        detail::check(GVUSB_SetDevicePara(checked_handle(), "RESETPIPE", ""), "gvusb::reader::reset_pipe");
    }

    /**
     * @copydoc reset_pipe()
     * @param ec  cleared, or gets the failure
     */
    void reset_pipe(std::error_code& ec) noexcept {
        detail::without_exceptions([&] { reset_pipe(); }, ec);
    }

    /**
     * End the calls of other threads on this reader: their transfers fail. Without such a call it has no effect. It may be
     * called while other threads use the reader. Fails with errc::unknown_parameter unless parallel mode is on.
     */
    void cancel() {
        detail::check(GVUSB_SetDevicePara(checked_handle(), "CANCEL", ""), "gvusb::reader::cancel");
    }

    /**
     * @copydoc cancel()
     * @param ec  cleared, or gets the failure
     */
    void cancel(std::error_code& ec) noexcept {
        detail::without_exceptions([&] { cancel(); }, ec);
    }

    /**
     * Send a frame and receive the answer, as GVUSB_Transceive does.
     *
     * @param frame  the frame
     * @param answer  the buffer for the answer. Choose a multiple of 512 bytes that is at least as long as the longest
     *                answer
     * @return  the number of bytes received, possibly 0
     */
    std::size_t transceive(const_bytes frame, mutable_bytes answer) {
        return counted(call_transceive(frame, answer), "gvusb::reader::transceive");
    }

    /**
     * @copydoc transceive(const_bytes, mutable_bytes)
     * @param ec  cleared, or gets the failure
     */
    std::size_t transceive(const_bytes frame, mutable_bytes answer, std::error_code& ec) noexcept {
        return counted([&] { return call_transceive(frame, answer); }, ec);
    }

    /**
     * Send a frame and receive the answer, as GVUSB_Transceive does.
     *
     * @param frame  the frame
     * @param frame_size  its length in bytes
     * @param answer  the buffer for the answer
     * @param answer_size  its size in bytes
     * @return  the number of bytes received, possibly 0
     */
    std::size_t transceive(const void* frame, std::size_t frame_size, void* answer, std::size_t answer_size) {
        return transceive(const_bytes(frame, frame_size), mutable_bytes(answer, answer_size));
    }

    /**
     * @copydoc transceive(const void*, std::size_t, void*, std::size_t)
     * @param ec  cleared, or gets the failure
     */
    std::size_t transceive(const void* frame, std::size_t frame_size, void* answer, std::size_t answer_size,
                           std::error_code& ec) noexcept {
        return transceive(const_bytes(frame, frame_size), mutable_bytes(answer, answer_size), ec);
    }

    /**
     * Send a frame and return the answer.
     *
     * @param frame  the frame
     * @param size  how many bytes to receive at most, a multiple of 512. Over bulk endpoints the next receive returns
     *              the rest of a longer answer
     * @return  the answer
     */
    std::vector<std::byte> transceive(const_bytes frame, std::size_t size = default_answer_size) {
        return returned(size, [&](mutable_bytes answer) { return transceive(frame, answer); });
    }

    /**
     * @copydoc transceive(const_bytes, std::size_t)
     * @param ec  cleared, or gets the failure
     */
    std::vector<std::byte> transceive(const_bytes frame, std::size_t size, std::error_code& ec) noexcept {
        return detail::without_exceptions([&] { return transceive(frame, size); }, ec);
    }

    /**
     * Send a frame and return the answer, at most gvusb::default_answer_size bytes.
     *
     * @param frame  the frame
     * @param ec  cleared, or gets the failure
     * @return  the answer
     */
    std::vector<std::byte> transceive(const_bytes frame, std::error_code& ec) noexcept {
        return transceive(frame, default_answer_size, ec);
    }

    /**
     * Send a frame, as GVUSB_Transmit does.
     *
     * @param frame  the frame
     */
    void transmit(const_bytes frame) { detail::check(call_transmit(frame), "gvusb::reader::transmit"); }

    /**
     * @copydoc transmit(const_bytes)
     * @param ec  cleared, or gets the failure
     */
    void transmit(const_bytes frame, std::error_code& ec) noexcept {
        detail::split([&] { return call_transmit(frame); }, ec);
    }

    /**
     * Send a frame, as GVUSB_Transmit does.
     *
     * @param frame  the frame
     * @param size  its length in bytes
     */
    void transmit(const void* frame, std::size_t size) { transmit(const_bytes(frame, size)); }

    /**
     * @copydoc transmit(const void*, std::size_t)
     * @param ec  cleared, or gets the failure
     */
    void transmit(const void* frame, std::size_t size, std::error_code& ec) noexcept {
        transmit(const_bytes(frame, size), ec);
    }

    /**
     * Receive a frame, or the rest of one, as GVUSB_Receive does.
     *
     * @param buffer  the buffer for the frame
     * @return  the number of bytes received, possibly 0
     */
    std::size_t receive(mutable_bytes buffer) {
        return counted(call_receive(buffer), "gvusb::reader::receive");
    }

    /**
     * @copydoc receive(mutable_bytes)
     * @param ec  cleared, or gets the failure
     */
    std::size_t receive(mutable_bytes buffer, std::error_code& ec) noexcept {
        return counted([&] { return call_receive(buffer); }, ec);
    }

    /**
     * Receive a frame, or the rest of one, as GVUSB_Receive does.
     *
     * @param buffer  the buffer for the frame
     * @param size  its size in bytes
     * @return  the number of bytes received, possibly 0
     */
    std::size_t receive(void* buffer, std::size_t size) { return receive(mutable_bytes(buffer, size)); }

    /**
     * @copydoc receive(void*, std::size_t)
     * @param ec  cleared, or gets the failure
     */
    std::size_t receive(void* buffer, std::size_t size, std::error_code& ec) noexcept {
        return receive(mutable_bytes(buffer, size), ec);
    }

    /**
     * Receive a frame, or the rest of one, and return it.
     *
     * @param size  how many bytes to receive at most, a multiple of 512
     * @return  the frame
     */
    std::vector<std::byte> receive(std::size_t size = default_answer_size) {
        return returned(size, [&](mutable_bytes buffer) { return receive(buffer); });
    }

    /**
     * @copydoc receive(std::size_t)
     * @param ec  cleared, or gets the failure
     */
    std::vector<std::byte> receive(std::size_t size, std::error_code& ec) noexcept {
        return detail::without_exceptions([&] { return receive(size); }, ec);
    }

    /**
     * Receive a frame, or the rest of one, of at most gvusb::default_answer_size bytes, and return it.
     *
     * @param ec  cleared, or gets the failure
     * @return  the frame
     */
    std::vector<std::byte> receive(std::error_code& ec) noexcept { return receive(default_answer_size, ec); }

private:
    friend struct reader_access;

    // Handles of 0 and -1 have another meaning where parameters are read and written.
    [[nodiscard]] int checked_handle() const {
        if (m_handle <= 0) {
            detail::fail(m_handle == 0 ? GVUSB_ERR_NULL_HANDLE : GVUSB_ERR_NEGATIVE_HANDLE, "gvusb::reader");
        }
        return m_handle;
    }

    int disown(bool closes) noexcept {
        const int handle = std::exchange(m_handle, 0);
        if (handle == 0) {
            return 0;
        }
        detail::open_readers& all = detail::all_open_readers();
        const std::lock_guard<std::mutex> lock(all.mutex);
        return all.remove(handle) && closes ? GVUSB_CloseDevice(handle) : 0;
    }

    [[nodiscard]] int call_transceive(const_bytes frame, mutable_bytes answer) const {
        return GVUSB_Transceive(m_handle, GVUSB_PROTOCOL, 0, frame.data(), detail::limited(frame.size()),
                                answer.data(), detail::limited(answer.size()));
    }

    [[nodiscard]] int call_transmit(const_bytes frame) const {
        return GVUSB_Transmit(m_handle, GVUSB_PROTOCOL, frame.data(), detail::limited(frame.size()));
    }

    [[nodiscard]] int call_receive(mutable_bytes buffer) const {
        return GVUSB_Receive(m_handle, GVUSB_PROTOCOL, buffer.data(), detail::limited(buffer.size()));
    }

    static std::size_t counted(int result, const char* call) {
        return static_cast<std::size_t>(detail::check(result, call));
    }

    template <class Call>
    static std::size_t counted(Call call, std::error_code& ec) noexcept {
        return static_cast<std::size_t>(detail::split(call, ec));
    }

    template <class Receive>
    static std::vector<std::byte> returned(std::size_t size, Receive receive) {
        std::vector<std::byte> bytes(size);
        bytes.resize(receive(bytes));
        return bytes;
    }

    int m_handle = 0;
};

/** @cond */
struct reader_access {
    // Make an object for an open reader. The mutex is locked, and the entry is reserved.
    static reader own(detail::open_readers& all, int handle) {
        reader result;
        all.add(handle);
        result.m_handle = handle;
        return result;
    }
};
/** @endcond */

/**
 * Open the reader with a device ID. If the scan list does not contain it, scan first. If it is open already, the new
 * object refers to the same open reader.
 *
 * @param id  the device ID
 * @return  the reader
 * @throws error  errc::not_scanned if no such reader was found; otherwise the codes of GVUSB_OpenDevice
 */
[[nodiscard]] inline reader open(device_id id) {
    detail::open_readers& all = detail::all_open_readers();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.reserve(1);
    int handle = GVUSB_OpenDevice(id);
    if (handle == GVUSB_ERR_NOT_SCANNED) {
        GVUSB_Scan(GVUSB_SCAN_ALL, nullptr);
        handle = GVUSB_OpenDevice(id);
    }
    return reader_access::own(all, detail::check(handle, "gvusb::open"));
}

/**
 * @copydoc open(device_id)
 * @param ec  cleared, or gets the failure
 */
[[nodiscard]] inline reader open(device_id id, std::error_code& ec) noexcept {
    return detail::without_exceptions([&] { return open(id); }, ec);
}

/**
 * Scan, and open the first reader found.
 *
 * @param wanted  which readers to find
 * @return  the reader
 * @throws error  errc::no_device_found if no reader was found; otherwise the codes of GVUSB_OpenDevice
 */
[[nodiscard]] inline reader open_first(const search& wanted = {}) {
    detail::open_readers& all = detail::all_open_readers();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.reserve(1);
    const int handle = search_access::scan(&GVUSB_ScanAndOpen, GVUSB_SCAN_FIRST, wanted);
    return reader_access::own(all, detail::check(handle, "gvusb::open_first"));
}

/**
 * @copydoc open_first(const search&)
 * @param ec  cleared, or gets the failure
 */
[[nodiscard]] inline reader open_first(const search& wanted, std::error_code& ec) noexcept {
    return detail::without_exceptions([&] { return open_first(wanted); }, ec);
}

/** @cond */
namespace detail {

// Scan and open all readers found; return the last failure of one of them. A reader that was open before is included.
inline int open_all(const search& wanted, std::vector<reader>& readers) {
    open_readers& all = all_open_readers();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const int code = search_access::scan(&GVUSB_ScanAndOpen, GVUSB_SCAN_ALL, wanted);
    if (code == GVUSB_ERR_NO_DEVICE_FOUND) {
        return GVUSB_OK;
    }
    const int size = GVUSB_GetScanListSize();
    readers.reserve(static_cast<std::size_t>(size));
    all.reserve(static_cast<std::size_t>(size));
    for (int index = 0; index < size; ++index) {
        char handle[GVUSB_PARAMETER_SIZE] = "0";
        if (GVUSB_GetScanListPara(index, "DEVICEHND", handle) == 0 && std::atoi(handle) > 0) {
            readers.push_back(reader_access::own(all, std::atoi(handle)));
        }
    }
    return code;
}

} // namespace detail
/** @endcond */

/**
 * Scan, and open every reader found. If one cannot be opened, close those that were opened here and throw.
 *
 * @param wanted  which readers to find
 * @return  the readers in the order of the bus; empty if no reader was found
 */
[[nodiscard]] inline std::vector<reader> open_all(const search& wanted = {}) {
    std::vector<reader> readers;
    detail::check(detail::open_all(wanted, readers), "gvusb::open_all");
    return readers;
}

/**
 * Scan, and open every reader found that can be opened.
 *
 * @param wanted  which readers to find
 * @param ec  cleared, or gets the failure of the last reader that could not be opened
 * @return  the readers that are open, in the order of the bus; empty if no reader was found
 */
[[nodiscard]] inline std::vector<reader> open_all(const search& wanted, std::error_code& ec) noexcept {
    std::vector<reader> readers;
    detail::split([&] { return detail::open_all(wanted, readers); }, ec);
    return readers;
}

/** A reader that a scan has found: a copy of what identifies it. */
class scan_entry {
public:
    /**
     * Get the device ID.
     *
     * @return  the device ID; 0 if it is unknown
     */
    [[nodiscard]] device_id id() const noexcept { return m_id; }

    /**
     * Get the device name.
     *
     * @return  the text
     */
    [[nodiscard]] const std::string& name() const noexcept { return m_name; }

    /**
     * Get the family name.
     *
     * @return  the text
     */
    [[nodiscard]] const std::string& family() const noexcept { return m_family; }

    /**
     * Get the interface type.
     *
     * @return  the text
     */
    [[nodiscard]] const std::string& interface_type() const noexcept { return m_interface_type; }

    /**
     * Open the reader, as gvusb::open does with its device ID. Of two readers with the same device ID, that is the
     * first one.
     *
     * @return  the reader
     */
    [[nodiscard]] reader open() const { return gvusb::open(m_id); }

    /**
     * @copydoc open() const
     * @param ec  cleared, or gets the failure
     */
    [[nodiscard]] reader open(std::error_code& ec) const noexcept { return gvusb::open(m_id, ec); }

private:
    friend std::vector<scan_entry> scan(const search& wanted);
    explicit scan_entry(int index)
        : m_id(static_cast<device_id>(
              std::strtoul(detail::scan_list_parameter(index, "DEVICE-ID").c_str(), nullptr, 16)))
        , m_name(detail::scan_list_parameter(index, "DEVICENAME"))
        , m_family(detail::scan_list_parameter(index, "FAMILYNAME"))
        , m_interface_type(detail::scan_list_parameter(index, "INTERFACE")) {}

    device_id m_id;
    std::string m_name;
    std::string m_family;
    std::string m_interface_type;
};

/**
 * Find the readers on the bus, as GVUSB_Scan does.
 *
 * @param wanted  which readers to find
 * @return  the readers in the order of the bus; empty if no reader was found
 */
[[nodiscard]] inline std::vector<scan_entry> scan(const search& wanted = {}) {
    const std::lock_guard<std::mutex> lock(detail::all_open_readers().mutex);
    std::vector<scan_entry> entries;
    const int code = search_access::scan(&GVUSB_Scan, GVUSB_SCAN_ALL, wanted);
    if (code == GVUSB_ERR_NO_DEVICE_FOUND) {
        return entries;
    }
    detail::check(code, "gvusb::scan");
    const int size = GVUSB_GetScanListSize();
    entries.reserve(static_cast<std::size_t>(size));
    for (int index = 0; index < size; ++index) {
        entries.push_back(scan_entry(index));
    }
    return entries;
}

/**
 * @copydoc scan(const search&)
 * @param ec  cleared, or gets the failure
 */
[[nodiscard]] inline std::vector<scan_entry> scan(const search& wanted, std::error_code& ec) noexcept {
    return detail::without_exceptions([&] { return scan(wanted); }, ec);
}

/**
 * Find the readers on the bus, as GVUSB_Scan does.
 *
 * @param ec  cleared, or gets the failure
 * @return  the readers in the order of the bus; empty if no reader was found
 */
[[nodiscard]] inline std::vector<scan_entry> scan(std::error_code& ec) noexcept {
    return scan(search(), ec);
}

/** What happened to a reader. */
enum class event_kind : std::uint8_t {
    connect = GVUSB_EVENT_CONNECT,      /**< it was connected */
    disconnect = GVUSB_EVENT_DISCONNECT /**< it was disconnected */
};

/** A reader was connected or disconnected. GVUSB_EventCallback says which members are set. */
struct event {
    event_kind kind = event_kind::connect; /**< what happened */
    device_id id = 0;                      /**< the device ID; 0 if it is unknown */
    int handle = 0;                        /**< the handle; 0 if it is unknown */
};

/**
 * Get the name of what happened.
 *
 * @param kind  what happened
 * @return  "connect" or "disconnect"
 */
[[nodiscard]] inline std::string to_string(event_kind kind) {
    return kind == event_kind::connect ? "connect" : "disconnect";
}

/**
 * Describe an event.
 *
 * @param what  the event
 * @return  a text such as "disconnect 1A2B3C 0x10000001", without the handle if it is unknown
 */
[[nodiscard]] inline std::string to_string(const event& what) {
    char text[32] = "";
    std::snprintf(text, sizeof text, what.handle == 0 ? " %X" : " %X 0x%x", what.id,
                  static_cast<unsigned int>(what.handle));
    return to_string(what.kind) + text;
}

/**
 * Print the name of what happened.
 *
 * @param stream  where to print
 * @param kind  what happened
 * @return  the stream
 */
inline std::ostream& operator<<(std::ostream& stream, event_kind kind) {
    return stream << to_string(kind);
}

/**
 * Print an event as to_string(const event&) describes it.
 *
 * @param stream  where to print
 * @param what  the event
 * @return  the stream
 */
inline std::ostream& operator<<(std::ostream& stream, const event& what) {
    return stream << to_string(what);
}

/** @cond */
namespace detail {

using event_function = std::function<void(const event&)>;

struct watcher {
    event_function on_connect;
    event_function on_disconnect;
    std::uint64_t number = 0; // in the order of addition
};

// All watches of the process. The library calls functions without data, so two functions are registered for all
// watches, from the first one to the last one. Never destroyed, because watches may have static storage duration.
class GVUSB_HPP_SHARED watchers {
public:
    static watchers& all() {
        static watchers* const instance = new watchers;
        return *instance;
    }

    void add(const std::shared_ptr<watcher>& added) {
        bool in_handler = false;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_watchers.push_back(added);
            added->number = ++m_last_number;
            in_handler = is_handler_thread();
        }
        if (!in_handler) {
            try {
                check(register_as_needed(), "gvusb::watch");
            } catch (...) {
                remove(added);
                throw;
            }
        }
    }

    // Waits until the watcher is not called any more, unless it is this call that removes it.
    void remove(const std::shared_ptr<watcher>& removed) noexcept {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            for (auto known = m_watchers.begin(); known != m_watchers.end(); ++known) {
                if (*known == removed) {
                    m_watchers.erase(known);
                    break;
                }
            }
            if (is_handler_thread()) {
                return;
            }
            m_returned.wait(lock, [&] { return m_called != removed.get(); });
        }
        try {
            register_as_needed();
        } catch (const std::bad_alloc&) {
            return; // only a watch that is added meanwhile needs memory
        }
    }

private:
    watchers() = default;

    // Requires m_mutex. The library waits for running handlers when it adds or removes one, so a handler must not.
    [[nodiscard]] bool is_handler_thread() const { return m_handler_thread == std::this_thread::get_id(); }

    static GVUSB_EVENT_INIT registration(event_kind kind) {
        return {static_cast<std::uint32_t>(kind), 0, GVUSB_CALLBACK_FUNCTION, 0,
                kind == event_kind::connect ? &handle<event_kind::connect> : &handle<event_kind::disconnect>};
    }

    // Register both or none.
    static int add_handlers(GVUSB_EVENT_INIT& connect, GVUSB_EVENT_INIT& disconnect) {
        try {
            int code = GVUSB_AddEventHandler(0, &connect);
            if (code == 0) {
                code = GVUSB_AddEventHandler(0, &disconnect);
            }
            if (code != 0) {
                GVUSB_DelEventHandler(0, &connect);
            }
            return code;
        } catch (...) {
            GVUSB_DelEventHandler(0, &connect);
            throw;
        }
    }

    // Repeats, because a handler may add or remove watchers meanwhile, which the library does not know.
    int register_as_needed() {
        const std::lock_guard<std::mutex> registering(m_registering);
        GVUSB_EVENT_INIT connect = registration(event_kind::connect);
        GVUSB_EVENT_INIT disconnect = registration(event_kind::disconnect);
        for (;;) {
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                if (m_registered == !m_watchers.empty()) {
                    return 0;
                }
            }
            if (m_registered) {
                GVUSB_DelEventHandler(0, &connect);
                GVUSB_DelEventHandler(0, &disconnect);
                m_registered = false;
            } else {
                if (const int code = add_handlers(connect, disconnect); code != 0) {
                    return code;
                }
                m_registered = true;
            }
        }
    }

    // The library calls one handler at a time. An exception ends the program, because it must not pass through C.
    template <event_kind Kind>
    static void handle(int handle, unsigned int id, const char* /*text*/) noexcept {
        all().call({Kind, id, handle});
    }

    // Without allocation. A watcher that is added meanwhile is not called.
    void call(const event& what) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_handler_thread = std::this_thread::get_id();
        const std::uint64_t last = m_last_number;
        std::uint64_t number = 0;
        while (std::shared_ptr<watcher> next = first_after(number)) {
            number = next->number;
            if (number > last) {
                break;
            }
            m_called = next.get();
            lock.unlock();
            const event_function& function =
                what.kind == event_kind::connect ? next->on_connect : next->on_disconnect;
            if (function) {
                function(what);
            }
            lock.lock();
            m_called = nullptr;
            if (next.use_count() == 1) {
                // It has removed itself. Its functions may do anything when they are destroyed.
                lock.unlock();
                next.reset();
                lock.lock();
            } else {
                // A thread that waits for the end of this call destroys the watcher itself.
                next.reset();
            }
            m_returned.notify_all();
        }
        m_handler_thread = std::thread::id();
    }

    // Requires m_mutex.
    [[nodiscard]] std::shared_ptr<watcher> first_after(std::uint64_t number) const {
        for (const std::shared_ptr<watcher>& known : m_watchers) {
            if (known->number > number) {
                return known;
            }
        }
        return nullptr;
    }

    std::mutex m_mutex;
    std::condition_variable m_returned;
    std::vector<std::shared_ptr<watcher>> m_watchers;
    std::uint64_t m_last_number = 0;
    const watcher* m_called = nullptr;
    std::thread::id m_handler_thread;

    // Locked before m_mutex, and held while the library may wait for a handler. Handlers do not take it.
    std::mutex m_registering;
    bool m_registered = false;
};

template <class Callable>
event_function event_function_of(Callable&& callable) {
    if constexpr (std::is_same_v<std::decay_t<Callable>, std::nullptr_t>) {
        return nullptr;
    } else if constexpr (std::is_invocable_v<std::decay_t<Callable>&, const event&>) {
        return std::forward<Callable>(callable);
    } else {
        static_assert(std::is_invocable_v<std::decay_t<Callable>&>,
                      "gvusb::watch takes callables with an event or without arguments");
        return [callable = std::decay_t<Callable>(std::forward<Callable>(callable))](const event&) mutable {
            callable();
        };
    }
}

} // namespace detail
/** @endcond */

/**
 * Calls callables when readers are connected and disconnected, as long as it exists.
 *
 * Which changes are reported depends on the hot-plug mode: see @ref events. In mode 1, scan after each event to be told
 * about every change; a callable may do so.
 *
 * @par Threads
 * The callables are called one at a time, in a thread of the library. They may use everything in this header, even
 * create and destroy watches, also their own. The destructor waits until a call in progress has returned, unless it
 * runs in this call. After that the watch calls nothing. So do not destroy a watch while you hold a lock that its
 * callables take.
 *
 * @par How it is done and what it costs
 * The C interface calls plain functions without data. All watches of a process together register two such functions,
 * for the first watch, and remove them after the last one. For each event they lock a mutex and call the watches in
 * the order of their creation, without allocating memory. If the last watch is destroyed in its own callable, the two
 * functions stay registered until the next watch is destroyed outside of a callable. Do not create or destroy watches
 * in a handler of GVUSB_AddEventHandler, which would wait forever.
 *
 * @par Exceptions
 * An exception must not pass through the library. If a callable throws, std::terminate is called, as for a thread.
 */
class watch {
public:
    /** Make an empty watch. */
    watch() noexcept = default;

    /**
     * Start to watch.
     *
     * @param on_connect  called with a gvusb::event or without arguments when a reader was connected; or nullptr
     * @param on_disconnect  the same for a reader that was disconnected
     */
    template <class Connect, class Disconnect>
    watch(Connect&& on_connect, Disconnect&& on_disconnect)
        : watch(detail::event_function_of(std::forward<Connect>(on_connect)),
                detail::event_function_of(std::forward<Disconnect>(on_disconnect)), 0) {}

    /**
     * Start to watch.
     *
     * @param on_connect  called with a gvusb::event or without arguments when a reader was connected; or nullptr
     * @param on_disconnect  the same for a reader that was disconnected
     * @param ec  cleared, or gets the failure, which leaves the watch empty
     */
    template <class Connect, class Disconnect>
    watch(Connect&& on_connect, Disconnect&& on_disconnect, std::error_code& ec)
        : watch(detail::without_exceptions(
              [&] {
                  return watch(std::forward<Connect>(on_connect), std::forward<Disconnect>(on_disconnect));
              },
              ec)) {}

    /**
     * Move a watch. The other object is empty then.
     *
     * @param other  the other object
     */
    watch(watch&& other) noexcept = default;

    /**
     * End this watch and move the other one.
     *
     * @param other  the other object, empty then
     * @return  this object
     */
    watch& operator=(watch&& other) noexcept {
        if (this != &other) {
            end();
            m_watcher = std::move(other.m_watcher);
        }
        return *this;
    }

    watch(const watch&) = delete;
    watch& operator=(const watch&) = delete;

    /** End the watch. */
    ~watch() { end(); }

    /**
     * Test whether the object is not empty.
     *
     * @return  true if it watches
     */
    [[nodiscard]] explicit operator bool() const noexcept { return m_watcher != nullptr; }

private:
    watch(detail::event_function on_connect, detail::event_function on_disconnect, int /*not a callable*/)
        : m_watcher(std::make_shared<detail::watcher>()) {
        m_watcher->on_connect = std::move(on_connect);
        m_watcher->on_disconnect = std::move(on_disconnect);
        detail::watchers::all().add(m_watcher);
    }

    void end() noexcept {
        // The object is empty before the watcher is removed, because its callables may destroy the object.
        if (const std::shared_ptr<detail::watcher> ended = std::move(m_watcher)) {
            detail::watchers::all().remove(ended);
        }
    }

    std::shared_ptr<detail::watcher> m_watcher;
};

/**
 * Queues events for an event loop, from its creation on. It is made of a gvusb::watch, an unlimited queue, and a file
 * descriptor that poll(), epoll and event loops can wait for.
 *
 * In hot-plug mode 2, a thread must also handle libusb's events. Destroy the object only after the last read() has
 * returned.
 */
class event_source {
public:
    /** Start to queue events. */
    event_source()
        : m_queue(std::make_unique<queue>())
        , m_watch([to = m_queue.get()](const event& what) { to->push(what); },
                  [to = m_queue.get()](const event& what) { to->push(what); }) {}

    /**
     * Start to queue events.
     *
     * @param ec  cleared, or gets the failure, which leaves the object empty
     */
    explicit event_source(std::error_code& ec) noexcept {
        detail::without_exceptions([&] { *this = event_source(); }, ec);
    }

    /**
     * Move an event source. The other object can only be destroyed or assigned then.
     *
     * @param other  the other object
     */
    event_source(event_source&& other) noexcept = default;

    /**
     * End this event source and move the other one.
     *
     * @param other  the other object, which can only be destroyed or assigned then
     * @return  this object
     */
    event_source& operator=(event_source&& other) noexcept {
        m_watch = std::move(other.m_watch); // before the queue that it fills is destroyed
        m_queue = std::move(other.m_queue);
        return *this;
    }

    event_source(const event_source&) = delete;
    event_source& operator=(const event_source&) = delete;
    ~event_source() = default;

    /**
     * Get the file descriptor. It is readable as long as an event waits. Only wait for it: do not read or close it.
     *
     * @return  the descriptor; -1 if the object is empty
     */
    [[nodiscard]] int fd() const noexcept { return m_queue == nullptr ? -1 : m_queue->descriptor; }

    /**
     * Get the next event. Waits for one if there is none.
     *
     * @return  the event
     * @throws error  errc::no_memory if events were lost because memory ran out. The next call continues after them
     */
    event read() { return m_queue->pop(); }

    /**
     * @copydoc read()
     * @param ec  cleared, or gets the failure
     */
    event read(std::error_code& ec) noexcept {
        return detail::without_exceptions([&] { return read(); }, ec);
    }

    /**
     * Wait for an event.
     *
     * @param longest  how long to wait; 0 to only test
     * @return  whether read() has an event or a failure to report
     */
    [[nodiscard]] bool wait(std::chrono::milliseconds longest) { return m_queue->wait(longest); }

private:
    struct queue {
        queue()
            : descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
            if (descriptor < 0) {
                throw error(std::error_code(errno, std::system_category()), "gvusb::event_source");
            }
        }
        queue(const queue&) = delete;
        queue& operator=(const queue&) = delete;
        ~queue() { ::close(descriptor); }

        void push(const event& what) noexcept {
            const std::lock_guard<std::mutex> lock(mutex);
            const bool was_ready = ready();
            try {
                events.push_back(what);
            } catch (const std::bad_alloc&) {
                lost = true;
            }
            if (!was_ready) {
                signal();
                changed.notify_all();
            }
        }

        event pop() {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] { return ready(); });
            if (events.empty()) {
                lost = false;
                calm();
                throw error(errc::no_memory, "gvusb::event_source::read");
            }
            const event next = events.front();
            events.pop_front();
            if (!ready()) {
                calm();
            }
            return next;
        }

        bool wait(std::chrono::milliseconds longest) {
            std::unique_lock<std::mutex> lock(mutex);
            return changed.wait_for(lock, longest, [&] { return ready(); });
        }

        // The events before a loss come first.
        [[nodiscard]] bool ready() const noexcept { return !events.empty() || lost; }

        // Writing to a counter of 0 and reading one of 1 cannot fail.
        void signal() const noexcept { static_cast<void>(::eventfd_write(descriptor, 1)); }
        void calm() const noexcept {
            eventfd_t count = 0;
            static_cast<void>(::eventfd_read(descriptor, &count));
        }

        const int descriptor;
        std::mutex mutex;
        std::condition_variable changed;
        std::deque<event> events;
        bool lost = false;
    };

    std::unique_ptr<queue> m_queue;
    watch m_watch; // after the queue, so that it ends first
};

/** How the library notices that readers come and go. */
enum class hotplug_mode : std::uint8_t {
    off = 0,      /**< not at all */
    polling = 1,  /**< a thread of the library polls the bus */
    callbacks = 2 /**< libusb's hot-plug callbacks */
};

/** Settings of the driver, which apply to all readers. */
namespace driver {

/**
 * Read a parameter of the driver by its key.
 *
 * @param key  the key
 * @return  the value
 */
[[nodiscard]] inline std::string parameter(const char* key) {
    return detail::device_parameter(GVUSB_DRIVER, key, "gvusb::driver::parameter");
}

/**
 * @copydoc parameter(const char*)
 * @param ec  cleared, or gets the failure
 */
[[nodiscard]] inline std::string parameter(const char* key, std::error_code& ec) noexcept {
    return detail::without_exceptions([&] { return parameter(key); }, ec);
}

/**
 * Change a parameter of the driver by its key.
 *
 * @param key  the key
 * @param value  the value
 */
inline void set_parameter(const char* key, const char* value) {
    detail::check(GVUSB_SetDevicePara(GVUSB_DRIVER, key, value), "gvusb::driver::set_parameter");
}

/**
 * @copydoc set_parameter(const char*, const char*)
 * @param ec  cleared, or gets the failure
 */
inline void set_parameter(const char* key, const char* value, std::error_code& ec) noexcept {
    detail::without_exceptions([&] { set_parameter(key, value); }, ec);
}

/**
 * Get the hot-plug mode.
 *
 * @return  the mode
 */
[[nodiscard]] inline hotplug_mode mode() {
    return static_cast<hotplug_mode>(std::atoi(parameter("HOTPLUG-MODE").c_str()));
}

/**
 * @copydoc mode()
 * @param ec  cleared, or gets the failure
 */
[[nodiscard]] inline hotplug_mode mode(std::error_code& ec) noexcept {
    return detail::without_exceptions([] { return mode(); }, ec);
}

/**
 * Set the time between two polls.
 *
 * @param interval  10 to 4294967295 us, otherwise errc::out_of_range
 */
inline void set_update_interval(std::chrono::microseconds interval) {
    // The C function would accept a negative number as the longest time.
    const bool accepted =
        interval.count() >= 0 && interval.count() <= std::numeric_limits<std::uint32_t>::max();
    set_parameter("HOTPLUG-UPDATERATE", std::to_string(accepted ? interval.count() : 0).c_str());
}

/**
 * @copydoc set_update_interval(std::chrono::microseconds)
 * @param ec  cleared, or gets the failure
 */
inline void set_update_interval(std::chrono::microseconds interval, std::error_code& ec) noexcept {
    detail::without_exceptions([&] { set_update_interval(interval); }, ec);
}

/**
 * Suspend polling, resume it, or start it in a mode without polling.
 *
 * @param suspended  whether to suspend it
 */
inline void suspend_polling(bool suspended) {
    set_parameter("HOTPLUG-SUSPEND", suspended ? "1" : "0");
}

/**
 * @copydoc suspend_polling(bool)
 * @param ec  cleared, or gets the failure
 */
inline void suspend_polling(bool suspended, std::error_code& ec) noexcept {
    detail::without_exceptions([&] { suspend_polling(suspended); }, ec);
}

} // namespace driver

/**
 * Get the version of the library that the program runs with.
 *
 * @return  the version, such as "07.01.00"
 */
[[nodiscard]] inline std::string version() {
    return GVUSB_GetDLLVersion();
}

} // namespace gvusb

/** @} */

#undef GVUSB_HPP_SHARED

#endif // GVUSB_HPP
