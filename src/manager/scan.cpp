#include "manager/gvdrvhnd.h"

#include "api/log.h"
#include "device/gvdevice.h"

int GVDrvHnd::Scan(int option, _GVUSB_SCANSEARCH* search, bool open) {
    if ((option & GVUSB_SCAN_SEARCH) == 0) {
        search = nullptr;
    }
    switch (option & ~GVUSB_SCAN_SEARCH) {
    case GVUSB_SCAN_ALL:
    case GVUSB_SCAN_ALL_15:
        relaxed::store(m_iScanCursor, -1);
        if (DiscoverDevices(search) <= 0) {
            return SetLastError(GVUSB_ERR_NO_DEVICE_FOUND);
        }
        SetLastError(GVUSB_OK);
        return open ? OpenAllDevices() : GVUSB_OK;
    case GVUSB_SCAN_FIRST:
        if (DiscoverDevices(search) <= 0) {
            relaxed::store(m_iScanCursor, -1);
            return SetLastError(GVUSB_ERR_NO_DEVICE_FOUND);
        }
        SetLastError(GVUSB_OK);
        relaxed::store(m_iScanCursor, 0);
        return open ? OpenDevice(0) : GVUSB_OK;
    case GVUSB_SCAN_NEXT: {
        const int current = relaxed::load(m_iScanCursor);
        if (current < 0) {
            return SetLastError(GVUSB_ERR_NO_CURRENT_ENTRY);
        }
        const int next = current + 1;
        if (next >= GetScanListSize()) {
            relaxed::store(m_iScanCursor, -1);
            return SetLastError(GVUSB_ERR_NO_DEVICE_FOUND);
        }
        relaxed::store(m_iScanCursor, next);
        return open ? OpenDevice(next) : next;
    }
    case GVUSB_SCAN_NOTHING:
        return GVUSB_OK;
    default:
        if (GVLOG_Level() > 0) {
            logLine("scan", "unknown scan option");
        }
        return SetLastError(GVUSB_ERR_UNKNOWN_SCAN_OPTION);
    }
}
