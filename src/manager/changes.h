// Readers that are being opened or closed.
//
// A parallel call opens and closes readers without the device-list mutex. Meanwhile every other thread that wants to use,
// open or close the same reader waits.
#pragma once

#include "device/gvdevice.h"
#include "manager/gvdrvhnd.h"

#include <utility>

// Registers a reader from construction to end() or destruction. The device-list mutex is held at both moments, and somebody
// holds a reference to the record.
class GVDrvHnd::Change {
public:
    Change() noexcept = default;
    Change(GVDrvHnd& manager, GVDevice& device) noexcept GVUSB_REQUIRES(manager.m_mtxDevList)
        : m_manager(&manager)
        , m_device(&device) {
        manager.BeginChange(device);
    }
    Change(Change&& other) noexcept
        : m_manager(other.m_manager)
        , m_device(std::exchange(other.m_device, nullptr)) {}
    Change& operator=(Change&& other) noexcept {
        end();
        m_manager = other.m_manager;
        m_device = std::exchange(other.m_device, nullptr);
        return *this;
    }
    ~Change() { end(); }

    void end() noexcept GVUSB_NO_THREAD_SAFETY_ANALYSIS {
        if (GVDevice* const device = std::exchange(m_device, nullptr)) {
            m_manager->EndChange(*device);
        }
    }

private:
    GVDrvHnd* m_manager = nullptr;
    GVDevice* m_device = nullptr;
};
