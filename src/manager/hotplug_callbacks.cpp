#include "manager/gvdrvhnd.h"

#include "api/log.h"

int LIBUSB_CALL GVDrvHnd::ExecDeviceConnectCallbacks(libusb_context* /*ctx*/, libusb_device* dev,
                                                     libusb_hotplug_event /*event*/, void* manager) {
    const unsigned int devId = static_cast<GVDrvHnd*>(manager)->ReadDeviceIdOfUsbDev(dev);
    if (devId != 0) {
        if (GVLOG_Level() > 0) {
            logLine("from libusb", "MESSAGE \"connect\": devId=0x", std::hex, devId);
        }
        ExecEventInitListCallbacks(GVUSB_EVENT_CONNECT, 0, devId);
    }
    return 0;
}

// What has left cannot be asked for its device ID any more.
int LIBUSB_CALL GVDrvHnd::ExecDeviceDisconnectCallbacks(libusb_context* /*ctx*/, libusb_device* /*dev*/,
                                                        libusb_hotplug_event /*event*/, void* /*manager*/) {
    if (GVLOG_Level() > 0) {
        logLine("from libusb", "MESSAGE \"disconnect\": devHnd=0x", std::hex, 0, " devId=0x", 0);
    }
    ExecEventInitListCallbacks(GVUSB_EVENT_DISCONNECT, 0, 0);
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
