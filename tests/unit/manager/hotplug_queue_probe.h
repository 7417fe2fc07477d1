// Detects that another thread has begun to stop a queue of hot-plug events.
#pragma once

#include "manager/hotplug_queue.h"

#include "fake_libusb.h"
#include "waiting.h"

#include <string_view>

// A stopping queue drops new events without referencing the device. Events posted here before are dropped
// with the rest.
inline bool isBeingStopped(HotPlugQueue& queue, std::string_view device) {
    return waiting::eventually([&] {
        const int before = fake_libusb::references(device);
        queue.Post(LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, fake_libusb::device(device));
        return fake_libusb::references(device) == before;
    });
}
