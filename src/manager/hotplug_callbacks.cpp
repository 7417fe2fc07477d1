#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "manager/libusb_events.h"

int LIBUSB_CALL GVDrvHnd::ExecDeviceConnectCallbacks(libusb_context* /*ctx*/, libusb_device* dev,
                                                     libusb_hotplug_event /*event*/, void* manager) {
    GVDrvHnd& self = *static_cast<GVDrvHnd*>(manager);
    // libusb also refuses the read as "busy" if it comes from inside event handling.
    if (eventsAreBeingHandled() || self.ReportArrival(dev) == LIBUSB_ERROR_BUSY) {
        self.m_HotPlugQueue.Post(LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, dev);
    }
    return 0;
}

int LIBUSB_CALL GVDrvHnd::ExecDeviceDisconnectCallbacks(libusb_context* /*ctx*/, libusb_device* dev,
                                                        libusb_hotplug_event /*event*/, void* manager) {
    GVDrvHnd& self = *static_cast<GVDrvHnd*>(manager);
    if (eventsAreBeingHandled()) {
        self.m_HotPlugQueue.Post(LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, dev);
    } else {
        ReportDeparture();
    }
    return 0;
}

int LIBUSB_CALL GVDrvHnd::ExecDeviceCallbacks(libusb_context* ctx, libusb_device* dev,
                                              libusb_hotplug_event event, void* manager) {
    switch (event) {
    case LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED:
        return ExecDeviceConnectCallbacks(ctx, dev, event, manager);
    case LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT:
        return ExecDeviceDisconnectCallbacks(ctx, dev, event, manager);
    default:
        return 0;
    }
}

void GVDrvHnd::ReportQueued(void* manager, libusb_hotplug_event event, libusb_device* dev) {
    if (event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED) {
        static_cast<GVDrvHnd*>(manager)->ReportArrival(dev);
    } else {
        ReportDeparture();
    }
}

// Report a reader whose device ID can be read and is not 0. Return 0 or libusb's code of a failed read.
int GVDrvHnd::ReportArrival(libusb_device* dev) {
    unsigned int devId = 0;
    if (const int rc = ReadDeviceId(dev, devId); rc < 0 || devId == 0) {
        return rc;
    }
    log<Level::manager>("from libusb", "MESSAGE \"connect\": devId=0x", std::hex, devId);
    ExecEventInitListCallbacks(GVUSB_EVENT_CONNECT, 0, devId);
    return LIBUSB_SUCCESS;
}

// The device ID cannot be read any more.
void GVDrvHnd::ReportDeparture() {
    log<Level::manager>("from libusb", "MESSAGE \"disconnect\": devHnd=0x", std::hex, 0, " devId=0x", 0);
    ExecEventInitListCallbacks(GVUSB_EVENT_DISCONNECT, 0, 0);
}
