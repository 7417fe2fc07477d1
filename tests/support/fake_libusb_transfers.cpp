// Transfers: string descriptors, bulk and control. An asynchronous transfer is the synchronous one, made when the thread that
// has submitted it handles events.

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

bool isTooLong(const Request& request) {
    const bool control = request.transfer == Transfer::controlOut || request.transfer == Transfer::controlIn;
    return request.length < 0 || (control && request.length > longestControlTransfer);
}

// A transfer that reaches the device.
Outcome reach(Call& call, libusb_device& device, Request request, unsigned char* data) {
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

Outcome transfer(Call& call, libusb_device_handle* handle, const Request& request, unsigned char* data) {
    if (!call.usable(handle) || (request.length > 0 && !call.given(data, "data"))) {
        return {LIBUSB_ERROR_OTHER};
    }
    if (const auto code = call.transferRefusal(handle)) {
        return {*code};
    }
    if (isTooLong(request)) {
        return {LIBUSB_ERROR_INVALID_PARAM};
    }
    if (handle->device->silent[static_cast<std::size_t>(request.transfer)]) {
        return {LIBUSB_ERROR_TIMEOUT, 0};
    }
    return reach(call, *handle->device, request, data);
}

Request bulkRequest(std::uint8_t endpoint, int length, unsigned timeout) {
    return {.transfer = (endpoint & LIBUSB_ENDPOINT_IN) != 0 ? Transfer::bulkIn : Transfer::bulkOut,
            .endpoint = endpoint,
            .length = length,
            .timeout = timeout};
}

Request controlRequest(std::uint8_t requestType, std::uint8_t request, std::uint16_t value,
                       std::uint16_t index, int length, unsigned timeout) {
    return {.transfer = (requestType & LIBUSB_ENDPOINT_IN) != 0 ? Transfer::controlIn : Transfer::controlOut,
            .endpoint = requestType,
            .request = request,
            .value = value,
            .index = index,
            .length = length,
            .timeout = timeout};
}

// Record a transfer as the call of the synchronous function.
int recorded(Call& call, libusb_device_handle* handle, const Request& request, int result) {
    if (request.transfer == Transfer::bulkOut || request.transfer == Transfer::bulkIn) {
        return call.returns(result, handle, Hexadecimal{request.endpoint}, request.length, request.timeout);
    }
    return call.returns(result, handle, Hexadecimal{request.endpoint}, request.request, request.value,
                        request.index, request.length, request.timeout);
}

// Asynchronous transfers.

bool isControl(const libusb_transfer& transfer) {
    return transfer.type == LIBUSB_TRANSFER_TYPE_CONTROL;
}

KnownFunction functionOf(const libusb_transfer& transfer) {
    return isControl(transfer) ? KnownFunction("libusb_control_transfer")
                               : KnownFunction("libusb_bulk_transfer");
}

unsigned char* dataOf(const libusb_transfer& transfer) {
    return isControl(transfer) ? transfer.buffer + LIBUSB_CONTROL_SETUP_SIZE : transfer.buffer;
}

Request requestOf(const libusb_transfer& transfer) {
    if (!isControl(transfer)) {
        return bulkRequest(transfer.endpoint, transfer.length, transfer.timeout);
    }
    libusb_control_setup setup = {};
    std::memcpy(&setup, transfer.buffer, sizeof setup);
    return controlRequest(setup.bmRequestType, setup.bRequest, libusb_le16_to_cpu(setup.wValue),
                          libusb_le16_to_cpu(setup.wIndex), transfer.length - int{LIBUSB_CONTROL_SETUP_SIZE},
                          transfer.timeout);
}

// Empty for codes that only libusb_submit_transfer returns.
std::optional<libusb_transfer_status> statusOf(int code) {
    switch (code) {
    case LIBUSB_ERROR_IO:
        return LIBUSB_TRANSFER_ERROR;
    case LIBUSB_ERROR_TIMEOUT:
        return LIBUSB_TRANSFER_TIMED_OUT;
    case LIBUSB_ERROR_PIPE:
        return LIBUSB_TRANSFER_STALL;
    case LIBUSB_ERROR_NO_DEVICE:
        return LIBUSB_TRANSFER_NO_DEVICE;
    case LIBUSB_ERROR_OVERFLOW:
        return LIBUSB_TRANSFER_OVERFLOW;
    default:
        return code >= 0 ? std::optional(LIBUSB_TRANSFER_COMPLETED) : std::nullopt;
    }
}

struct Completion {
    libusb_transfer_status status;
    int count = 0;
};

// What becomes of a submitted transfer.
Completion completionOf(Call& call, const libusb_transfer& transfer, const AsynchronousTransfer& submitted,
                        const Request& request) {
    if (submitted.failure) {
        return {statusOf(*submitted.failure).value_or(LIBUSB_TRANSFER_ERROR)};
    }
    libusb_device& device = *transfer.dev_handle->device;
    const bool& silent = device.silent[static_cast<std::size_t>(request.transfer)];
    const auto isOver = [&] { return submitted.canceled || !device.attached || !silent; };
    if (!call.waitFor(std::chrono::milliseconds(request.timeout), isOver)) {
        return {LIBUSB_TRANSFER_TIMED_OUT};
    }
    if (submitted.canceled) {
        return {LIBUSB_TRANSFER_CANCELLED};
    }
    if (!device.attached) {
        return {LIBUSB_TRANSFER_NO_DEVICE};
    }
    const Outcome outcome = reach(call, device, request, dataOf(transfer));
    return {statusOf(outcome.code).value_or(LIBUSB_TRANSFER_ERROR), outcome.count.value_or(0)};
}

int codeOf(libusb_transfer_status status) {
    for (const int code :
         {LIBUSB_ERROR_TIMEOUT, LIBUSB_ERROR_PIPE, LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_OVERFLOW}) {
        if (statusOf(code) == status) {
            return code;
        }
    }
    return status == LIBUSB_TRANSFER_COMPLETED ? 0 : LIBUSB_ERROR_IO;
}

void complete(libusb_transfer& transfer) {
    {
        Call call(functionOf(transfer), transfer.dev_handle, Call::continued);
        AsynchronousTransfer& submitted = call.state.transfers.at(&transfer);
        Request request = requestOf(transfer);
        request.device = call.device();
        const Completion completion = completionOf(call, transfer, submitted, request);
        transfer.status = completion.status;
        transfer.actual_length = completion.count;
        submitted.pending = false;
        const int code = codeOf(completion.status);
        recorded(call, transfer.dev_handle, request,
                 code == 0 && isControl(transfer) ? completion.count : code);
    }
    transfer.callback(&transfer);
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
    Request request = bulkRequest(endpoint, length, timeout);
    request.device = call.device();
    const auto [code, count] = transfer(call, handle, request, data);
    if (transferred != nullptr && count) {
        *transferred = *count;
    }
    return recorded(call, handle, request, code);
}

int libusb_control_transfer(libusb_device_handle* handle, std::uint8_t requestType, std::uint8_t request,
                            std::uint16_t value, std::uint16_t index, unsigned char* data,
                            std::uint16_t length, unsigned int timeout) {
    Call call("libusb_control_transfer", handle);
    Request whole = controlRequest(requestType, request, value, index, length, timeout);
    whole.device = call.device();
    const auto [code, count] = transfer(call, handle, whole, data);
    return recorded(call, handle, whole, code < 0 ? code : count.value_or(0));
}

libusb_transfer* libusb_alloc_transfer(int packets) {
    Call call("libusb_alloc_transfer");
    if (packets != 0) {
        call.misuse("packets are for isochronous transfers");
    }
    if (call.failureByName()) {
        return nullptr;
    }
    auto* const transfer = static_cast<libusb_transfer*>(::operator new(sizeof(libusb_transfer)));
    std::memset(transfer, 0, sizeof *transfer);
    call.state.transfers[transfer] = {};
    return transfer;
}

void libusb_free_transfer(libusb_transfer* transfer) {
    Call call("libusb_free_transfer");
    if (transfer == nullptr) {
        return;
    }
    const auto found = call.state.transfers.find(transfer);
    if (found == call.state.transfers.end() || found->second.pending) {
        call.misuse(found == call.state.transfers.end() ? "a transfer that does not exist"
                                                        : "a pending transfer");
        return;
    }
    call.state.transfers.erase(found);
    ::operator delete(transfer);
}

int libusb_submit_transfer(libusb_transfer* transfer) {
    {
        Call call("libusb_submit_transfer", transfer->dev_handle);
        const auto found = call.state.transfers.find(transfer);
        if (found == call.state.transfers.end() || !call.usable(transfer->dev_handle) ||
            !call.given(transfer->buffer, "data")) {
            call.misuse("a transfer that cannot be submitted");
            return LIBUSB_ERROR_OTHER;
        }
        if (found->second.pending) {
            return LIBUSB_ERROR_BUSY;
        }
        if (const auto code = call.failureByName()) {
            return *code;
        }
    }
    Call call(functionOf(*transfer), transfer->dev_handle);
    const Request request = requestOf(*transfer);
    const auto failure = call.failure();
    if (failure && !statusOf(*failure)) {
        return recorded(call, transfer->dev_handle, request, *failure);
    }
    if (isTooLong(request)) {
        return recorded(call, transfer->dev_handle, request, LIBUSB_ERROR_INVALID_PARAM);
    }
    if (!failure && !transfer->dev_handle->device->attached) {
        return recorded(call, transfer->dev_handle, request, LIBUSB_ERROR_NO_DEVICE);
    }
    AsynchronousTransfer& submitted = call.state.transfers.at(transfer);
    submitted.pending = true;
    submitted.canceled = false;
    submitted.submitter = std::this_thread::get_id();
    submitted.failure = failure;
    return 0;
}

int libusb_cancel_transfer(libusb_transfer* transfer) {
    Call call("libusb_cancel_transfer");
    const auto found = call.state.transfers.find(transfer);
    if (found == call.state.transfers.end() || found->second.submitter == std::thread::id()) {
        call.misuse("a transfer that was never submitted");
        return LIBUSB_ERROR_OTHER;
    }
    if (!found->second.pending || found->second.canceled) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    found->second.canceled = true;
    call.state.transferChanged.notify_all();
    return 0;
}

int libusb_handle_events_completed(libusb_context* context, int* completed) {
    libusb_transfer* pending = nullptr;
    {
        Call call("libusb_handle_events_completed");
        if (!call.usable(context)) {
            return LIBUSB_ERROR_OTHER;
        }
        if (const auto code = call.failureByName()) {
            return *code;
        }
        call.waitsForEvents();
        for (const auto& [transfer, submitted] : call.state.transfers) {
            if (submitted.pending && submitted.submitter == std::this_thread::get_id()) {
                pending = const_cast<libusb_transfer*>(transfer);
            }
        }
        if (pending == nullptr) {
            if (completed == nullptr || *completed == 0) {
                call.misuse("hangs, for this thread has submitted no transfer");
            }
            return 0;
        }
    }
    complete(*pending);
    return 0;
}

} // extern "C"

namespace fake_libusb {

void queueAnswer(std::string_view name, Transfer transfer, Answer answer) {
    Access all;
    all->named(name).answers[static_cast<std::size_t>(transfer)].push_back(std::move(answer));
}

void silence(std::string_view name, std::initializer_list<Transfer> transfers) {
    Access all;
    libusb_device& device = all->named(name);
    device.silent = {};
    for (const Transfer transfer : transfers) {
        device.silent[static_cast<std::size_t>(transfer)] = true;
    }
    all->transferChanged.notify_all();
}

bool isTransferPending(std::string_view name) {
    Access all;
    const libusb_device& device = all->named(name);
    return std::ranges::any_of(all->transfers, [&](const auto& each) {
        return each.second.pending && each.first->dev_handle->device == &device;
    });
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
