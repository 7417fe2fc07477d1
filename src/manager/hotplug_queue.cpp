#include "manager/hotplug_queue.h"

#include "base/own_thread.h"

#include <new>
#include <utility>

void HotPlugQueue::Post(libusb_hotplug_event event, libusb_device* dev) {
    DeviceReference device(libusb_ref_device(dev));
    const MutexLock lock(m_mutex);
    if (m_stopped) {
        return;
    }
    try {
        m_events.push_back({.event = event, .device = std::move(device)});
    } catch (const std::bad_alloc&) {
        return; // an exception must not pass through libusb
    }
    if (!m_threadStarted) {
        m_threadStarted = startOwnThread(m_thread, &Run, this);
    }
    m_changed.signal();
}

void HotPlugQueue::Stop() {
    if (!m_process.isCurrent()) {
        return;
    }
    std::vector<Event> dropped;
    pthread_t thread = {};
    {
        const MutexLock lock(m_mutex);
        m_stopped = true;
        dropped.swap(m_events);
        if (!std::exchange(m_threadStarted, false)) {
            return;
        }
        thread = m_thread;
        m_changed.signal();
    }
    if (pthread_equal(thread, pthread_self()) == 0) {
        pthread_join(thread, nullptr);
    }
}

void* HotPlugQueue::Run(void* queue) {
    HotPlugQueue& self = *static_cast<HotPlugQueue*>(queue);
    for (std::vector<Event> events = self.WaitForEvents(); !events.empty(); events = self.WaitForEvents()) {
        for (Event& next : events) {
            if (self.IsStopped()) {
                break;
            }
            self.m_reporter(self.m_context, next.event, next.device.get());
            next.device.reset(); // it may take long until the next events come
        }
    }
    return nullptr;
}

// Return the events that were posted since the last call. Empty if the queue is stopped.
std::vector<HotPlugQueue::Event> HotPlugQueue::WaitForEvents() {
    const MutexLock lock(m_mutex);
    while (m_events.empty() && !m_stopped) {
        m_changed.wait(m_mutex);
    }
    return std::exchange(m_events, {});
}

bool HotPlugQueue::IsStopped() {
    const MutexLock lock(m_mutex);
    return m_stopped;
}
