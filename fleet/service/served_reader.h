// One reader, with a thread that runs its requests in order.
#pragma once

#include "fleet/service/gate.h"
#include "fleet/service/request.h"
#include "tools/usb_location.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gvusb.hpp>

namespace fleet {

struct ReaderFacts {
    std::string name; // in topics
    gvusb::device_id id = 0;
    std::string family;
    std::string device;
    std::string interfaceType;
    std::optional<std::string> typeNumber;
    std::string path; // "usb:1-2.3"
    unsigned int bus = 0;
    unsigned int address = 0;

    bool operator==(const ReaderFacts&) const = default;
};

class ServedReader {
public:
    struct Opened {
        gvusb::reader reader;
        std::unique_lock<std::mutex> lock; // held while the reader is open, if it shares its device ID
    };
    // Opens the reader, which was closed. Throws gvusb::error.
    using Open = std::function<Opened()>;
    using Answered = std::function<void(AnsweredRequest)>;

    struct Setup {
        ReaderFacts facts;
        gvusb::reader reader;  // open, unless it shares its device ID with another one
        bool sharesId = false; // it is opened for each request
        std::size_t queue = 0; // how many requests it may have, with the one that runs
    };

    // `open` and `answered` are called in the thread of the reader, `answered` once for each request that was added.
    ServedReader(Setup&& setup, Gate& gate, Open open, Answered answered);
    ServedReader(const ServedReader&) = delete;
    ServedReader& operator=(const ServedReader&) = delete;
    // Ends the call that is running, and answers all requests that wait as stop() says.
    ~ServedReader();

    const ReaderFacts& facts() const { return m_facts; }
    bool sharesId() const { return m_sharesId; }
    std::chrono::system_clock::time_point since() const { return m_since; }

    // Returns false if the queue is full, and leaves the request as it is.
    bool add(Request& request);

    // End the call that is running on the reader. Returns the library's code.
    int cancel() const;

    // From now on, answer requests by Status::absent, without a call on the reader; and end the call that is running.
    void stop();
    // The same, but do not end the call: the handle is another reader's. Returns the handle, which is no longer used; 0 if the
    // reader is not open.
    int retire();

    // Whether the reader's node is among those that the process has open, or need not be.
    bool isWhereItWas(const std::set<UsbNode>& openNodes) const;

private:
    void run();
    void setRetired();
    bool isRetired();
    std::optional<Answer> whyNotToRun(const Request& request);
    Answer answer(const Request& request);
    Answer exchange(const Request& request);
    Answer get(const std::string& key);
    Answer set(const std::string& assignment);
    void openAgain();
    void close();
    int receiveRest(int count, std::string& bytes);
    int findEndpoints();
    Answer outcome(int code, std::chrono::steady_clock::time_point start) const;

    const ReaderFacts m_facts;
    const bool m_sharesId;
    const std::size_t m_queueSize;
    const std::chrono::system_clock::time_point m_since;
    Gate& m_gate;
    const Open m_open;
    const Answered m_answered;

    std::unique_lock<std::mutex> m_openLock;
    gvusb::reader m_reader; // used by the thread alone
    std::atomic<int> m_handle = 0;
    bool m_mustOpen = false;
    std::string m_timeout;         // set by a request; empty for the library's default
    bool m_hasTransferred = false; // since it was opened
    std::vector<unsigned char> m_buffer;

    std::mutex m_mutex;
    std::condition_variable m_added;
    std::deque<Request> m_queue;
    bool m_retired = false;
    std::thread m_thread;
};

} // namespace fleet
