// Parameters that access the reader.
#include "expected_codes.h"
#include "operations.h"
#include "situations.h"

namespace failures {
namespace {

char value[GVUSB_PARAMETER_SIZE];

int typeNumber() {
    return GVUSB_GetDevicePara(handleOf(bulkId), "TYPENUMBER", value);
}

int typeNumberOfFirst() {
    return GVUSB_GetDevicePara(GVUSB_ALL_DEVICES, "TYPENUMBER", value);
}

int typeNumberOfEntry() {
    return GVUSB_GetScanListPara(0, "TYPENUMBER", value);
}

Outcome typeNumberOf(const Failing& failing) {
    const int code =
        failing.fails("libusb_get_string_descriptor_ascii") ? int{GVUSB_ERR_STRING_DESCRIPTOR_READ} : 0;
    return {.result = code, .reader = bulkId, .readerError = code};
}

int resetPipe() {
    return GVUSB_SetDevicePara(handleOf(bulkId), "RESETPIPE", "");
}

int resetEveryPipe() {
    return GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "RESETPIPE", "");
}

// Failures to clear a halt are ignored.
Outcome alwaysResets(const Failing& /*failing*/) {
    return {.result = 0, .reader = bulkId, .readerError = 0};
}

int resetDevice() {
    return GVUSB_SetDevicePara(handleOf(bulkId), "RESETDEVICE", "");
}

Outcome resetOf(const Failing& failing) {
    const int code = failing.fails("libusb_reset_device") ? int{GVUSB_ERR_PARAMETER_NOT_AVAILABLE} : 0;
    return {.result = code, .reader = bulkId, .readerError = code};
}

int resetEveryDevice() {
    return GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "RESETDEVICE", "");
}

// The first failure ends the operation.
Outcome resetEveryOf(const Failing& failing) {
    const int code = failing.fails("libusb_reset_device") ? int{GVUSB_ERR_PARAMETER_NOT_AVAILABLE} : 0;
    const bool first = failing.fails("libusb_reset_device", "dev1");
    return {.result = code, .reader = bulkId, .readerError = first ? code : 0};
}

} // namespace

std::vector<Operation> parameterOperations() {
    return {
        {"typeNumber", opened, typeNumber, typeNumberOf},
        {"typeNumberOfFirst", opened, typeNumberOfFirst, typeNumberOf},
        {"typeNumberOfEntry", opened, typeNumberOfEntry, typeNumberOf},
        {"resetPipe", exchanging, resetPipe, alwaysResets},
        {"resetEveryPipe", exchanging, resetEveryPipe, alwaysResets},
        {"resetDevice", exchanging, resetDevice, resetOf},
        {"resetEveryDevice", exchanging, resetEveryDevice, resetEveryOf},
    };
}

} // namespace failures
