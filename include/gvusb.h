/**
 * @mainpage gvusb
 *
 * Find, open and talk to USB RFID readers.
 *
 * A scan finds the readers on the bus and puts them into the scan list. Opening a reader of the scan list, by
 * its device ID or together with the scan, gives it a device handle. Frames are exchanged by that handle until
 * the reader is closed.
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
 * The C++ interface, gvusb.hpp, is described in @ref cxx "gvusb_cxx(3)".
 *
 * @section records Records
 *
 * GVUSB_SCANSEARCH selects the readers that a scan finds. GVUSB_EVENT_INIT registers an event handler.
 *
 * @section codes Return codes
 *
 * 0 or a positive value (a count, a handle, a flag) means success. Failures are the negative codes of
 * GVUSB_ErrorCode. There is one last error for the whole process (the manager's) and one for each open reader.
 * GVUSB_GetLastError fetches either of them with its text. "Last error" below means the manager's.
 *
 * @section threads Threads
 *
 * Every function may be called from any thread. By default, calls that reach readers are serialized: while one
 * thread waits for a reader's answer, the other threads wait too, even for look-ups. In parallel mode
 * ("gvusb_parallel=1", or the driver parameter "PARALLEL"), no reader waits for another: a call waits only for
 * calls on the same reader, scans and polls wait only for each other, and look-ups wait for neither. Switch it on
 * in programs with several readers. In the descriptions below, "any thread" implies this. The last error is one
 * number for the whole process, so with several threads rely on the returned code or on the reader's own last error.
 * Do not load or unload the library while a thread is in a call of the library.
 *
 * @section lifetime Start and end
 *
 * The library is ready as soon as it is loaded and cleans up when it is unloaded. No function initializes or
 * ends it. It uses libusb's default context. Readers belong to the process that loaded the library: a child of
 * fork must not call it.
 *
 * @section configuration Configuration
 *
 * The library reads /etc/gavo/gvusb.conf once, when it is loaded. It searches the first 1023 bytes for the keys
 * "libusb_debuglevel=N", "gvusb_debuglevel=N", "gvusb_hotplug=M" (0 off, 1 polling, 2 libusb's hot-plug
 * callbacks), "gvusb_updaterate=MS" (milliseconds between two polls, at least 10), "gvusb_parallel=1",
 * "gvusb_logfile=PATH" and "nopnp" (same as mode 0). If the environment variable GVUSB_CONFIG names another file,
 * the library reads that one instead, except in set-user-ID programs.
 *
 * @section logging Logging
 *
 * If the log level is above 0, the library logs to standard output, or with "gvusb_logfile=PATH" to the end of that
 * file ("stderr" for standard error). Level 1 logs what the manager does. Level 2 adds the work on each reader,
 * with every byte that is exchanged. Level 3 adds what happens at each poll.
 *
 * @section memory Memory
 *
 * Callers own every buffer and record that they pass. The library keeps no pointer to them after the call.
 * Texts are zero-terminated 8-bit strings. A function throws an exception only if memory runs out, with every
 * lock released.
 *
 * @section examples Examples
 *
 * list_readers.c, exchange_frame.c, receive_frames.c, handle_errors.c, many_readers.c, watch_readers.c,
 * watch_readers_events.c; in C++ send_frame.cpp, event_loop.cpp; in Python exchange_frame.py, watch_readers.py,
 * many_readers.py. They are installed in share/doc/libgvusb-dev/examples, and the guides in
 * share/doc/libgvusb-dev/guides.
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
    GVUSB_ERR_UNSUPPORTED_OPTION = -1106, /**< event handlers are only for handle 0 */
    GVUSB_ERR_UNSUPPORTED_METHOD = -1107, /**< the function is not supported */
    GVUSB_ERR_NO_CONFIGURATION = -1108,   /**< the reader has no USB configuration */
    GVUSB_ERR_LIBUSB_API = -1109,         /**< libusb lacks its capability query, or the library has ended */
    GVUSB_ERR_NO_GAVO_DEVICE = -1110,     /**< published, never returned */
    GVUSB_ERR_SEARCH_MISMATCH = -1111,    /**< published, never returned */
    GVUSB_ERR_NO_DEVICE_FOUND = -1112,    /**< a scan found nothing, or the end of the scan list */
    GVUSB_ERR_ALREADY_SCANNED = -1113,    /**< published, never returned */
    GVUSB_ERR_SCAN_LIST_OVERFLOW = -1114, /**< published, never returned */
    GVUSB_ERR_NO_CURRENT_ENTRY = -1115,   /**< no current scan-list entry to start from; has no text */
    GVUSB_ERR_UNKNOWN_DEVICE_HANDLE = -1120,    /**< published, never returned */
    GVUSB_ERR_NULL_HANDLE = -1121,              /**< the handle is 0 */
    GVUSB_ERR_NEGATIVE_HANDLE = -1122,          /**< the handle is negative */
    GVUSB_ERR_HANDLE_NOT_FOUND = -1123,         /**< no open reader has this handle */
    GVUSB_ERR_TIMEOUT = -1130,                  /**< sending or receiving took longer than "TIMEOUT" */
    GVUSB_ERR_NO_SEND_DATA = -1131,             /**< the send length is 0 */
    GVUSB_ERR_UNKNOWN_INTERFACE = -1132,        /**< the protocol name is not GVUSB_PROTOCOL */
    GVUSB_ERR_UNKNOWN_DIRECTION = -1133,        /**< published, never returned */
    GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL = -1134, /**< the receive buffer size is 0 */
    GVUSB_ERR_SEND_LENGTH = -1135,              /**< the frame is too long to send */
    GVUSB_ERR_UNKNOWN_DESCRIPTOR = -1136,       /**< published, never returned */
    GVUSB_ERR_NOT_PRESENT = -1137,              /**< the reader is gone */
    GVUSB_ERR_TRANSMIT_PROCESS = -1138,         /**< published, never returned */
    GVUSB_ERR_BULK_TRANSFER = -1139,            /**< a bulk transfer failed */
    GVUSB_ERR_NOT_SCANNED = -1140,              /**< no scan-list entry has this device ID */
    GVUSB_ERR_NOT_IN_SCAN_LIST = -1141,         /**< published, never returned */
    GVUSB_ERR_DEVICE_LIST_HANDLE = -1142,       /**< published, never returned */
    GVUSB_ERR_CANNOT_OPEN = -1143,              /**< libusb refused to open the reader */
    GVUSB_ERR_NOT_OPENED = -1144,               /**< the reader is not open */
    GVUSB_ERR_CANNOT_CLAIM = -1145,             /**< another program or driver has claimed interface 0 */
    GVUSB_ERR_WRONG_DEVICE = -1146,             /**< published, never returned */
    GVUSB_ERR_UNKNOWN_PARAMETER = -1150,        /**< the key is unknown, or cannot be read or written */
    GVUSB_ERR_OUT_OF_RANGE = -1151,             /**< the value is out of range */
    GVUSB_ERR_ODD_PARAMETER = -1152,            /**< published, never returned */
    GVUSB_ERR_INDEX_OUT_OF_RANGE = -1153,       /**< no such scan-list index */
    GVUSB_ERR_UNKNOWN_SCAN_OPTION = -1154,      /**< no such scan option */
    GVUSB_ERR_UNKNOWN_ERROR_CODE =
        -1155,                          /**< the code has no text; or the scan-list entry to open is empty */
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

/** Returned by GVUSB_GetScanListPara if the index names no reader. Unlike every other failure, it is positive. */
enum { GVUSB_NO_SCAN_LIST_ENTRY = 1115 };

/** Options of GVUSB_Scan and GVUSB_ScanAndOpen. Combine GVUSB_SCAN_SEARCH with one of the others by |. */
enum GVUSB_ScanOption {
    GVUSB_SCAN_FIRST = 1,        /**< scan; the first reader found becomes the current entry */
    GVUSB_SCAN_NEXT = 2,         /**< go to the next entry of the scan list, without a scan */
    GVUSB_SCAN_ALL = 3,          /**< scan; all readers found */
    GVUSB_SCAN_ALL_15 = 15,      /**< same as GVUSB_SCAN_ALL */
    GVUSB_SCAN_SEARCH = 0x10000, /**< only readers that match the search record */
    GVUSB_SCAN_NOTHING = 0x20000 /**< do nothing */
};

/** Criteria of a search record. Only one is tested: the first in this order that is set. */
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
    GVUSB_KEY_SIZE = 128        /**< longer keys and protocol names are unknown */
};

/** The version of this header. GVUSB_GetDLLVersion returns that of the library that a program runs with. */
#define GVUSB_VERSION_MAJOR 7
#define GVUSB_VERSION_MINOR 1 /**< changes when something is added */
#define GVUSB_VERSION_PATCH 0 /**< changes with corrections */
/** The version as one number, for the preprocessor to compare: 70100 is 7.1.0. */
#define GVUSB_VERSION (GVUSB_VERSION_MAJOR * 10000 + GVUSB_VERSION_MINOR * 100 + GVUSB_VERSION_PATCH)

/** The protocol of the frames, passed in every exchange; upper and lower case are the same. */
#define GVUSB_PROTOCOL "TESK-RCI2"

/** Events and the kind of callback of an event registration. */
enum {
    GVUSB_EVENT_CONNECT = 1,    /**< a reader was connected */
    GVUSB_EVENT_DISCONNECT = 2, /**< a reader was disconnected */
    GVUSB_CALLBACK_FUNCTION = 3 /**< the only kind of callback: cbFct */
};

/**
 * Search record: which readers a scan finds. The application fills it, and the library only reads it. Names are
 * compared byte by byte. A name that fills its field needs no terminating zero, but the device ID does: it is read
 * up to its zero, at most 255 characters, because a program may have been built with a longer field.
 */
struct _GVUSB_SCANSEARCH {
    int32_t mask;     /**< one of enum GVUSB_SearchMask; a mask with none of them matches no reader */
    char famName[25]; /**< family name; longer names cannot be searched */
    char devName[50]; /**< device name; longer names cannot be searched */
    char devId[25]; /**< device ID in hexadecimal, as scanf's "%x" reads it; without digits it matches none */
};
/** The usual name of the search record. */
typedef struct _GVUSB_SCANSEARCH GVUSB_SCANSEARCH;

/**
 * An event handler.
 *
 * @param iDevHnd  at a disconnect in mode 1 the reader's handle, which is meaningful only if the reader was
 *                 opened; otherwise 0
 * @param uiDevId  device ID of the reader; 0 at a disconnect in mode 2, where it is unknown
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
/** The usual name of the event registration. */
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
 * Find the readers on the bus and replace the content of the scan list by them, in the order of the bus.
 * Readers that are open stay open and keep their handles. Every other reader is opened, identified and closed
 * again.
 *
 * @param scanOption  one of enum GVUSB_ScanOption, optionally with GVUSB_SCAN_SEARCH
 * @param search      which readers to find, read only with GVUSB_SCAN_SEARCH; null matches every reader
 * @return  0 on success; with GVUSB_SCAN_NEXT the index of the new current entry;
 *          GVUSB_ERR_NO_DEVICE_FOUND if no reader was found or, with GVUSB_SCAN_NEXT, at the end of the list;
 *          GVUSB_ERR_NO_CURRENT_ENTRY if GVUSB_SCAN_NEXT has no current entry to start from;
 *          GVUSB_ERR_UNKNOWN_SCAN_OPTION
 *
 * Sets the last error to 0 or to the returned code. Any thread; the current entry is one for the whole
 * process. In parallel mode, waits for other scans and polls only; other threads see the old scan list until the new
 * one is complete.
 */
int GVUSB_Scan(int scanOption, GVUSB_SCANSEARCH* search);

/**
 * Scan like GVUSB_Scan and open what was found: every reader with GVUSB_SCAN_ALL, the current entry with
 * GVUSB_SCAN_FIRST and GVUSB_SCAN_NEXT. No scan of another thread comes between finding and opening.
 *
 * A reader that was open, was unplugged and is found again keeps its handle and is opened again. If this fails,
 * its handle is returned nevertheless, and transfers return GVUSB_ERR_NOT_OPENED: close the handle and open the
 * reader again.
 *
 * @param scanOption  as in GVUSB_Scan
 * @param search      as in GVUSB_Scan
 * @return  with GVUSB_SCAN_ALL 0, or the code of the last reader that could not be opened (the others are
 *          open); with GVUSB_SCAN_FIRST and GVUSB_SCAN_NEXT the handle, above 0; with GVUSB_SCAN_NOTHING 0;
 *          otherwise the codes of GVUSB_Scan and GVUSB_OpenDevice
 *
 * Sets the last error to 0 or to the returned code. Any thread.
 */
int GVUSB_ScanAndOpen(int scanOption, GVUSB_SCANSEARCH* search);

/**
 * Read a parameter of a scan-list entry. The keys are those of GVUSB_GetDevicePara for a reader. If the entry is
 * not open, "DEVICEHND" reads "0" and "TYPENUMBER" cannot be read.
 *
 * @param index  0 for the first entry
 * @param key    name of the parameter
 * @param value  gets the text; GVUSB_PARAMETER_SIZE bytes
 * @return  0; GVUSB_ERR_NULL_POINTER; GVUSB_NO_SCAN_LIST_ENTRY (positive) if there is no such entry; the
 *          codes of GVUSB_GetDevicePara for a reader
 *
 * Sets the last error to the returned value. Any thread.
 */
int GVUSB_GetScanListPara(int index, const char* key, char* value);

/**
 * Count the entries of the scan list.
 *
 * @return  the number of entries; sets the last error to 0. Any thread.
 */
int GVUSB_GetScanListSize(void);

/**
 * Empty the scan list. Open readers stay open and keep their handles.
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
 * Open the first reader of the scan list with this device ID. If it is open already, only return its handle. An
 * open reader that is no longer in the scan list is not found; use GVUSB_GetDeviceHnd for it.
 *
 * @param devId  device ID, the number that "DEVICE-ID" gives in hexadecimal
 * @return  the handle, above 0; GVUSB_ERR_NOT_SCANNED; GVUSB_ERR_CANNOT_OPEN (libusb refused, often for lack of
 *          permission); GVUSB_ERR_CONFIG_DESCRIPTOR_READ; GVUSB_ERR_SET_CONFIGURATION
 *
 * Sets the last error to 0 or to the returned code; leaves it unchanged if the reader is open already. Any
 * thread.
 */
int GVUSB_OpenDevice(unsigned int devId);

/**
 * Close a reader. Its handle is no longer valid. While the reader is in the scan list, it can be opened again
 * from there and then has the same handle.
 *
 * @param devHnd  handle of the reader
 * @return  0; GVUSB_ERR_NEGATIVE_HANDLE; GVUSB_ERR_NULL_HANDLE; GVUSB_ERR_HANDLE_NOT_FOUND
 *
 * Sets the last error to the returned code. Any thread; waits for a transfer in progress. In parallel mode, it ends the
 * calls of GVUSB_Transceive, GVUSB_Transmit and GVUSB_Receive on this reader, also those that wait for it: they return
 * GVUSB_ERR_NOT_OPENED. It waits only for other calls on this reader, such as GVUSB_IsDevicePresent. The handle is
 * unknown from the beginning on.
 */
int GVUSB_CloseDevice(int devHnd);

/**
 * Test whether an open reader is still there, by reading its device ID.
 *
 * @param devHnd  handle of the reader
 * @return  1 if it answers, 0 if not; GVUSB_ERR_NEGATIVE_HANDLE; GVUSB_ERR_NULL_HANDLE;
 *          GVUSB_ERR_HANDLE_NOT_FOUND
 *
 * Sets the last error to 0 or to the returned code. If the reader does not answer, its own last error is
 * GVUSB_ERR_NOT_PRESENT. Any thread.
 */
int GVUSB_IsDevicePresent(int devHnd);

/**
 * Iterate over the open readers: pass 0 first, then each returned handle, until the function returns 0.
 *
 * @param devHnd  the handle returned last; 0 or a negative number to start
 * @return  the next handle; 0 at the end or if devHnd is not open
 *
 * Leaves the last error unchanged. Any thread.
 */
int GVUSB_GetDeviceList(int devHnd);

/**
 * Get the handle of an open reader.
 *
 * @param devId  device ID
 * @return  the handle, above 0; GVUSB_ERR_NOT_OPENED if no open reader has this device ID
 *
 * Sets the last error only on failure. Any thread.
 */
int GVUSB_GetDeviceHnd(unsigned int devId);

/** @} */

/**
 * @defgroup frames Exchanging frames
 *
 * A frame is sent to a reader, and its answer is received, over two bulk endpoints or over control transfers.
 *
 * @par Size of the receive buffer
 * Choose a multiple of 512 bytes that is at least as long as the longest answer. 512 is a multiple of the packet
 * size of every bulk endpoint at full and high speed. Over bulk endpoints, what does not fit into such a buffer is
 * returned by the next receive. If the size is not a multiple of the packet size, a packet that does not fit
 * makes the transfer fail with GVUSB_ERR_BULK_TRANSFER. Over control transfers, at most 4096 bytes are received,
 * and an answer that is longer than the buffer is cut off.
 *
 * @{
 */

/**
 * Send a frame and receive the answer. No other call reaches the reader in between. If interface 0 has a bulk IN
 * and a bulk OUT endpoint, they carry the frames; otherwise vendor control transfers do. The first transfer after
 * opening claims interface 0.
 *
 * Each of the two transfers takes at most the reader's "TIMEOUT". When the time is over, what has arrived so far
 * is lost, and the next call receives an answer that comes later. If a frame cannot be sent over a bulk endpoint
 * in time, the halts of both endpoints are cleared.
 *
 * If the answer does not fit into the buffer, then over bulk endpoints the next receive returns the rest, provided
 * that the size is a multiple of the endpoint's packet size; otherwise the transfer fails with
 * GVUSB_ERR_BULK_TRANSFER (-1139). Over control transfers the rest is cut off. Choose a multiple of 512 that is at
 * least as long as the longest answer.
 *
 * @param devHnd         handle of the reader
 * @param interfaceName  GVUSB_PROTOCOL
 * @param reserved       ignored
 * @param sendData       the frame
 * @param sendLength     its length in bytes, at least 1; over control transfers at most 4096 (libusb's limit)
 * @param receiveBuffer  gets the answer; is filled with zeros once the frame is sent (over control transfers
 *                       only its first 4096 bytes)
 * @param receiveSize    its size in bytes, at least 1; over control transfers at most 4096 bytes are received
 * @return  the number of bytes received, possibly 0; or, in the order in which they are tested:
 *          GVUSB_ERR_NEGATIVE_HANDLE, GVUSB_ERR_NULL_HANDLE, GVUSB_ERR_NULL_POINTER, GVUSB_ERR_NO_SEND_DATA,
 *          GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL, GVUSB_ERR_HANDLE_NOT_FOUND, GVUSB_ERR_NOT_OPENED,
 *          GVUSB_ERR_UNKNOWN_INTERFACE; GVUSB_ERR_NO_CONFIGURATION, GVUSB_ERR_CONFIG_DESCRIPTOR_READ,
 *          GVUSB_ERR_CANNOT_CLAIM from the first transfer after opening (close and open the reader then;
 *          later transfers work without the interface); GVUSB_ERR_SEND_LENGTH (over 65535 bytes by control
 *          transfers); GVUSB_ERR_TIMEOUT; GVUSB_ERR_NOT_PRESENT (unplugged); GVUSB_ERR_BULK_TRANSFER or
 *          GVUSB_ERR_CONTROL_TRANSFER (every other failure, including lengths that libusb does not accept)
 *
 * Sets the last error and the reader's own to 0 or to the returned code. Any thread.
 */
int GVUSB_Transceive(int devHnd, const char* interfaceName, int reserved, const unsigned char* sendData,
                     unsigned int sendLength, unsigned char* receiveBuffer, unsigned int receiveSize);

/**
 * Send a frame. Codes and last errors as in GVUSB_Transceive.
 *
 * @param devHnd         handle of the reader
 * @param interfaceName  GVUSB_PROTOCOL
 * @param data           the frame
 * @param length         its length in bytes, at least 1
 * @return  0 on success
 */
int GVUSB_Transmit(int devHnd, const char* interfaceName, const unsigned char* data, unsigned int length);

/**
 * Receive a frame, or the rest of one that did not fit into the last buffer. Codes as in GVUSB_Transceive.
 *
 * If the frame does not fit into the buffer, then over bulk endpoints the next receive returns the rest, provided
 * that the size is a multiple of the endpoint's packet size; otherwise the transfer fails with
 * GVUSB_ERR_BULK_TRANSFER (-1139). Over control transfers the rest is cut off. Choose a multiple of 512 that is at
 * least as long as the longest answer.
 *
 * @param devHnd         handle of the reader
 * @param interfaceName  GVUSB_PROTOCOL
 * @param buffer         gets the frame; is filled with zeros first
 * @param size           its size in bytes, at least 1; over control transfers at most 4096 bytes are received
 * @return  the number of bytes received, possibly 0. Unlike in GVUSB_Transceive, the last error is set to this
 *          number too
 */
int GVUSB_Receive(int devHnd, const char* interfaceName, unsigned char* buffer, unsigned int size);

/** @} */

/**
 * @defgroup settings Settings
 * @{
 */

/**
 * Read a parameter. Keys may be in upper or lower case.
 *
 * Of a reader:
 * - "TIMEOUT": how many milliseconds a transfer may take, in decimal
 * - "DEVICEHND": its handle in decimal; "0" while it is closed
 * - "DEVICE-ID": its device ID in hexadecimal, in upper case, without a prefix
 * - "DEVICENAME", "FAMILYNAME", "INTERFACE": its device name, family name and interface type
 * - "TYPENUMBER": its type number, read from the reader, which must be open
 * - "PRESENT": do not use it. It blocks forever, and so does every later call that reaches a reader, in parallel
 *   mode this reader. Use GVUSB_IsDevicePresent.
 *
 * Of the driver:
 * - "HOTPLUG-MODE": 0 off, 1 polling, 2 libusb's hot-plug callbacks
 * - "PARALLEL": "1" in parallel mode, otherwise "0"
 *
 * @param devHnd  handle of a reader; GVUSB_ALL_DEVICES for the first open one; GVUSB_DRIVER for the driver
 * @param key     name of the parameter
 * @param value   gets the text; GVUSB_PARAMETER_SIZE bytes. Initialize it with a text: after a failure the log
 *                shows the buffer as it is
 * @return  0; GVUSB_ERR_NEGATIVE_HANDLE (below -1); GVUSB_ERR_NULL_POINTER; GVUSB_ERR_EMPTY_DEVICE_LIST;
 *          GVUSB_ERR_HANDLE_NOT_FOUND; GVUSB_ERR_UNKNOWN_PARAMETER; GVUSB_ERR_NOT_OPENED;
 *          GVUSB_ERR_STRING_DESCRIPTOR_READ
 *
 * Sets the last error to the returned code. Any thread.
 */
int GVUSB_GetDevicePara(int devHnd, const char* key, char* value);

/**
 * Change a parameter. Keys may be in upper or lower case.
 *
 * Of a reader:
 * - "TIMEOUT": how many milliseconds a transfer may take, in decimal, at least 1. It is 1000 at first. It is 1000
 *   again when the reader has been unplugged and has come back under its handle: set it again then
 * - "RESETPIPE": clear a halt of both bulk endpoints; the value is ignored
 * - "RESETDEVICE": reset the reader; the value is ignored
 * - "CANCEL": in parallel mode, end the calls of GVUSB_Transceive, GVUSB_Transmit and GVUSB_Receive that have begun on
 *   the reader, without waiting for its time-out; the value is ignored. Calls that wait for the reader end too, and send
 *   nothing. All of them return the code of a failed transfer, GVUSB_ERR_BULK_TRANSFER or GVUSB_ERR_CONTROL_TRANSFER. An
 *   answer that arrives later is received by the next call. Without such a call it has no effect. By default it is an
 *   unknown parameter
 *
 * Of the driver:
 * - "HOTPLUG-UPDATERATE": microseconds between two polls, in decimal, at least 10. A number that is too large or
 *   negative, such as "-1", counts as 4294967295 (71 minutes), the longest interval: check the sign of a number
 *   before you pass it
 * - "PARALLEL": "1" switches parallel mode on, "0" off. A call that is under way keeps the mode it began in
 * - "HOTPLUG-SUSPEND": "1" suspends polling. "0" resumes it, or starts it in a mode without polling
 *
 * With GVUSB_ALL_DEVICES every open reader is changed, in order, until one refuses. If no reader is open, nothing
 * happens, and the unchanged last error is returned.
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
 * How the library notices changes of the bus depends on the hot-plug mode. The configuration file sets the mode,
 * and "HOTPLUG-MODE" reads it:
 *
 * - Mode 0: It does not notice them. No handler is called.
 * - Mode 1: A thread of the library polls the bus at the update rate. A connect event has the device ID, a
 *   disconnect event the device ID and the handle. A reader of the scan list that comes back takes its old
 *   place, is opened again if it was open, and keeps its handle. This is not reported. Its "TIMEOUT" is 1000
 *   then: set it again. If the reader cannot be opened again, the handle stays and transfers return
 *   GVUSB_ERR_NOT_OPENED: close the handle and open the reader again. Between two scans, each device ID is
 *   reported once per direction. Scan again to get further reports; a handler may do so. A report belongs to the
 *   time before the scan that its handler makes.
 * - Mode 2: libusb reports changes to the library while a thread handles libusb's events, so a thread of the
 *   application must call libusb_handle_events(NULL) in a loop. Transfers handle events too while they wait. A
 *   connect event has the device ID; a disconnect event has neither the handle nor the ID. Every change is
 *   reported, also of readers that were never scanned. The lists do not change: scan to use a reader that has
 *   come back. If a thread still handles events when the library is unloaded, the library leaves libusb's
 *   context to that thread, so the program ends cleanly. A program that unloads the library by dlclose should
 *   still hold a reference of its own to the default context (libusb_init(NULL)).
 *
 * @par What an event handler may do
 * Handlers run one at a time, in a thread of the library or, in mode 2, in the thread in which libusb calls the
 * library. Threads of the library have the application's signals blocked, and a program that a handler starts
 * inherits this. Only the lock of the registrations is held, so a handler may call every function of this header
 * except GVUSB_AddEventHandler and GVUSB_DelEventHandler, which would wait forever. A handler may take its time,
 * but until it returns no other event is reported and no handler can be added or removed. It may end the process
 * by exit(). It must not throw an exception and must not unload the library.
 *
 * @par Readers with the device ID 0
 * 0 means that the device ID is unknown. GVUSB_GetDeviceHnd does not find such a reader, its connection is not
 * reported, and in mode 1 it does not get its handle back when it returns. Open it by GVUSB_ScanAndOpen and keep
 * the handle. After it was unplugged, close the handle, scan and open. If you can, give every reader an ID of its
 * own.
 *
 * @par Without udev
 * Without a running udev, as in many containers, libusb's view of the bus does not change after the library was
 * loaded: readers that are plugged in later are not found, and nothing is ever reported, in any mode.
 *
 * @par Asking
 * To test whether a reader is there, call GVUSB_IsDevicePresent. Reading the key "PRESENT" blocks forever.
 *
 * @{
 */

/**
 * Register an event handler. Registering the same handler again for the same event has no effect.
 *
 * @param devHnd        0
 * @param registration  event and handler
 * @return  0; GVUSB_ERR_NULL_POINTER; GVUSB_ERR_UNSUPPORTED_OPTION (devHnd is not 0);
 *          GVUSB_ERR_UNKNOWN_PARAMETER (uiCallbackType is not GVUSB_CALLBACK_FUNCTION)
 *
 * Sets the last error to the returned code. Any thread; waits for running handlers.
 */
int GVUSB_AddEventHandler(int devHnd, GVUSB_EVENT_INIT* registration);

/**
 * Remove the registration with the same event and handler.
 *
 * @param devHnd        0
 * @param registration  event and handler, as they were registered
 * @return  0; GVUSB_ERR_NULL_POINTER; GVUSB_ERR_UNSUPPORTED_OPTION (devHnd is not 0);
 *          GVUSB_ERR_UNKNOWN_PARAMETER (there is no such registration)
 *
 * Sets the last error to the returned code. Any thread; waits for running handlers.
 */
int GVUSB_DelEventHandler(int devHnd, GVUSB_EVENT_INIT* registration);

/** @} */

/**
 * @defgroup errors Errors and versions
 * @{
 */

/**
 * Get a last error with its text. Getting the manager's last error clears it.
 *
 * @param devHnd  0 for the manager's last error; a reader's handle for its own
 * @param code    gets the last error (GVUSB_ERR_HANDLE_NOT_FOUND for a handle that is not open); not null
 * @param text    gets its text; GVUSB_TEXT_SIZE bytes
 * @return  what GVUSB_GetErrorText returns for the code. Sets the last error to it. Any thread.
 */
int GVUSB_GetLastError(int devHnd, int* code, char* text);

/**
 * Get the text of a code.
 *
 * @param code  any number
 * @param text  gets the text; GVUSB_TEXT_SIZE bytes
 * @return  0; GVUSB_ERR_UNKNOWN_ERROR_CODE for a code without a text, which gets "GVUSB: Unknown Error: 0x...
 *          (...)"; GVUSB_ERR_NULL_POINTER
 *
 * Sets the last error to the returned code. Any thread.
 */
int GVUSB_GetErrorText(int code, char* text);

/**
 * Get the version of the library.
 *
 * @return  "07.01.00". The pointer is always the same, and the library owns the text. Sets the last error to 0.
 *          Any thread.
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
