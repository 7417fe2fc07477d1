#include "commands/explanations.h"

#include <algorithm>
#include <array>

#include <gvusb.h>

namespace {

constexpr std::string_view neverReturned = "The code is published, but this library never returns it.";

// The entry of a code that is published and never returned.
constexpr Explanation never(int code) {
    return {.code = code, .cause = neverReturned, .remedy = ""};
}

constexpr std::string_view replug =
    "Unplug the reader and plug it in again; if that does not help, try another "
    "cable and another port without a hub.";

constexpr std::array table = {
    Explanation{GVUSB_OK, "The call was successful.", ""},
    Explanation{GVUSB_ERR_EMPTY_DEVICE_LIST,
                "A parameter of 'all readers' was asked for while no reader is open.",
                "Open a reader first: GVUSB_Scan and GVUSB_OpenDevice, or GVUSB_ScanAndOpen."},
    never(GVUSB_ERR_EMPTY_SCAN_LIST),
    Explanation{GVUSB_ERR_NULL_POINTER, "The application passed a null pointer.",
                "Pass the address of a buffer, text or record."},
    never(GVUSB_ERR_NO_MEMORY),
    Explanation{GVUSB_ERR_SET_CONFIGURATION,
                "The reader does not stand in USB configuration 1 and could not be switched to it: another "
                "program has claimed it, or a kernel driver is bound to it.",
                "End the other program, or unbind the driver: 'gvusb doctor' names both."},
    never(GVUSB_ERR_KERNEL_FUNCTION),
    Explanation{GVUSB_ERR_UNSUPPORTED_OPTION,
                "An event handler was registered or removed for a single reader.",
                "Pass 0 as the handle: events are those of the whole bus."},
    Explanation{GVUSB_ERR_UNSUPPORTED_METHOD, "The function is not supported (GVUSB_GetDrvVersion).",
                "Ask GVUSB_GetDLLVersion for the version."},
    Explanation{GVUSB_ERR_NO_CONFIGURATION, "The reader has no active USB configuration.", replug},
    Explanation{GVUSB_ERR_LIBUSB_API, "libusb is too old, or could not be started.",
                "Install libusb 1.0.16 or newer; 'gvusb --version' tells the one in use."},
    never(GVUSB_ERR_NO_GAVO_DEVICE),
    never(GVUSB_ERR_SEARCH_MISMATCH),
    Explanation{
        GVUSB_ERR_NO_DEVICE_FOUND,
        "No reader is on the bus, none that this user may open, or none that matches the search. Of a "
        "step to the next reader it is the regular end.",
        "'gvusb doctor' tells which it is."},
    never(GVUSB_ERR_ALREADY_SCANNED),
    never(GVUSB_ERR_SCAN_LIST_OVERFLOW),
    Explanation{GVUSB_ERR_NO_CURRENT_ENTRY,
                "The application stepped on to the next reader without a first one, or behind the last.",
                "Begin with GVUSB_SCAN_FIRST."},
    never(GVUSB_ERR_UNKNOWN_DEVICE_HANDLE),
    Explanation{GVUSB_ERR_NULL_HANDLE, "The application passed 0 as a reader's handle.",
                "Pass the handle that opening returned, and check that it is above 0."},
    Explanation{GVUSB_ERR_NEGATIVE_HANDLE,
                "The application passed a negative handle, most often the code of an open that failed.",
                "Check what opening returns before it is used as a handle."},
    Explanation{GVUSB_ERR_HANDLE_NOT_FOUND, "The handle is not that of an open reader, or not any more.",
                "Open the reader again and use the new handle."},
    Explanation{
        GVUSB_ERR_TIMEOUT,
        "The reader did not take the frame or did not answer within its time-out: it is busy, it does "
        "not know the command, or the frame is damaged and it waits for the rest.",
        "Check the frame; allow more time with the parameter TIMEOUT ('gvusb send --timeout'). An "
        "answer that comes late is received by the next exchange."},
    Explanation{GVUSB_ERR_NO_SEND_DATA, "The application wanted to send a frame of 0 bytes.",
                "Send at least one byte."},
    Explanation{GVUSB_ERR_UNKNOWN_INTERFACE, "The protocol name is not \"" GVUSB_PROTOCOL "\".",
                "Pass GVUSB_PROTOCOL."},
    never(GVUSB_ERR_UNKNOWN_DIRECTION),
    Explanation{GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL, "The application passed a receive buffer of 0 bytes.",
                "Pass a buffer that is large enough for any answer."},
    Explanation{
        GVUSB_ERR_SEND_LENGTH,
        "The frame is too long: over 65535 bytes for a reader that is talked to by control transfers.",
        "Send it in parts, as the reader's protocol allows."},
    never(GVUSB_ERR_UNKNOWN_DESCRIPTOR),
    Explanation{GVUSB_ERR_NOT_PRESENT, "The reader was unplugged, has lost its power or has been reset.",
                "Plug it in, then scan and open it again. 'gvusb monitor' shows when it comes and goes."},
    never(GVUSB_ERR_TRANSMIT_PROCESS),
    Explanation{
        GVUSB_ERR_BULK_TRANSFER,
        "A bulk transfer failed: the endpoint is halted, the answer is longer than the buffer, or the "
        "line is disturbed.",
        "Clear the halt ('gvusb set ID RESETPIPE') or reset the reader ('gvusb set ID RESETDEVICE'); "
        "pass a larger buffer; try another cable."},
    Explanation{GVUSB_ERR_NOT_SCANNED, "No reader of the last scan has this device ID.",
                "Scan first; 'gvusb list' shows the device IDs on the bus."},
    never(GVUSB_ERR_NOT_IN_SCAN_LIST),
    never(GVUSB_ERR_DEVICE_LIST_HANDLE),
    Explanation{GVUSB_ERR_CANNOT_OPEN,
                "libusb refused to open the reader: most often this user may not write to its device node.",
                "'gvusb doctor' names the node, and the udev rule that grants access."},
    Explanation{
        GVUSB_ERR_NOT_OPENED,
        "The reader is closed: it was never opened, or it came back after an unplugging and could not "
        "be opened again.",
        "Open it; if it has a handle, close that first."},
    Explanation{GVUSB_ERR_CANNOT_CLAIM, "Another program has claimed the reader's interface 0.",
                "End that program, which 'gvusb doctor' names, then close the reader and open it again."},
    never(GVUSB_ERR_WRONG_DEVICE),
    Explanation{GVUSB_ERR_UNKNOWN_PARAMETER,
                "There is no parameter of this name, or it cannot be read, or cannot be written.",
                "'gvusb get --help' and 'gvusb set --help' list the parameters."},
    Explanation{GVUSB_ERR_OUT_OF_RANGE, "The value is no number, or too small for this parameter.",
                "'gvusb set --help' tells the smallest value."},
    never(GVUSB_ERR_ODD_PARAMETER),
    Explanation{GVUSB_ERR_INDEX_OUT_OF_RANGE, "The scan list has no entry of this index.",
                "Ask GVUSB_GetScanListSize for their number; the first has the index 0."},
    Explanation{GVUSB_ERR_UNKNOWN_SCAN_OPTION, "GVUSB_Scan does not know the option.",
                "Pass one of enum GVUSB_ScanOption, combined with GVUSB_SCAN_SEARCH or not."},
    Explanation{GVUSB_ERR_UNKNOWN_ERROR_CODE,
                "A text was asked for a code that has none; or a scan-list entry was opened whose reader is "
                "gone.",
                "Scan again, if it comes from opening."},
    never(GVUSB_ERR_PARAMETER_SYNTAX),
    Explanation{GVUSB_ERR_PARAMETER_NOT_AVAILABLE, "The reader could not be reset.", replug},
    never(GVUSB_ERR_DEVICE_DESCRIPTOR_LENGTH),
    never(GVUSB_ERR_CONFIG_DESCRIPTOR_LENGTH),
    never(GVUSB_ERR_INTERFACE_DESCRIPTOR_LENGTH),
    never(GVUSB_ERR_ENDPOINT_DESCRIPTOR_LENGTH),
    never(GVUSB_ERR_HID_DESCRIPTOR_LENGTH),
    never(GVUSB_ERR_STRING_DESCRIPTOR_LENGTH),
    Explanation{GVUSB_ERR_DEVICE_DESCRIPTOR_READ,
                "The reader does not tell its device ID, or one that is no hexadecimal number.", replug},
    Explanation{GVUSB_ERR_CONFIG_DESCRIPTOR_READ, "The reader's USB configuration could not be read.",
                replug},
    Explanation{GVUSB_ERR_STRING_DESCRIPTOR_READ,
                "The reader has no such text, or does not answer when it is asked for it.", replug},
    never(GVUSB_ERR_TOO_MANY_INTERFACES),
    never(GVUSB_ERR_TOO_MANY_ENDPOINTS),
    never(GVUSB_ERR_TOO_MANY_STRINGS),
    Explanation{
        GVUSB_ERR_CONTROL_TRANSFER,
        "A control transfer failed: the reader refuses the request, the frame or the buffer is longer "
        "than 4096 bytes, or the line is disturbed.",
        "Check the frame; reset the reader ('gvusb set ID RESETDEVICE'); try another cable."},
    never(GVUSB_ERR_INTERNAL),
};

} // namespace

std::span<const Explanation> explanations() {
    return table;
}

const Explanation* findExplanation(int code) {
    const auto found = std::ranges::find(table, code, &Explanation::code);
    return found == table.end() ? nullptr : &*found;
}
