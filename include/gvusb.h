/**
 * @mainpage gvusb
 *
 * Finds, opens and talks to USB RFID readers.
 *
 * A reader is found by a scan, which fills the scan list; opened by its device ID (or together with the
 * scan), which gives it a device handle; then frames are exchanged with it by that handle, until it is
 * closed.
 *
 * @section topics Functions by topic
 *
 * - @ref finding "Finding readers": GVUSB_Scan, GVUSB_ScanAndOpen, GVUSB_GetScanListSize,
 *   GVUSB_GetScanListPara, GVUSB_ClearScanList
 * - @ref opening "Opening and closing": GVUSB_OpenDevice, GVUSB_CloseDevice, GVUSB_IsDevicePresent,
 *   GVUSB_GetDeviceHnd, GVUSB_GetDeviceList
 * - @ref frames "Exchanging frames": GVUSB_Transceive, GVUSB_Transmit, GVUSB_Receive
 * - @ref settings "Settings": GVUSB_GetDevicePara, GVUSB_SetDevicePara
 * - @ref events "Readers that come and go": GVUSB_AddEventHandler, GVUSB_DelEventHandler
 * - @ref errors "Errors and versions": GVUSB_GetLastError, GVUSB_GetErrorText, GVUSB_GetDLLVersion,
 *   GVUSB_GetDrvVersion
 *
 * @section records Records
 *
 * GVUSB_SCANSEARCH says what a scan looks for, GVUSB_EVENT_INIT which function an event calls.
 *
 * @section codes Return codes
 *
 * 0 or a positive value (a count, a handle, a flag) is success; failures are the negative codes of
 * GVUSB_ErrorCode. Two kinds of last error are kept: one for the whole process (the manager's), and one for
 * each open reader. GVUSB_GetLastError fetches either with its text. "Last error" below is the manager's.
 *
 * @section threads Threads
 *
 * Every function may be called from any thread. Calls that reach readers are serialised: while one thread
 * waits for a reader's answer, the others wait for it. The last error is one number for the whole process,
 * so with several threads rely on the returned code, or on the reader's own last error. Loading and
 * unloading the library must not run at the same time as a call into it.
 *
 * @section lifetime Start and end
 *
 * The library is ready as soon as it is loaded and cleans up when it is unloaded; there is no call for
 * either. It uses libusb's default context. The readers stay with the process that loaded it: a forked
 * child must not call the library.
 *
 * @section configuration Configuration
 *
 * /etc/gavo/gvusb.conf is read once, at loading: at most its first 1023 bytes are searched for the keys
 * "libusb_debuglevel=N", "gvusb_debuglevel=N", "gvusb_hotplug=M" (0 off, 1 polling, 2 libusb's hot-plug
 * callbacks), "gvusb_updaterate=MS" (milliseconds between two polls, at least 10) and "nopnp" (as mode 0).
 *
 * @section logging Logging
 *
 * With a log level of 1 and more the library writes what it does to standard output: 1 tells what the
 * manager does, 2 adds the work on each reader with every byte that is exchanged, 3 adds what happens at
 * each poll.
 *
 * @section memory Memory
 *
 * Callers own every buffer and record that they pass; the library keeps no pointer to them after the call.
 * Texts are zero-terminated 8-bit strings. An exception crosses the functions only when memory runs out;
 * every lock is released when it does.
 *
 * @section examples Examples
 *
 * list_readers.c, exchange_frame.c, handle_errors.c, many_readers.c, watch_readers.c,
 * watch_readers_events.c; in Python python/gvusb.py. They are installed in share/doc/libgvusb-dev/examples, and
 * the guides in share/doc/libgvusb-dev/guides.
 */
#ifndef GVUSB_H
#define GVUSB_H

/** @file gvusb.h */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @defgroup types Codes, options and records
 * @{
 */

/** Codes that the functions return and that GVUSB_GetLastError reports. */
enum GVUSB_ErrorCode {
    GVUSB_OK = 0,                         /**< success */
    GVUSB_ERR_EMPTY_DEVICE_LIST = -1100,  /**< no reader is open */
    GVUSB_ERR_EMPTY_SCAN_LIST = -1101,    /**< published, never returned */
    GVUSB_ERR_NULL_POINTER = -1102,       /**< an argument is a null pointer */
    GVUSB_ERR_NO_MEMORY = -1103,          /**< published, never returned */
    GVUSB_ERR_SET_CONFIGURATION = -1104,  /**< the USB configuration could not be set */
    GVUSB_ERR_KERNEL_FUNCTION = -1105,    /**< published, never returned */
    GVUSB_ERR_UNSUPPORTED_OPTION = -1106, /**< an event handler for anything but handle 0 */
    GVUSB_ERR_UNSUPPORTED_METHOD = -1107, /**< the function is not supported */
    GVUSB_ERR_NO_CONFIGURATION = -1108,   /**< the reader has no USB configuration */
    GVUSB_ERR_LIBUSB_API = -1109,         /**< libusb lacks its capability query, or the library has ended */
    GVUSB_ERR_NO_GAVO_DEVICE = -1110,     /**< published, never returned */
    GVUSB_ERR_SEARCH_MISMATCH = -1111,    /**< published, never returned */
    GVUSB_ERR_NO_DEVICE_FOUND = -1112,    /**< a scan found nothing, or the scan list is at its end */
    GVUSB_ERR_ALREADY_SCANNED = -1113,    /**< published, never returned */
    GVUSB_ERR_SCAN_LIST_OVERFLOW = -1114, /**< published, never returned */
    GVUSB_ERR_NO_CURRENT_ENTRY = -1115,   /**< stepping on without a current scan-list entry; has no text */
    GVUSB_ERR_UNKNOWN_DEVICE_HANDLE = -1120,    /**< published, never returned */
    GVUSB_ERR_NULL_HANDLE = -1121,              /**< the handle is 0 */
    GVUSB_ERR_NEGATIVE_HANDLE = -1122,          /**< the handle is negative */
    GVUSB_ERR_HANDLE_NOT_FOUND = -1123,         /**< no open reader has this handle */
    GVUSB_ERR_TIMEOUT = -1130,                  /**< the reader did not take or send a frame in time */
    GVUSB_ERR_NO_SEND_DATA = -1131,             /**< the send length is 0 */
    GVUSB_ERR_UNKNOWN_INTERFACE = -1132,        /**< the protocol name is not GVUSB_PROTOCOL */
    GVUSB_ERR_UNKNOWN_DIRECTION = -1133,        /**< published, never returned */
    GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL = -1134, /**< the receive buffer size is 0 */
    GVUSB_ERR_SEND_LENGTH = -1135,              /**< the frame is too long to be sent */
    GVUSB_ERR_UNKNOWN_DESCRIPTOR = -1136,       /**< published, never returned */
    GVUSB_ERR_NOT_PRESENT = -1137,              /**< the reader is gone */
    GVUSB_ERR_TRANSMIT_PROCESS = -1138,         /**< published, never returned */
    GVUSB_ERR_BULK_TRANSFER = -1139,            /**< a bulk transfer failed */
    GVUSB_ERR_NOT_SCANNED = -1140,              /**< no scan-list entry has this device ID */
    GVUSB_ERR_NOT_IN_SCAN_LIST = -1141,         /**< published, never returned */
    GVUSB_ERR_DEVICE_LIST_HANDLE = -1142,       /**< published, never returned */
    GVUSB_ERR_CANNOT_OPEN = -1143,              /**< libusb refused to open the reader */
    GVUSB_ERR_NOT_OPENED = -1144,               /**< the reader is not open */
    GVUSB_ERR_CANNOT_CLAIM = -1145,             /**< interface 0 is claimed by somebody else */
    GVUSB_ERR_WRONG_DEVICE = -1146,             /**< published, never returned */
    GVUSB_ERR_UNKNOWN_PARAMETER = -1150,        /**< no such key, or not in this direction */
    GVUSB_ERR_OUT_OF_RANGE = -1151,             /**< the value is out of range */
    GVUSB_ERR_ODD_PARAMETER = -1152,            /**< published, never returned */
    GVUSB_ERR_INDEX_OUT_OF_RANGE = -1153,       /**< no such scan-list index */
    GVUSB_ERR_UNKNOWN_SCAN_OPTION = -1154,      /**< no such scan option */
    GVUSB_ERR_UNKNOWN_ERROR_CODE =
        -1155,                          /**< the code has no text; or an emptied scan-list entry was opened */
    GVUSB_ERR_PARAMETER_SYNTAX = -1156, /**< published, never returned */
    GVUSB_ERR_PARAMETER_NOT_AVAILABLE = -1157,     /**< the reader refused to be reset */
    GVUSB_ERR_DEVICE_DESCRIPTOR_LENGTH = -1160,    /**< published, never returned */
    GVUSB_ERR_CONFIG_DESCRIPTOR_LENGTH = -1161,    /**< published, never returned */
    GVUSB_ERR_INTERFACE_DESCRIPTOR_LENGTH = -1162, /**< published, never returned */
    GVUSB_ERR_ENDPOINT_DESCRIPTOR_LENGTH = -1163,  /**< published, never returned */
    GVUSB_ERR_HID_DESCRIPTOR_LENGTH = -1164,       /**< published, never returned */
    GVUSB_ERR_STRING_DESCRIPTOR_LENGTH = -1165,    /**< published, never returned */
    GVUSB_ERR_DEVICE_DESCRIPTOR_READ = -1166,      /**< the device ID could not be read */
    GVUSB_ERR_CONFIG_DESCRIPTOR_READ = -1167,      /**< the configuration descriptor could not be read */
    GVUSB_ERR_STRING_DESCRIPTOR_READ = -1168,      /**< a string descriptor could not be read */
    GVUSB_ERR_TOO_MANY_INTERFACES = -1170,         /**< published, never returned */
    GVUSB_ERR_TOO_MANY_ENDPOINTS = -1171,          /**< published, never returned */
    GVUSB_ERR_TOO_MANY_STRINGS = -1172,            /**< published, never returned */
    GVUSB_ERR_CONTROL_TRANSFER = -1180,            /**< a control transfer failed */
    GVUSB_ERR_INTERNAL = -1199                     /**< published, never returned */
};

/** What GVUSB_GetScanListPara returns for an index that names no reader: positive, unlike every other
 * failure. */
enum { GVUSB_NO_SCAN_LIST_ENTRY = 1115 };

/** Options of GVUSB_Scan and GVUSB_ScanAndOpen. GVUSB_SCAN_SEARCH is combined by | with one of the others. */
enum GVUSB_ScanOption {
    GVUSB_SCAN_FIRST = 1,        /**< scan anew, the first reader found becomes the current entry */
    GVUSB_SCAN_NEXT = 2,         /**< step to the next entry of the scan list, without scanning */
    GVUSB_SCAN_ALL = 3,          /**< scan anew, all readers found */
    GVUSB_SCAN_ALL_15 = 15,      /**< the same as GVUSB_SCAN_ALL */
    GVUSB_SCAN_SEARCH = 0x10000, /**< only readers that match the search record */
    GVUSB_SCAN_NOTHING = 0x20000 /**< do nothing */
};

/** Criteria of a search record. Only one is tested: the first that is set, in this order. */
enum GVUSB_SearchMask {
    GVUSB_SEARCH_FAMILY_NAME = 0x1, /**< the family name equals famName */
    GVUSB_SEARCH_DEVICE_NAME = 0x2, /**< the device name equals devName */
    GVUSB_SEARCH_DEVICE_ID = 0x4    /**< the device ID equals devId */
};

/** Special handles of GVUSB_GetDevicePara and GVUSB_SetDevicePara. Handles of readers are above 0. */
enum {
    GVUSB_DRIVER = -1,    /**< the driver itself */
    GVUSB_ALL_DEVICES = 0 /**< every open reader (writing), the first open reader (reading) */
};

/** Sizes of buffers, in bytes with the terminating zero. */
enum {
    GVUSB_TEXT_SIZE = 57,       /**< the longest error text */
    GVUSB_PARAMETER_SIZE = 256, /**< the longest parameter value */
    GVUSB_KEY_SIZE = 128        /**< longer keys and protocol names are refused as unknown */
};

/** The protocol of the frames, to be named in every exchange; upper and lower case are the same. */
#define GVUSB_PROTOCOL "TESK-RCI2"

/** Events and the kind of callback of an event registration. */
enum {
    GVUSB_EVENT_CONNECT = 1,    /**< a reader was connected */
    GVUSB_EVENT_DISCONNECT = 2, /**< a reader was disconnected */
    GVUSB_CALLBACK_FUNCTION = 3 /**< the only kind of callback: cbFct */
};

/**
 * What a scan looks for. Filled by the application, only read by the library. Texts are compared byte by
 * byte; a text that fills its field needs no terminating zero.
 */
struct _GVUSB_SCANSEARCH {
    int32_t mask;     /**< one of enum GVUSB_SearchMask; a mask without any of them matches no reader */
    char famName[25]; /**< family name; longer ones cannot be searched for */
    char devName[50]; /**< device name; likewise */
    char devId[25]; /**< device ID in hexadecimal, as scanf's "%x" reads it; without digits it matches none */
};
/** The search record under its usual name. */
typedef struct _GVUSB_SCANSEARCH GVUSB_SCANSEARCH;

/**
 * An event handler.
 *
 * @param iDevHnd  at a disconnect in mode 1 the reader's handle, which only means something if it was opened;
 *                 otherwise 0
 * @param uiDevId  device ID of the reader; 0 at a disconnect in mode 2, which does not tell it
 * @param pText    always an empty text
 */
typedef void (*GVUSB_EventCallback)(int iDevHnd, unsigned int uiDevId, const char* pText);

/** Registration of an event handler. The library keeps a copy. */
struct _GVUSB_EVENT_INIT {
    uint32_t uiEvent;          /**< GVUSB_EVENT_CONNECT or GVUSB_EVENT_DISCONNECT; others never fire */
    uint32_t uiReserved1;      /**< not read */
    uint32_t uiCallbackType;   /**< GVUSB_CALLBACK_FUNCTION */
    uint32_t uiReserved2;      /**< not read */
    GVUSB_EventCallback cbFct; /**< the handler; null is accepted and never fires */
};
/** The event registration under its usual name. */
typedef struct _GVUSB_EVENT_INIT GVUSB_EVENT_INIT;

/* The records' layouts are part of the binary interface; an array of size -1 does not compile. */
/** @cond */
typedef char GVUSB_check_int[sizeof(int) == 4 ? 1 : -1];
typedef char GVUSB_check_mask[offsetof(struct _GVUSB_SCANSEARCH, mask) == 0 ? 1 : -1];
typedef char GVUSB_check_famName[offsetof(struct _GVUSB_SCANSEARCH, famName) == 4 ? 1 : -1];
typedef char GVUSB_check_devName[offsetof(struct _GVUSB_SCANSEARCH, devName) == 29 ? 1 : -1];
typedef char GVUSB_check_devId[offsetof(struct _GVUSB_SCANSEARCH, devId) == 79 ? 1 : -1];
typedef char GVUSB_check_scansearch[sizeof(struct _GVUSB_SCANSEARCH) == 104 ? 1 : -1];
typedef char GVUSB_check_uiEvent[offsetof(struct _GVUSB_EVENT_INIT, uiEvent) == 0 ? 1 : -1];
typedef char GVUSB_check_uiReserved1[offsetof(struct _GVUSB_EVENT_INIT, uiReserved1) == 4 ? 1 : -1];
typedef char GVUSB_check_uiCallbackType[offsetof(struct _GVUSB_EVENT_INIT, uiCallbackType) == 8 ? 1 : -1];
typedef char GVUSB_check_uiReserved2[offsetof(struct _GVUSB_EVENT_INIT, uiReserved2) == 12 ? 1 : -1];
typedef char GVUSB_check_cbFct[offsetof(struct _GVUSB_EVENT_INIT, cbFct) == 16 ? 1 : -1];
typedef char GVUSB_check_event_init[sizeof(struct _GVUSB_EVENT_INIT) == 16 + sizeof(void*) ? 1 : -1];
/** @endcond */

/** @} */

/**
 * @defgroup finding Finding readers
 * @{
 */

/**
 * Finds the readers on the bus and puts them into the scan list, in the bus's order, in place of its former
 * content. Readers that are open stay open and keep their handles; every other reader is identified anew,
 * which opens and closes it.
 *
 * @param scanOption  one of enum GVUSB_ScanOption, with GVUSB_SCAN_SEARCH or without
 * @param search      what to look for, read only with GVUSB_SCAN_SEARCH; null matches every reader
 * @return  0 on success; with GVUSB_SCAN_NEXT the index of the entry that is now the current one;
 *          GVUSB_ERR_NO_DEVICE_FOUND when nothing was found or (GVUSB_SCAN_NEXT) the list is at its end;
 *          GVUSB_ERR_NO_CURRENT_ENTRY when GVUSB_SCAN_NEXT has no current entry to step on from;
 *          GVUSB_ERR_UNKNOWN_SCAN_OPTION
 *
 * Sets the last error to 0 or to the returned code. Any thread; the current entry is one for the whole
 * process.
 */
int GVUSB_Scan(int scanOption, GVUSB_SCANSEARCH* search);

/**
 * Scans as GVUSB_Scan does and opens what was found: every reader with GVUSB_SCAN_ALL, the current entry with
 * GVUSB_SCAN_FIRST and GVUSB_SCAN_NEXT. Other threads' scans come before it or after it: what is opened is what
 * this scan found.
 *
 * A reader that was open, was unplugged and is found again keeps its handle and is opened again. Where that fails,
 * its handle is returned all the same, and transfers answer GVUSB_ERR_NOT_OPENED: close the handle and open the
 * reader once more.
 *
 * @param scanOption  as in GVUSB_Scan
 * @param search      as in GVUSB_Scan
 * @return  with GVUSB_SCAN_ALL 0, or the code of the last reader that could not be opened (the others are
 *          open); with GVUSB_SCAN_FIRST and GVUSB_SCAN_NEXT the handle, above 0; with GVUSB_SCAN_NOTHING 0;
 *          the codes of GVUSB_Scan and GVUSB_OpenDevice otherwise
 *
 * Sets the last error to 0 or to the returned code. Any thread.
 */
int GVUSB_ScanAndOpen(int scanOption, GVUSB_SCANSEARCH* search);

/**
 * Reads a parameter of a scan-list entry; the keys are those of GVUSB_GetDevicePara for a reader. On an entry
 * that is not open "DEVICEHND" reads "0" and "TYPENUMBER" cannot be read.
 *
 * @param index  0 for the first entry
 * @param key    name of the parameter
 * @param value  gets the text; GVUSB_PARAMETER_SIZE bytes
 * @return  0; GVUSB_ERR_NULL_POINTER; GVUSB_NO_SCAN_LIST_ENTRY (positive) when there is no such entry; the
 *          codes of GVUSB_GetDevicePara for a reader
 *
 * Sets the last error to the returned value. Any thread.
 */
int GVUSB_GetScanListPara(int index, const char* key, char* value);

/**
 * Counts the readers that the last scan found.
 *
 * @return  the number of entries of the scan list; sets the last error to 0. Any thread.
 */
int GVUSB_GetScanListSize(void);

/**
 * Empties the scan list. Open readers stay open, with their handles.
 *
 * @return  0; sets the last error to 0. Any thread.
 */
int GVUSB_ClearScanList(void);

/** @} */

/**
 * @defgroup opening Opening and closing
 * @{
 */

/**
 * Opens the first reader of the scan list that has this device ID. An open reader is left as it is. A reader
 * that is open but has left the scan list is not found; GVUSB_GetDeviceHnd finds it.
 *
 * @param devId  device ID, the number that "DEVICE-ID" gives in hexadecimal
 * @return  the handle, above 0; GVUSB_ERR_NOT_SCANNED; GVUSB_ERR_CANNOT_OPEN (libusb refused: permissions,
 *          say); GVUSB_ERR_CONFIG_DESCRIPTOR_READ; GVUSB_ERR_SET_CONFIGURATION
 *
 * Sets the last error to 0 or to the returned code, but leaves it alone when the reader is open already. Any
 * thread.
 */
int GVUSB_OpenDevice(unsigned int devId);

/**
 * Closes a reader. Its handle is no longer valid; as long as the reader stands in the scan list it can be
 * opened again from there, and has its former handle then.
 *
 * @param devHnd  handle of the reader
 * @return  0; GVUSB_ERR_NEGATIVE_HANDLE; GVUSB_ERR_NULL_HANDLE; GVUSB_ERR_HANDLE_NOT_FOUND
 *
 * Sets the last error to the returned code. Any thread; waits for a transfer in progress.
 */
int GVUSB_CloseDevice(int devHnd);

/**
 * Asks an open reader for its device ID, to see whether it is still there.
 *
 * @param devHnd  handle of the reader
 * @return  1 when it answers, 0 when not; GVUSB_ERR_NEGATIVE_HANDLE; GVUSB_ERR_NULL_HANDLE;
 *          GVUSB_ERR_HANDLE_NOT_FOUND
 *
 * Sets the last error to 0 or to the returned code; the reader's own last error says GVUSB_ERR_NOT_PRESENT.
 * Any thread.
 */
int GVUSB_IsDevicePresent(int devHnd);

/**
 * Walks the open readers: call it with 0 first, then with each handle that it returned, until it returns 0.
 *
 * @param devHnd  the handle returned last; 0 or a negative number to start
 * @return  the next handle, or 0 at the end and for a handle that is not open
 *
 * Leaves the last error alone. Any thread.
 */
int GVUSB_GetDeviceList(int devHnd);

/**
 * Looks the handle of an open reader up.
 *
 * @param devId  device ID
 * @return  the handle, above 0; GVUSB_ERR_NOT_OPENED when no open reader has this device ID
 *
 * Sets the last error only on failure. Any thread.
 */
int GVUSB_GetDeviceHnd(unsigned int devId);

/** @} */

/**
 * @defgroup frames Exchanging frames
 * @{
 */

/**
 * Sends a frame and receives the answer; no other call reaches the reader between the two. A reader with a
 * bulk IN and a bulk OUT endpoint on interface 0 is talked to over these, any other over vendor control
 * transfers. The first transfer after opening claims interface 0.
 *
 * Each of the two transfers may take as long as the reader's "TIMEOUT" says. What has arrived when the time
 * is over is lost; an answer that comes later is received by the next call. A frame that is not taken in time
 * over a bulk endpoint clears the halts of both. Let the buffer be large enough for any answer: a longer one
 * fails.
 *
 * @param devHnd         handle of the reader
 * @param interfaceName  GVUSB_PROTOCOL
 * @param reserved       ignored
 * @param sendData       the frame
 * @param sendLength     its length in bytes, at least 1; at most 4096 over control transfers (what libusb
 *                       takes)
 * @param receiveBuffer  gets the answer; is filled with zeros once the frame is sent (over control transfers
 *                       only its first 4096 bytes)
 * @param receiveSize    its size in bytes, at least 1; over control transfers at most 4096 bytes are received
 * @return  the number of bytes received, 0 included; or, in the order in which they are tested:
 *          GVUSB_ERR_NEGATIVE_HANDLE, GVUSB_ERR_NULL_HANDLE, GVUSB_ERR_NULL_POINTER, GVUSB_ERR_NO_SEND_DATA,
 *          GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL, GVUSB_ERR_HANDLE_NOT_FOUND, GVUSB_ERR_NOT_OPENED,
 *          GVUSB_ERR_UNKNOWN_INTERFACE; GVUSB_ERR_NO_CONFIGURATION, GVUSB_ERR_CONFIG_DESCRIPTOR_READ,
 *          GVUSB_ERR_CANNOT_CLAIM from the first transfer after opening (close and open the reader then;
 *          later transfers go on without the interface); GVUSB_ERR_SEND_LENGTH (over 65535 bytes by control
 *          transfers); GVUSB_ERR_TIMEOUT; GVUSB_ERR_NOT_PRESENT (unplugged); GVUSB_ERR_BULK_TRANSFER or
 *          GVUSB_ERR_CONTROL_TRANSFER (anything else, lengths that libusb does not take included)
 *
 * Sets the last error to 0 or to the returned code, and so the reader's own. Any thread.
 */
int GVUSB_Transceive(int devHnd, const char* interfaceName, int reserved, const unsigned char* sendData,
                     unsigned int sendLength, unsigned char* receiveBuffer, unsigned int receiveSize);

/**
 * Sends a frame. Codes and last errors as in GVUSB_Transceive.
 *
 * @param devHnd         handle of the reader
 * @param interfaceName  GVUSB_PROTOCOL
 * @param data           the frame
 * @param length         its length in bytes, at least 1
 * @return  0 on success
 */
int GVUSB_Transmit(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int length);

/**
 * Receives a frame. Codes as in GVUSB_Transceive.
 *
 * @param devHnd         handle of the reader
 * @param interfaceName  GVUSB_PROTOCOL
 * @param buffer         gets the frame; is filled with zeros first
 * @param size           its size in bytes, at least 1; over control transfers at most 4096 bytes are received
 * @return  the number of bytes received, 0 included; the last error is set to it too, unlike
 *          GVUSB_Transceive's
 */
int GVUSB_Receive(int devHnd, const char* interfaceName, unsigned char* buffer, unsigned int size);

/** @} */

/**
 * @defgroup settings Settings
 * @{
 */

/**
 * Reads a parameter. Keys may be written in upper or lower case.
 *
 * Of a reader:
 * - "TIMEOUT": milliseconds that a transfer may take, in decimal
 * - "DEVICEHND": its handle in decimal, "0" while it is closed
 * - "DEVICE-ID": its device ID in hexadecimal, upper case, without prefix
 * - "DEVICENAME", "FAMILYNAME", "INTERFACE": its device name, family name and interface type
 * - "TYPENUMBER": its type number, read from the reader, which must be open
 * - "PRESENT": do not use; it blocks for ever, and with it every later call that reaches a reader.
 *   GVUSB_IsDevicePresent answers the question.
 *
 * Of the driver:
 * - "HOTPLUG-MODE": 0 off, 1 polling, 2 libusb's hot-plug callbacks
 *
 * @param devHnd  handle of a reader; GVUSB_ALL_DEVICES for the first open one; GVUSB_DRIVER for the driver
 * @param key     name of the parameter
 * @param value   gets the text; GVUSB_PARAMETER_SIZE bytes. Give it a text before: the log shows it also
 *                after a failure, as it stands
 * @return  0; GVUSB_ERR_NEGATIVE_HANDLE (below -1); GVUSB_ERR_NULL_POINTER; GVUSB_ERR_EMPTY_DEVICE_LIST;
 *          GVUSB_ERR_HANDLE_NOT_FOUND; GVUSB_ERR_UNKNOWN_PARAMETER; GVUSB_ERR_NOT_OPENED;
 *          GVUSB_ERR_STRING_DESCRIPTOR_READ
 *
 * Sets the last error to the returned code. Any thread.
 */
int GVUSB_GetDevicePara(int devHnd, const char* key, char* value);

/**
 * Changes a parameter. Keys may be written in upper or lower case.
 *
 * Of a reader:
 * - "TIMEOUT": milliseconds that a transfer may take, in decimal, at least 1; it is 1000 at first, and again when
 *   the reader has been unplugged and has come back under its handle: set it anew then
 * - "RESETPIPE": clears a halt of both bulk endpoints; the value is ignored
 * - "RESETDEVICE": resets the reader; the value is ignored
 *
 * Of the driver:
 * - "HOTPLUG-UPDATERATE": microseconds between two polls, in decimal, at least 10. What is too large, and a
 *   negative number such as "-1", counts as the longest, 4294967295 (71 minutes): check the sign of a number
 *   before you pass it
 * - "HOTPLUG-SUSPEND": "1" suspends polling, "0" goes on with it, or begins with it in a mode without polling
 *
 * With GVUSB_ALL_DEVICES every open reader is changed, in order, until one refuses; when none is open nothing
 * happens and the last error, as it stands, is returned.
 *
 * @param devHnd  handle of a reader, GVUSB_ALL_DEVICES or GVUSB_DRIVER
 * @param key     name of the parameter
 * @param value   the new value
 * @return  0; GVUSB_ERR_NEGATIVE_HANDLE (below -1); GVUSB_ERR_NULL_POINTER; GVUSB_ERR_HANDLE_NOT_FOUND;
 *          GVUSB_ERR_UNKNOWN_PARAMETER; GVUSB_ERR_OUT_OF_RANGE; GVUSB_ERR_NOT_OPENED;
 *          GVUSB_ERR_PARAMETER_NOT_AVAILABLE
 *
 * Sets the last error to the returned code. Any thread.
 */
int GVUSB_SetDevicePara(int devHnd, const char* key, const char* value);

/** @} */

/**
 * @defgroup events Readers that come and go
 *
 * How the library notices is the hot-plug mode, which the configuration file sets and "HOTPLUG-MODE" tells:
 *
 * - Mode 0: it does not; no handler is called.
 * - Mode 1: a thread of the library polls the bus at the update rate. A connect event has the device ID, a
 *   disconnect event the device ID and the handle. A reader of the scan list that comes back takes its old
 *   place, is opened again if it was open, and keeps its handle; this is no event. Its "TIMEOUT" is 1000 then:
 *   set it anew. Where opening it again fails, the handle stays and transfers answer GVUSB_ERR_NOT_OPENED: close
 *   the handle and open the reader once more. Each device ID is reported once per direction between two scans, so
 *   scan again to hear of it again, in the handler if you like: a report counts as one from before the scan.
 * - Mode 2: libusb reports to the library while it handles events, so some thread of the application has to
 *   drive libusb_handle_events(NULL); transfers do so in passing. A connect event has the device ID; a
 *   disconnect event has neither handle nor ID. Every one is reported, also of readers never scanned.
 *   Nothing is put back in its place: scan. A program that drives libusb's events takes a reference of its
 *   own to the default context, by libusb_init(NULL); without it the context would end under that thread
 *   at unloading.
 *
 * @par What an event handler may do
 * Handlers run one at a time, in a thread of the library or, in mode 2, in the thread that libusb calls
 * back. Threads of the library have the application's signals blocked, and a program that a handler starts
 * inherits that. No lock is held but that of the registrations, so a handler may call every function of
 * this header except GVUSB_AddEventHandler and GVUSB_DelEventHandler, which would wait for ever. It may take
 * its time, but until it returns no other event is reported and no handler can be added or removed. It may
 * end the process by exit(). It must not throw an exception and must not unload the library.
 *
 * @par Readers with the device ID 0
 * 0 means that the device ID is unknown. GVUSB_GetDeviceHnd does not find such a reader, no connect event tells of
 * it, and in mode 1 it is not put back when it returns. Open it by GVUSB_ScanAndOpen and keep the handle; after it
 * was unplugged, close the handle, scan and open. Give every reader an ID of its own where you can.
 *
 * @par Without udev
 * Where udev does not run, in many containers for one, libusb's view of the bus stays as it was when the
 * library was loaded: readers that come later are not found, and nothing is ever reported, in any mode.
 *
 * @par Asking
 * To ask whether a reader is there, call GVUSB_IsDevicePresent. Reading the key "PRESENT" blocks for ever.
 *
 * @{
 */

/**
 * Registers an event handler. The same handler registered again for the same event is registered once.
 *
 * @param devHnd        0
 * @param registration  event and handler
 * @return  0; GVUSB_ERR_NULL_POINTER; GVUSB_ERR_UNSUPPORTED_OPTION (devHnd is not 0);
 *          GVUSB_ERR_UNKNOWN_PARAMETER (uiCallbackType is not GVUSB_CALLBACK_FUNCTION)
 *
 * Sets the last error to the returned code. Any thread; waits for handlers that are running.
 */
int GVUSB_AddEventHandler(int devHnd, GVUSB_EVENT_INIT* registration);

/**
 * Removes an event handler: the registration with the same event and handler.
 *
 * @param devHnd        0
 * @param registration  event and handler, as they were registered
 * @return  0; GVUSB_ERR_NULL_POINTER; GVUSB_ERR_UNSUPPORTED_OPTION (devHnd is not 0);
 *          GVUSB_ERR_UNKNOWN_PARAMETER (there is no such registration)
 *
 * Sets the last error to the returned code. Any thread; waits for handlers that are running.
 */
int GVUSB_DelEventHandler(int devHnd, GVUSB_EVENT_INIT* registration);

/** @} */

/**
 * @defgroup errors Errors and versions
 * @{
 */

/**
 * Fetches a last error with its text. Reading the manager's last error clears it.
 *
 * @param devHnd  0 for the manager's last error; a reader's handle for its own
 * @param code    gets the last error (GVUSB_ERR_HANDLE_NOT_FOUND for a handle that is not open); not null
 * @param text    gets its text; GVUSB_TEXT_SIZE bytes
 * @return  what GVUSB_GetErrorText returns for the code. Sets the last error to it. Any thread.
 */
int GVUSB_GetLastError(int devHnd, int* code, char* text);

/**
 * Tells the text of a code.
 *
 * @param code  any number
 * @param text  gets the text; GVUSB_TEXT_SIZE bytes
 * @return  0; GVUSB_ERR_UNKNOWN_ERROR_CODE for a code without text, which gets "GVUSB: Unknown Error: 0x...
 *          (...)"; GVUSB_ERR_NULL_POINTER
 *
 * Sets the last error to the returned code. Any thread.
 */
int GVUSB_GetErrorText(int code, char* text);

/**
 * Tells the version of the library.
 *
 * @return  "07.01.00", the same pointer each time, owned by the library. Sets the last error to 0. Any
 *          thread.
 */
const char* GVUSB_GetDLLVersion(void);

/**
 * Not supported.
 *
 * @return  GVUSB_ERR_UNSUPPORTED_METHOD, and sets the last error to it. Any thread.
 */
int GVUSB_GetDrvVersion(void);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* GVUSB_H */
