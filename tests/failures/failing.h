// The libusb calls of an operation, and which of them fail.
//
// TraceRecorder and LastingFailure use the stand-in's only hook, so only one of them can exist at a time.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <libusb.h>

namespace failures {

// libusb's documentation allows nearly every function to return any LIBUSB_ERROR code.
inline constexpr int everyCode[] = {
    LIBUSB_ERROR_IO,        LIBUSB_ERROR_INVALID_PARAM, LIBUSB_ERROR_ACCESS,  LIBUSB_ERROR_NO_DEVICE,
    LIBUSB_ERROR_NOT_FOUND, LIBUSB_ERROR_BUSY,          LIBUSB_ERROR_TIMEOUT, LIBUSB_ERROR_OVERFLOW,
    LIBUSB_ERROR_PIPE,      LIBUSB_ERROR_INTERRUPTED,   LIBUSB_ERROR_NO_MEM,  LIBUSB_ERROR_NOT_SUPPORTED,
    LIBUSB_ERROR_OTHER};

// A call that returns a code.
struct Call {
    std::string function;
    std::string device; // "" if it concerns none
    std::size_t nth;    // call of this function on this device, from 1
};
using Trace = std::vector<Call>;

// Which calls of an operation fail: none, one, or one and all later ones. The trace holds the calls without
// failures; up to the first failure, the operation makes the same calls.
class Failing {
public:
    enum class Extent { once, fromThenOn };

    Failing() = default;
    Failing(Trace trace, std::size_t first, int code, Extent extent);

    // Whether such a call fails; "" matches any device, and 0 any of the function's calls on it.
    bool fails(std::string_view function, std::string_view device = {}, std::size_t nth = 0) const;

    int code() const { return code_; }
    bool lasts() const { return extent_ == Extent::fromThenOn; }
    std::string text() const;

private:
    Trace trace_;
    std::size_t first_ = 0; // index into trace_
    int code_ = 0;
    Extent extent_ = Extent::once;
};

// Records all fallible calls, of any thread, during its lifetime.
class TraceRecorder {
public:
    TraceRecorder();
    ~TraceRecorder();
    TraceRecorder(const TraceRecorder&) = delete;
    TraceRecorder& operator=(const TraceRecorder&) = delete;
    Trace trace() const;

private:
    struct Notes;
    std::shared_ptr<Notes> notes_;
};

// Makes the n-th fallible call and all later ones fail during its lifetime.
class LastingFailure {
public:
    LastingFailure(std::size_t n, int code);
    ~LastingFailure();
    LastingFailure(const LastingFailure&) = delete;
    LastingFailure& operator=(const LastingFailure&) = delete;
};

} // namespace failures
