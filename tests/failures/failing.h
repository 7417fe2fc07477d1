// The libusb calls that an operation makes, and which of them fail.
//
// Plain values, but for TraceRecorder and LastingFailure, which use the stand-in's only hook: one of them at a
// time.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <libusb.h>

namespace failures {

// The documentation of nearly every libusb function names some codes and adds "another LIBUSB_ERROR code", or
// says no more than that a LIBUSB_ERROR code is returned: each may return any of them.
inline constexpr int everyCode[] = {
    LIBUSB_ERROR_IO,        LIBUSB_ERROR_INVALID_PARAM, LIBUSB_ERROR_ACCESS,  LIBUSB_ERROR_NO_DEVICE,
    LIBUSB_ERROR_NOT_FOUND, LIBUSB_ERROR_BUSY,          LIBUSB_ERROR_TIMEOUT, LIBUSB_ERROR_OVERFLOW,
    LIBUSB_ERROR_PIPE,      LIBUSB_ERROR_INTERRUPTED,   LIBUSB_ERROR_NO_MEM,  LIBUSB_ERROR_NOT_SUPPORTED,
    LIBUSB_ERROR_OTHER};

// A call that returns a code.
struct Call {
    std::string function;
    std::string device; // "" when it concerns none
    std::size_t nth;    // call of this function on this device, from 1
};
using Trace = std::vector<Call>;

// Which calls of an operation fail: none, one, or all from one on. The calls are those that the operation makes
// when nothing fails; up to the first failure it makes the same.
class Failing {
public:
    enum class Extent { once, fromThenOn };

    Failing() = default;
    Failing(Trace trace, std::size_t first, int code, Extent extent);

    // Whether any such call fails; "" and 0 stand for any device and any of the function's calls on it.
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

// Notes the calls that can fail for as long as it lives, of whatever thread.
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

// Makes the n-th call that can fail and all after it fail, for as long as it lives.
class LastingFailure {
public:
    LastingFailure(std::size_t n, int code);
    ~LastingFailure();
    LastingFailure(const LastingFailure&) = delete;
    LastingFailure& operator=(const LastingFailure&) = delete;
};

} // namespace failures
