#include "explanations.h"

#include <algorithm>
#include <array>
#include <cctype>

#include <gvusb.h>

namespace {

constexpr std::string_view neverReturned = "This code is published, but the library never returns it.";

constexpr Explanation never(int code, std::string_view name) {
    return {.code = code, .name = name, .cause = neverReturned, .remedy = ""};
}

// A code and its name in the public header.
#define CODE(name) name, #name

constexpr std::string_view replug =
    "Unplug the reader and plug it in again. If that does not help, try another cable, and another port "
    "without a hub.";

constexpr std::array table = {
    Explanation{CODE(GVUSB_OK), "The call succeeded.", ""},
    Explanation{CODE(GVUSB_ERR_EMPTY_DEVICE_LIST),
                "A parameter of all readers was requested, but no reader is open.",
                "Open a reader first: call GVUSB_Scan and GVUSB_OpenDevice, or GVUSB_ScanAndOpen."},
    never(CODE(GVUSB_ERR_EMPTY_SCAN_LIST)),
    Explanation{CODE(GVUSB_ERR_NULL_POINTER), "The application passed a null pointer.",
                "Pass the address of a buffer, text or record."},
    never(CODE(GVUSB_ERR_NO_MEMORY)),
    Explanation{CODE(GVUSB_ERR_SET_CONFIGURATION),
                "The reader is not in USB configuration 1 and could not be switched to it: another program "
                "has claimed it, or a kernel driver is bound to it.",
                "End the other program or unbind the driver. 'gvusb doctor' names them."},
    never(CODE(GVUSB_ERR_KERNEL_FUNCTION)),
    Explanation{CODE(GVUSB_ERR_UNSUPPORTED_OPTION),
                "An event handler was added or removed for a single reader.",
                "Pass 0 as the handle: events are those of the whole bus."},
    Explanation{CODE(GVUSB_ERR_UNSUPPORTED_METHOD), "The function is not supported (GVUSB_GetDrvVersion).",
                "Call GVUSB_GetDLLVersion to get the version."},
    Explanation{CODE(GVUSB_ERR_NO_CONFIGURATION), "The reader has no active USB configuration.", replug},
    Explanation{CODE(GVUSB_ERR_LIBUSB_API), "libusb is too old, or it could not be initialized.",
                "Install libusb 1.0.16 or newer. 'gvusb --version' shows the version in use."},
    never(CODE(GVUSB_ERR_NO_GAVO_DEVICE)),
    never(CODE(GVUSB_ERR_SEARCH_MISMATCH)),
    Explanation{CODE(GVUSB_ERR_NO_DEVICE_FOUND),
                "No reader is on the bus, this user may not open any of them, or none matches the search. "
                "When an application steps from reader to reader, this code marks the end.",
                "Run 'gvusb doctor' to find out which."},
    never(CODE(GVUSB_ERR_ALREADY_SCANNED)),
    never(CODE(GVUSB_ERR_SCAN_LIST_OVERFLOW)),
    Explanation{CODE(GVUSB_ERR_NO_CURRENT_ENTRY),
                "The application asked for the next reader before the first one or after the last one.",
                "Start with GVUSB_SCAN_FIRST."},
    never(CODE(GVUSB_ERR_UNKNOWN_DEVICE_HANDLE)),
    Explanation{CODE(GVUSB_ERR_NULL_HANDLE), "The application passed 0 as the handle of a reader.",
                "Pass the handle that the open call returned, and check that it is positive."},
    Explanation{CODE(GVUSB_ERR_NEGATIVE_HANDLE),
                "The application passed a negative handle, most often the code of a failed open.",
                "Check the result of the open call before you use it as a handle."},
    Explanation{CODE(GVUSB_ERR_HANDLE_NOT_FOUND),
                "The handle does not belong to an open reader, or the reader has been closed.",
                "Open the reader again and use the new handle."},
    Explanation{CODE(GVUSB_ERR_TIMEOUT),
                "The reader did not accept the frame or did not answer in time. It may be busy, it may not "
                "know the command, or the frame is damaged and the reader waits for the rest of it.",
                "Check the frame. Allow more time with the parameter TIMEOUT ('gvusb send --timeout'). The "
                "next exchange receives an answer that comes late: receive and drop it before that, as "
                "'gvusb send --drain' does."},
    Explanation{CODE(GVUSB_ERR_NO_SEND_DATA), "The application tried to send a frame of 0 bytes.",
                "Send at least one byte."},
    Explanation{CODE(GVUSB_ERR_UNKNOWN_INTERFACE), "The protocol name is not \"" GVUSB_PROTOCOL "\".",
                "Pass GVUSB_PROTOCOL."},
    never(CODE(GVUSB_ERR_UNKNOWN_DIRECTION)),
    Explanation{CODE(GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL),
                "The application passed a receive buffer of 0 bytes.",
                "Pass a buffer that is large enough for any answer."},
    Explanation{CODE(GVUSB_ERR_SEND_LENGTH),
                "The frame is too long: more than 65535 bytes for a reader that uses control transfers.",
                "Send it in parts, if the reader's protocol allows this."},
    never(CODE(GVUSB_ERR_UNKNOWN_DESCRIPTOR)),
    Explanation{CODE(GVUSB_ERR_NOT_PRESENT), "The reader was unplugged, lost power or was reset.",
                "Plug it in, then scan and open it again. 'gvusb monitor' shows when readers connect and "
                "disconnect."},
    never(CODE(GVUSB_ERR_TRANSMIT_PROCESS)),
    Explanation{CODE(GVUSB_ERR_BULK_TRANSFER),
                "A bulk transfer failed: the endpoint is halted, the last packet did not fit into the "
                "buffer, or the connection is bad.",
                "Clear the halt ('gvusb set ID RESETPIPE') or reset the reader ('gvusb set ID "
                "RESETDEVICE'). Pass a larger buffer. Try another cable."},
    Explanation{CODE(GVUSB_ERR_NOT_SCANNED), "The last scan found no reader with this device ID.",
                "Scan first. 'gvusb list' shows the device IDs on the bus."},
    never(CODE(GVUSB_ERR_NOT_IN_SCAN_LIST)),
    never(CODE(GVUSB_ERR_DEVICE_LIST_HANDLE)),
    Explanation{CODE(GVUSB_ERR_CANNOT_OPEN),
                "libusb could not open the reader, most often because this user may not write to its "
                "device node.",
                "Run 'gvusb doctor': it names the node and the udev rule that grants access."},
    Explanation{CODE(GVUSB_ERR_NOT_OPENED),
                "The reader is not open: it was never opened, or it was unplugged, came back and could not "
                "be opened again.",
                "Open it. If it has a handle, close the handle first."},
    Explanation{CODE(GVUSB_ERR_CANNOT_CLAIM), "Another program has claimed interface 0 of the reader.",
                "End that program ('gvusb doctor' names it), then close the reader and open it again."},
    never(CODE(GVUSB_ERR_WRONG_DEVICE)),
    Explanation{CODE(GVUSB_ERR_UNKNOWN_PARAMETER),
                "There is no parameter of this name, or it is read-only or write-only.",
                "See 'gvusb get --help' and 'gvusb set --help' for the parameters."},
    Explanation{CODE(GVUSB_ERR_OUT_OF_RANGE),
                "The value is not a number, or it is too small for this parameter.",
                "See 'gvusb set --help' for the smallest value."},
    never(CODE(GVUSB_ERR_ODD_PARAMETER)),
    Explanation{CODE(GVUSB_ERR_INDEX_OUT_OF_RANGE), "The scan list has no entry with this index.",
                "Call GVUSB_GetScanListSize for the number of entries. The first one has index 0."},
    Explanation{CODE(GVUSB_ERR_UNKNOWN_SCAN_OPTION), "The scan option is unknown.",
                "Pass a value of enum GVUSB_ScanOption, alone or combined with GVUSB_SCAN_SEARCH."},
    Explanation{CODE(GVUSB_ERR_UNKNOWN_ERROR_CODE),
                "The code whose text was requested is unknown, or the reader of the scan-list entry to "
                "open is gone.",
                "If an open call returned this code, scan again."},
    never(CODE(GVUSB_ERR_PARAMETER_SYNTAX)),
    Explanation{CODE(GVUSB_ERR_PARAMETER_NOT_AVAILABLE), "The reader could not be reset.", replug},
    never(CODE(GVUSB_ERR_DEVICE_DESCRIPTOR_LENGTH)),
    never(CODE(GVUSB_ERR_CONFIG_DESCRIPTOR_LENGTH)),
    never(CODE(GVUSB_ERR_INTERFACE_DESCRIPTOR_LENGTH)),
    never(CODE(GVUSB_ERR_ENDPOINT_DESCRIPTOR_LENGTH)),
    never(CODE(GVUSB_ERR_HID_DESCRIPTOR_LENGTH)),
    never(CODE(GVUSB_ERR_STRING_DESCRIPTOR_LENGTH)),
    Explanation{CODE(GVUSB_ERR_DEVICE_DESCRIPTOR_READ), "The device ID is missing or not hexadecimal.",
                replug},
    Explanation{CODE(GVUSB_ERR_CONFIG_DESCRIPTOR_READ),
                "The USB configuration of the reader could not be read.", replug},
    Explanation{CODE(GVUSB_ERR_STRING_DESCRIPTOR_READ),
                "The reader has no such string descriptor, or it did not return it.", replug},
    never(CODE(GVUSB_ERR_TOO_MANY_INTERFACES)),
    never(CODE(GVUSB_ERR_TOO_MANY_ENDPOINTS)),
    never(CODE(GVUSB_ERR_TOO_MANY_STRINGS)),
    Explanation{CODE(GVUSB_ERR_CONTROL_TRANSFER),
                "A control transfer failed: the reader refused the request, the frame is longer than 4096 "
                "bytes, or the connection is bad.",
                "Check the frame. Reset the reader ('gvusb set ID RESETDEVICE'). Try another cable."},
    never(CODE(GVUSB_ERR_INTERNAL)),
};

#undef CODE

} // namespace

std::span<const Explanation> explanations() {
    return table;
}

const Explanation* findExplanation(int code) {
    const auto found = std::ranges::find(table, code, &Explanation::code);
    return found == table.end() ? nullptr : &*found;
}

const Explanation* findExplanation(std::string_view name) {
    constexpr std::string_view prefix = "GVUSB_ERR_";
    const auto isSame = [](char first, char second) {
        return std::toupper(static_cast<unsigned char>(first)) == second;
    };
    const auto found = std::ranges::find_if(table, [&](const Explanation& each) {
        const std::string_view withoutPrefix =
            each.name.starts_with(prefix) ? each.name.substr(prefix.size()) : each.name;
        return std::ranges::equal(name, each.name, isSame) || std::ranges::equal(name, withoutPrefix, isSame);
    });
    return found == table.end() ? nullptr : &*found;
}
