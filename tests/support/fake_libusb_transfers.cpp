// Synchronous transfers: string descriptors, bulk and control.

#include "fake_libusb_call.h"

#include <cstring>

using namespace fake_libusb;

namespace {

constexpr int longestControlTransfer = 4096;

struct Outcome {
    int code;
    std::optional<int> count = std::nullopt; // none: the transfer was refused and writes no argument
};

bool isOut(Transfer transfer) {
    return transfer == Transfer::bulkOut || transfer == Transfer::controlOut;
}

// Whether the device has the target of the transfer, if no answer is scripted.
int addressed(const libusb_device& device, const Request& request) {
    const bool bulk = request.transfer == Transfer::bulkOut || request.transfer == Transfer::bulkIn;
    if (bulk) {
        return hasEndpoint(device, request.endpoint) ? 0 : LIBUSB_ERROR_IO;
    }
    const bool frame = (request.endpoint & 0x7F) == LIBUSB_REQUEST_TYPE_VENDOR && request.request == 0;
    return frame ? 0 : LIBUSB_ERROR_PIPE;
}

Answer echo(libusb_device& device, const Request& request) {
    if (const int code = addressed(device, request)) {
        return {.code = code};
    }
    if (isOut(request.transfer)) {
        device.echo.emplace_back(request.sent.begin(), request.sent.end());
        return {};
    }
    if (device.echo.empty()) {
        return {.code = LIBUSB_ERROR_TIMEOUT};
    }
    Bytes& waiting = device.echo.front();
    const auto count =
        static_cast<std::ptrdiff_t>(std::min(waiting.size(), static_cast<std::size_t>(request.length)));
    Answer answer = {.data = Bytes(waiting.begin(), waiting.begin() + count)};
    waiting.erase(waiting.begin(), waiting.begin() + count);
    if (waiting.empty() || request.transfer == Transfer::controlIn) {
        device.echo.pop_front();
    }
    return answer;
}

Answer answerOf(Call& call, libusb_device& device, const Request& request) {
    auto& queued = device.answers[static_cast<std::size_t>(request.transfer)];
    if (!queued.empty()) {
        Answer answer = std::move(queued.front());
        queued.pop_front();
        return answer;
    }
    if (const std::shared_ptr<const Handler> handler = call.state.test.handler) {
        ++device.pins;
        struct Unpin {
            State& state;
            libusb_device& device;
            ~Unpin() {
                --device.pins;
                state.settle(device);
            }
        } const unpin{call.state, device};
        if (const auto answer = call.unlocked([&] { return (*handler)(request); })) {
            return *answer;
        }
    }
    return echo(device, request);
}

Outcome transfer(Call& call, libusb_device_handle* handle, Request request, unsigned char* data) {
    if (!call.usable(handle) || (request.length > 0 && !call.given(data, "data"))) {
        return {LIBUSB_ERROR_OTHER};
    }
    if (const auto code = call.transferRefusal(handle)) {
        return {*code};
    }
    const bool control = request.transfer == Transfer::controlOut || request.transfer == Transfer::controlIn;
    if (request.length < 0 || (control && request.length > longestControlTransfer)) {
        return {LIBUSB_ERROR_INVALID_PARAM};
    }
    libusb_device& device = *handle->device;
    const auto length = static_cast<std::size_t>(request.length);
    if (isOut(request.transfer)) {
        request.sent = {data, length};
        if (call.state.test.recording) {
            device.frames.emplace_back(request.sent.begin(), request.sent.end());
        }
        const Answer answer = answerOf(call, device, request);
        return {answer.code, answer.count.value_or(answer.code < 0 ? 0 : request.length)};
    }
    const Answer answer = answerOf(call, device, request);
    const std::size_t count = std::min(answer.data.size(), length);
    if (count > 0) {
        std::memcpy(data, answer.data.data(), count);
    }
    return {answer.code, answer.count.value_or(static_cast<int>(count))};
}

} // namespace

extern "C" {

int libusb_get_string_descriptor_ascii(libusb_device_handle* handle, std::uint8_t index, unsigned char* data,
                                       int length) {
    Call call("libusb_get_string_descriptor_ascii", handle);
    const auto returns = [&](int result) { return call.returns(result, handle, index, length); };
    if (!call.usable(handle) || !call.given(data, "buffer") ||
        !call.given(length > 0 ? data : nullptr, "room")) {
        return returns(LIBUSB_ERROR_OTHER);
    }
    if (const auto code = call.transferRefusal(handle)) {
        return returns(*code);
    }
    if (index == 0) {
        return returns(LIBUSB_ERROR_INVALID_PARAM);
    }
    const auto& strings = handle->device->reader.strings;
    const auto found = strings.find(index);
    if (found == strings.end()) {
        return returns(LIBUSB_ERROR_PIPE);
    }
    if (const int* code = std::get_if<int>(&found->second)) {
        return returns(*code);
    }
    const std::string& text = std::get<std::string>(found->second);
    const std::size_t count = std::min(text.size(), static_cast<std::size_t>(length - 1));
    std::memcpy(data, text.data(), count);
    data[count] = 0;
    return returns(static_cast<int>(count));
}

int libusb_bulk_transfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                         int length, int* transferred, unsigned int timeout) {
    Call call("libusb_bulk_transfer", handle);
    const Transfer direction = (endpoint & LIBUSB_ENDPOINT_IN) != 0 ? Transfer::bulkIn : Transfer::bulkOut;
    const auto [code, count] = transfer(call, handle,
                                        {.device = call.device(),
                                         .transfer = direction,
                                         .endpoint = endpoint,
                                         .length = length,
                                         .timeout = timeout},
                                        data);
    if (transferred != nullptr && count) {
        *transferred = *count;
    }
    return call.returns(code, handle, Hexadecimal{endpoint}, length, timeout);
}

int libusb_control_transfer(libusb_device_handle* handle, std::uint8_t requestType, std::uint8_t request,
                            std::uint16_t value, std::uint16_t index, unsigned char* data,
                            std::uint16_t length, unsigned int timeout) {
    Call call("libusb_control_transfer", handle);
    const Transfer direction =
        (requestType & LIBUSB_ENDPOINT_IN) != 0 ? Transfer::controlIn : Transfer::controlOut;
    const auto [code, count] = transfer(call, handle,
                                        {.device = call.device(),
                                         .transfer = direction,
                                         .endpoint = requestType,
                                         .request = request,
                                         .value = value,
                                         .index = index,
                                         .length = length,
                                         .timeout = timeout},
                                        data);
    return call.returns(code < 0 ? code : count.value_or(0), handle, Hexadecimal{requestType}, request, value,
                        index, length, timeout);
}

} // extern "C"

namespace fake_libusb {

void queueAnswer(std::string_view name, Transfer transfer, Answer answer) {
    Access all;
    all->named(name).answers[static_cast<std::size_t>(transfer)].push_back(std::move(answer));
}

void setHandler(Handler handler) {
    // Destroy the old handler after releasing the lock: its destructor may call libusb.
    const support::AllocationPause pause;
    auto next = handler ? std::make_shared<const Handler>(std::move(handler)) : nullptr;
    Access()->test.handler.swap(next);
}

std::vector<Bytes> frames(std::string_view name) {
    return Access()->named(name).frames;
}

} // namespace fake_libusb
