#include "fleet/service/served_reader.h"

#include "base/reader_facts.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <initializer_list>
#include <string_view>
#include <system_error>
#include <utility>

#include <strings.h>

namespace fleet {
namespace {

using Clock = std::chrono::steady_clock;

// A multiple of every packet size, so that the rest of a longer answer can be received.
constexpr std::size_t bufferSize = 16384;

constexpr std::size_t longestAnswer = std::size_t{1} << 19U;

constexpr unsigned int longestTimeout = 60'000; // milliseconds: a request must not block the others for hours

std::string textOf(int code) {
    char text[GVUSB_TEXT_SIZE] = "";
    GVUSB_GetErrorText(code, text);
    return text;
}

// After these codes, the handle is of no more use: the reader has to be closed and opened again.
bool needsOpening(int code) {
    const std::initializer_list<int> codes = {GVUSB_ERR_NOT_PRESENT,      GVUSB_ERR_NOT_OPENED,
                                              GVUSB_ERR_HANDLE_NOT_FOUND, GVUSB_ERR_CANNOT_CLAIM,
                                              GVUSB_ERR_NO_CONFIGURATION, GVUSB_ERR_CONFIG_DESCRIPTOR_READ,
                                              GVUSB_ERR_CANNOT_OPEN};
    return std::ranges::find(codes, code) != codes.end();
}

bool isKey(std::string_view text, const char* key) {
    return ::strcasecmp(std::string(text).c_str(), key) == 0;
}

Answer absent() {
    return {.status = Status::absent,
            .code = GVUSB_ERR_NO_DEVICE_FOUND,
            .text = "the reader is not there any more"};
}

Answer refused(const std::string& why) {
    return {.status = Status::refused, .text = why};
}

} // namespace

ServedReader::ServedReader(Setup&& setup, Gate& gate, Open open, Answered answered)
    : m_facts(std::move(setup.facts))
    , m_sharesId(setup.sharesId)
    , m_queueSize(setup.queue)
    , m_since(std::chrono::system_clock::now())
    , m_gate(gate)
    , m_open(std::move(open))
    , m_answered(std::move(answered))
    , m_reader(std::move(setup.reader))
    , m_handle(m_reader.handle())
    , m_buffer(bufferSize)
    , m_thread([this] { run(); }) {
}

ServedReader::~ServedReader() {
    setRetired();
    {
        // More than once, because the first attempt may come before the call.
        const std::jthread canceler([this](const std::stop_token& stopped) {
            while (!stopped.stop_requested()) {
                cancel();
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
        m_thread.join();
    }
    // Added when the thread had ended already.
    for (Request& request : m_queue) {
        m_answered({std::move(request), absent()});
    }
}

void ServedReader::setRetired() {
    {
        const std::lock_guard lock(m_mutex);
        m_retired = true;
    }
    m_added.notify_one();
}

void ServedReader::stop() {
    setRetired();
    cancel();
}

int ServedReader::retire() {
    setRetired();
    return m_handle.exchange(0);
}

bool ServedReader::isRetired() {
    const std::lock_guard lock(m_mutex);
    return m_retired;
}

bool ServedReader::isWhereItWas(const std::set<UsbNode>& openNodes) const {
    return m_sharesId || m_handle == 0 || openNodes.contains({m_facts.bus, m_facts.address});
}

bool ServedReader::add(Request& request) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_queue.size() >= m_queueSize) {
            return false;
        }
        m_queue.push_back(std::move(request));
    }
    m_added.notify_one();
    return true;
}

int ServedReader::cancel() const {
    const int handle = m_handle;
    return handle > 0 ? GVUSB_SetDevicePara(handle, "CANCEL", "") : GVUSB_ERR_NOT_OPENED;
}

void ServedReader::run() {
    for (;;) {
        Request request;
        {
            std::unique_lock lock(m_mutex);
            m_added.wait(lock, [this] { return m_retired || !m_queue.empty(); });
            if (m_queue.empty()) {
                return;
            }
            // Its place in the queue stays taken while it runs.
            request = std::move(m_queue.front());
        }
        Answer result = answer(request);
        {
            const std::lock_guard lock(m_mutex);
            m_queue.pop_front();
        }
        m_answered({std::move(request), std::move(result)});
    }
}

Answer ServedReader::answer(const Request& request) {
    const Gate::Pass pass(m_gate);
    if (auto reason = whyNotToRun(request)) {
        return *reason;
    }
    try {
        if (m_sharesId || m_mustOpen) {
            openAgain();
            // Opening may have waited for another request.
            if (auto reason = whyNotToRun(request)) {
                close();
                m_mustOpen = true;
                return *reason;
            }
        }
        Answer result = request.operation == Operation::get   ? get(request.payload)
                        : request.operation == Operation::set ? set(request.payload)
                                                              : exchange(request);
        m_mustOpen = result.code && needsOpening(*result.code);
        if (m_sharesId) {
            close();
        }
        return result;
    } catch (const gvusb::error& error) {
        close();
        m_mustOpen = true;
        const int code = error.code().value();
        return code == GVUSB_ERR_NOT_PRESENT
                   ? absent()
                   : Answer{.status = Status::failed, .code = code, .text = textOf(code)};
    } catch (const std::exception& error) {
        // Memory has run out: the request may have run.
        close();
        m_mustOpen = true;
        return {.status = Status::unknown, .text = error.what()};
    }
}

std::optional<Answer> ServedReader::whyNotToRun(const Request& request) {
    if (isRetired()) {
        return absent();
    }
    return request.isExpired() ? std::optional(expired()) : std::nullopt;
}

void ServedReader::close() {
    m_handle = 0;
    std::error_code ignored;
    m_reader.close(ignored);
    if (m_openLock.owns_lock()) {
        m_openLock.unlock();
    }
}

void ServedReader::openAgain() {
    close();
    Opened opened = m_open();
    m_reader = std::move(opened.reader);
    m_openLock = std::move(opened.lock);
    m_handle = m_reader.handle();
    m_hasTransferred = false;
    if (!m_timeout.empty()) {
        m_reader.set_parameter("TIMEOUT", m_timeout.c_str());
    }
    m_mustOpen = false;
}

Answer ServedReader::outcome(int code, Clock::time_point start) const {
    const auto time = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
    return {.status = code < 0 ? Status::failed : Status::ok,
            .code = code,
            .text = code < 0 ? textOf(code) : "ok",
            .microseconds = static_cast<std::uint64_t>(time.count())};
}

// Receive what did not fit into the buffer. Returns the number of all bytes, or a failure. The rest of an answer that is too
// long is dropped: the next exchange would receive it.
int ServedReader::receiveRest(int count, std::string& bytes) {
    constexpr std::size_t mostDropped = std::size_t{1} << 26U; // of a reader that never stops sending
    std::size_t total = 0;
    while (count > 0) {
        total += static_cast<std::size_t>(count);
        if (total <= longestAnswer) {
            bytes.append(m_buffer.begin(), m_buffer.begin() + count);
        }
        if (static_cast<std::size_t>(count) < m_buffer.size() || total > mostDropped) {
            break;
        }
        count = GVUSB_Receive(m_handle, GVUSB_PROTOCOL, m_buffer.data(),
                              static_cast<unsigned int>(m_buffer.size()));
        if (count == GVUSB_ERR_TIMEOUT) {
            count = 0; // the answer filled the buffer and had no rest
        }
    }
    if (count < 0) {
        return count;
    }
    return total <= longestAnswer ? static_cast<int>(total) : GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL;
}

// The library finds the endpoints in the first transfer after opening. Before that, RESETPIPE succeeds without clearing
// anything.
int ServedReader::findEndpoints() {
    const std::string timeout = m_timeout.empty() ? std::to_string(defaultTransferTimeout) : m_timeout;
    GVUSB_SetDevicePara(m_handle, "TIMEOUT", "1");
    const int code =
        GVUSB_Receive(m_handle, GVUSB_PROTOCOL, m_buffer.data(), static_cast<unsigned int>(m_buffer.size()));
    GVUSB_SetDevicePara(m_handle, "TIMEOUT", timeout.c_str());
    return needsOpening(code) ? code : GVUSB_OK;
}

Answer ServedReader::exchange(const Request& request) {
    m_hasTransferred = true;
    const auto* const frame =
        reinterpret_cast<const unsigned char*>(request.payload.data()); // NOLINT(*-reinterpret-cast)
    const auto size = static_cast<unsigned int>(request.payload.size());
    const auto start = Clock::now();
    if (request.operation == Operation::transmit) {
        return outcome(GVUSB_Transmit(m_handle, GVUSB_PROTOCOL, frame, size), start);
    }
    const auto bufferBytes = static_cast<unsigned int>(m_buffer.size());
    const int count =
        request.operation == Operation::receive
            ? GVUSB_Receive(m_handle, GVUSB_PROTOCOL, m_buffer.data(), bufferBytes)
            : GVUSB_Transceive(m_handle, GVUSB_PROTOCOL, 0, frame, size, m_buffer.data(), bufferBytes);
    std::string bytes;
    Answer answer = outcome(receiveRest(count, bytes), start);
    if (answer.status == Status::ok) {
        answer.payload = std::move(bytes);
    }
    return answer;
}

Answer ServedReader::get(const std::string& key) {
    const auto start = Clock::now();
    if (isKey(key, "PRESENT")) {
        // Reading this key would block.
        const int present = GVUSB_IsDevicePresent(m_handle);
        Answer answer = outcome(present, start);
        answer.payload = present == 1 ? "1" : "0";
        return answer;
    }
    if (key.empty() || key.find('\0') != std::string::npos) {
        return refused("the payload is not a key");
    }
    char value[GVUSB_PARAMETER_SIZE] = "";
    Answer answer = outcome(GVUSB_GetDevicePara(m_handle, key.c_str(), value), start);
    if (answer.status == Status::ok) {
        answer.payload = value;
    }
    return answer;
}

Answer ServedReader::set(const std::string& assignment) {
    const std::size_t sign = assignment.find('=');
    const std::string key = assignment.substr(0, sign);
    const std::string value = sign == std::string::npos ? std::string{} : assignment.substr(sign + 1);
    const bool isTimeout = isKey(key, "TIMEOUT");
    if (!isTimeout && !isKey(key, "RESETPIPE") && !isKey(key, "RESETDEVICE")) {
        return refused("only TIMEOUT, RESETPIPE, RESETDEVICE and CANCEL can be set");
    }
    if (isTimeout) {
        unsigned int time = 0;
        const char* const end = value.data() + value.size();
        const auto [stop, error] = std::from_chars(value.data(), end, time);
        if (error != std::errc{} || stop != end || time < 1 || time > longestTimeout) {
            return refused("TIMEOUT is a number of milliseconds from 1 to " + std::to_string(longestTimeout));
        }
    }
    const auto start = Clock::now();
    if (isKey(key, "RESETPIPE") && !m_hasTransferred) {
        if (const int code = findEndpoints(); code < 0) {
            return outcome(code, start);
        }
    }
    Answer answer = outcome(GVUSB_SetDevicePara(m_handle, key.c_str(), value.c_str()), start);
    if (isTimeout && answer.status == Status::ok) {
        m_timeout = value;
    }
    return answer;
}

} // namespace fleet
