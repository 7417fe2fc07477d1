#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "device/gvdevice.h"

int GVDrvHnd::Scan(int option, _GVUSB_SCANSEARCH* search, bool open) {
    if ((option & GVUSB_SCAN_SEARCH) == 0) {
        search = nullptr;
    }
    switch (option & ~GVUSB_SCAN_SEARCH) {
    case GVUSB_SCAN_ALL:
    case GVUSB_SCAN_ALL_15:
        return ScanAll(search, open);
    case GVUSB_SCAN_FIRST:
        return ScanFirst(search, open);
    case GVUSB_SCAN_NEXT:
        return ScanNext(open);
    case GVUSB_SCAN_NOTHING:
        return GVUSB_OK;
    default:
        log<Level::manager>("scan", "unknown scan option");
        return SetLastError(GVUSB_ERR_UNKNOWN_SCAN_OPTION);
    }
}

// The scan-list mutex is held until the readers are open, so that no other thread's scan changes the list in between.
int GVDrvHnd::ScanAll(_GVUSB_SCANSEARCH* search, bool open) {
    logScanSearchOpt(search);
    const bool parallel = IsParallel();
    const MutexLock scanLock(m_mtxScanList);
    const MutexLock listLock(m_mtxDevList);
    if (!parallel) {
        m_iScanCursor = -1;
    }
    if (RebuildScanList(search, parallel, -1) <= 0) {
        return SetLastError(GVUSB_ERR_NO_DEVICE_FOUND);
    }
    SetLastError(GVUSB_OK);
    return open ? OpenEveryEntry(parallel) : GVUSB_OK;
}

int GVDrvHnd::ScanFirst(_GVUSB_SCANSEARCH* search, bool open) {
    logScanSearchOpt(search);
    const bool parallel = IsParallel();
    const MutexLock scanLock(m_mtxScanList);
    const MutexLock listLock(m_mtxDevList);
    if (RebuildScanList(search, parallel, 0) <= 0) {
        return SetLastError(GVUSB_ERR_NO_DEVICE_FOUND);
    }
    SetLastError(GVUSB_OK);
    return open ? OpenEntryAt(0, parallel) : GVUSB_OK;
}

int GVDrvHnd::ScanNext(bool open) {
    const bool parallel = IsParallel();
    const MutexLock lock(m_mtxDevList);
    if (m_iScanCursor < 0) {
        return SetLastError(GVUSB_ERR_NO_CURRENT_ENTRY);
    }
    const int next = m_iScanCursor + 1;
    if (next >= CountScanList()) {
        m_iScanCursor = -1;
        return SetLastError(GVUSB_ERR_NO_DEVICE_FOUND);
    }
    m_iScanCursor = next;
    return open ? OpenEntryAt(next, parallel) : next;
}
