// Holds back calls while the readers are identified.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace fleet {

// With two readers of one device ID, a scan may give the handle of one to the other. So no call begins during a scan.
class Gate {
public:
    // For the duration of a call. Waits while the gate is closed.
    class Pass {
    public:
        explicit Pass(Gate& gate)
            : m_gate(gate) {
            std::unique_lock lock(m_gate.m_mutex);
            m_gate.m_changed.wait(lock, [this] { return !m_gate.m_isClosed; });
            ++m_gate.m_calls;
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        ~Pass() {
            const std::lock_guard lock(m_gate.m_mutex);
            if (--m_gate.m_calls == 0 && m_gate.m_isClosed) {
                m_gate.m_changed.notify_all();
            }
        }

    private:
        Gate& m_gate;
    };

    // Closes the gate; only one object at a time. Waits for the calls that have begun, but not for those that a silent
    // reader keeps waiting: by then they have reached the right reader.
    class Closed {
    public:
        explicit Closed(Gate& gate)
            : m_gate(gate) {
            constexpr std::chrono::milliseconds longest(50);
            std::unique_lock lock(m_gate.m_mutex);
            m_gate.m_isClosed = true;
            m_gate.m_changed.wait_for(lock, longest, [this] { return m_gate.m_calls == 0; });
        }
        Closed(const Closed&) = delete;
        Closed& operator=(const Closed&) = delete;
        ~Closed() {
            const std::lock_guard lock(m_gate.m_mutex);
            m_gate.m_isClosed = false;
            m_gate.m_changed.notify_all();
        }

    private:
        Gate& m_gate;
    };

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isClosed = false;
    int m_calls = 0;
};

} // namespace fleet
