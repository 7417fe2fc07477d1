#include "exit_status.h"

#include <gvusb.h>

ExitStatus statusOf(int code) {
    switch (code) {
    case GVUSB_ERR_TIMEOUT:
        return ExitStatus::timeOut;
    case GVUSB_ERR_NO_DEVICE_FOUND:
    case GVUSB_ERR_NOT_SCANNED:
    case GVUSB_ERR_NOT_PRESENT:
        return ExitStatus::notFound;
    default:
        return ExitStatus::failure;
    }
}
