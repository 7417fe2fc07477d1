// Hands hot-plug events from where libusb delivers them to a thread of the library's own.
//
// libusb delivers them while it handles events: there no reader can be asked for its device ID, and a handler
// of the application that called the library would wait for a mutex whose holder waits for those very events.
// The thread starts with the first event and reports them one by one, in the order in which they were posted,
// holding no mutex.
#pragma once

#include "base/mutex.h"
#include "base/own_process.h"
#include "base/usb_owners.h"

#include <vector>

#include <libusb.h>
#include <pthread.h>

class HotPlugQueue {
public:
    using Reporter = void (*)(void* context, libusb_hotplug_event event, libusb_device* dev);

    HotPlugQueue(const OwnProcess& process, Reporter reporter, void* context) noexcept
        : m_process(process)
        , m_reporter(reporter)
        , m_context(context) {}
    ~HotPlugQueue() { Stop(); }
    HotPlugQueue(const HotPlugQueue&) = delete;
    HotPlugQueue& operator=(const HotPlugQueue&) = delete;

    // Keeps a reference to the device until the event is reported. Any thread, also inside libusb's event
    // handling.
    void Post(libusb_hotplug_event event, libusb_device* dev) noexcept GVUSB_EXCLUDES(m_mutex);

    // Drops what is queued and what is posted from now on, and waits for a report in progress, unless that
    // report is what is stopping the queue.
    void Stop() noexcept GVUSB_EXCLUDES(m_mutex);

private:
    struct Event {
        libusb_hotplug_event event;
        DeviceReference device;
    };

    static void* Run(void* queue);
    std::vector<Event> WaitForEvents() GVUSB_EXCLUDES(m_mutex);
    bool IsStopped() GVUSB_EXCLUDES(m_mutex);

    const OwnProcess& m_process;
    const Reporter m_reporter;
    void* const m_context;
    Mutex m_mutex;
    Condition m_changed;
    std::vector<Event> m_events GVUSB_GUARDED_BY(m_mutex);
    bool m_stopped GVUSB_GUARDED_BY(m_mutex) = false;
    bool m_threadStarted GVUSB_GUARDED_BY(m_mutex) = false;
    pthread_t m_thread GVUSB_GUARDED_BY(m_mutex) = {};
};
