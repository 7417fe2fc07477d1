#include "operations.h"

#include "bare_reader.h"
#include "gvusb.hpp"

#include <array>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using Action = std::function<void(long times)>;

// The loop is inside, so that almost nothing but the operation is counted.
template <class Operate>
Action repeated(Operate operate) {
    return [operate](long times) mutable {
        for (long i = 0; i < times; ++i) {
            operate();
        }
    };
}

constexpr std::size_t frameLength = 16;
constexpr std::size_t longFrameLength = 4096;
constexpr std::size_t largeBufferSize = 64 * 1024;

void check(int code, const char* what) {
    if (code < 0) {
        throw std::runtime_error(std::string(what) + " returned " + std::to_string(code));
    }
}

// Polls would be counted too.
void suspendPolls() {
    check(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1"), "suspending polling");
}

// Open all readers and make a first exchange with the last one, which is returned.
int lastOpenedReader() {
    suspendPolls();
    check(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), "opening the readers");
    int last = 0;
    for (int next = GVUSB_GetDeviceList(0); next > 0; next = GVUSB_GetDeviceList(next)) {
        last = next;
    }
    std::array<unsigned char, frameLength> frame = {2, 0, 7, 0xFF, 1};
    check(GVUSB_Transceive(last, GVUSB_PROTOCOL, 0, frame.data(), frame.size(), frame.data(), frame.size()),
          "the first exchange");
    return last;
}

template <std::size_t SendLength, std::size_t ReceiveSize>
Action exchange() {
    struct Buffers {
        std::array<unsigned char, SendLength> sent = {2, 0, 7, 0xFF, 1};
        std::array<unsigned char, ReceiveSize> received = {};
    };
    return repeated([reader = lastOpenedReader(), buffers = Buffers{}]() mutable {
        check(GVUSB_Transceive(reader, GVUSB_PROTOCOL, 0, buffers.sent.data(), SendLength,
                               buffers.received.data(), ReceiveSize),
              "an exchange");
    });
}

// Functions of their own, so that each can be counted: the call in C, and the same through gvusb.hpp.
using Frame = std::array<unsigned char, frameLength>;

[[gnu::noinline]] std::size_t exchangeByC(int reader, const Frame& sent, Frame& received) {
    const int count =
        GVUSB_Transceive(reader, GVUSB_PROTOCOL, 0, sent.data(), frameLength, received.data(), frameLength);
    return static_cast<std::size_t>(count);
}

[[gnu::noinline]] std::size_t exchangeThrowing(gvusb::reader& reader, const Frame& sent, Frame& received) {
    return reader.transceive(sent, received);
}

[[gnu::noinline]] std::size_t exchangeWithErrorCode(gvusb::reader& reader, const Frame& sent, Frame& received,
                                                    std::error_code& ec) {
    return reader.transceive(sent, received, ec);
}

[[gnu::noinline]] std::size_t exchangeByPointers(gvusb::reader& reader, const unsigned char* sent,
                                                 std::size_t sentSize, unsigned char* received,
                                                 std::size_t receivedSize) {
    return reader.transceive(sent, sentSize, received, receivedSize);
}

void checkCount(std::size_t count) {
    if (count > frameLength) {
        throw std::runtime_error("an exchange failed");
    }
}

// `call` gets a gvusb::reader and two frames.
template <class Call>
Action wrappedExchange(Call call) {
    struct Exchange {
        gvusb::reader reader = gvusb::reader(lastOpenedReader());
        Frame sent = {2, 0, 7, 0xFF, 1};
        Frame received = {};
    };
    return repeated([exchange = std::make_shared<Exchange>(), call] {
        checkCount(call(exchange->reader, exchange->sent, exchange->received));
    });
}

Action exchangesByC() {
    return wrappedExchange([](gvusb::reader& reader, const Frame& sent, Frame& received) {
        return exchangeByC(reader.handle(), sent, received);
    });
}

Action exchangesThrowing() {
    return wrappedExchange(&exchangeThrowing);
}

Action exchangesWithErrorCode() {
    return wrappedExchange([](gvusb::reader& reader, const Frame& sent, Frame& received) {
        std::error_code ec;
        const std::size_t count = exchangeWithErrorCode(reader, sent, received, ec);
        return ec ? frameLength + 1 : count;
    });
}

Action exchangesByPointers() {
    return wrappedExchange([](gvusb::reader& reader, const Frame& sent, Frame& received) {
        static volatile std::size_t size = frameLength; // so that the compiler does not know it
        return exchangeByPointers(reader, sent.data(), size, received.data(), size);
    });
}

Action bareExchange() {
    struct Exchange {
        BareReader reader;
        std::array<unsigned char, frameLength> sent = {2, 0, 7, 0xFF, 1};
        std::array<unsigned char, frameLength> received = {};
    };
    return repeated([exchange = std::make_shared<Exchange>()] {
        exchange->reader.exchange(exchange->sent.data(), frameLength, exchange->received.data(), frameLength);
    });
}

template <std::size_t Size>
Action zeroFilling() {
    return repeated(
        [buffer = std::array<unsigned char, Size>()]() mutable { zeroFill(buffer.data(), Size); });
}

Action readTimeout() {
    return repeated(
        [reader = lastOpenedReader(), value = std::array<char, GVUSB_PARAMETER_SIZE>()]() mutable {
            check(GVUSB_GetDevicePara(reader, "TIMEOUT", value.data()), "reading the time-out");
        });
}

Action scan() {
    suspendPolls();
    return repeated([] { check(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), "a scan"); });
}

// Wait while the library's thread polls. The profiler counts the polls.
Action poll() {
    suspendPolls();
    check(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), "a scan");
    check(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", "1000"), "setting the update rate");
    // The thread is still in a sleep of the old length.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    check(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "0"), "resuming polling");
    return repeated([] { std::this_thread::sleep_for(std::chrono::milliseconds(10)); });
}

Action bareScan() {
    return repeated([bus = std::make_shared<BareBus>()] { bus->scan(); });
}

} // namespace

const std::vector<Operation>& operations() {
    static const std::vector<Operation> all = {
        {"exchange", &exchange<frameLength, frameLength>},
        {"exchange.bare", &bareExchange},
        {"exchange-c", &exchangesByC},
        {"exchange-cxx", &exchangesThrowing},
        {"exchange-cxx-error-code", &exchangesWithErrorCode},
        {"exchange-cxx-pointers", &exchangesByPointers},
        {"exchange-long-frame", &exchange<longFrameLength, frameLength>},
        {"exchange-longer-frame", &exchange<2 * longFrameLength, frameLength>},
        {"exchange-large-buffer", &exchange<frameLength, largeBufferSize>},
        {"zero-fill", &zeroFilling<frameLength>},
        {"zero-fill-large-buffer", &zeroFilling<largeBufferSize>},
        {"read-timeout", &readTimeout},
        {"poll", &poll},
        {"scan", &scan},
        {"scan.bare", &bareScan},
        {"list-devices.bare", [] { return repeated(&listDevices); }},
    };
    return all;
}

const Operation& operationNamed(std::string_view name) {
    for (const Operation& operation : operations()) {
        if (operation.name == name) {
            return operation;
        }
    }
    throw std::invalid_argument("there is no operation named " + std::string(name));
}
