# Finds libusb-1.0 with only its development package (without pkg-config) and defines LibUSB::LibUSB.
find_path(LibUSB_INCLUDE_DIR NAMES libusb.h PATH_SUFFIXES libusb-1.0)
find_library(LibUSB_LIBRARY NAMES usb-1.0)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(LibUSB
    REQUIRED_VARS LibUSB_LIBRARY LibUSB_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "libusb-1.0 is missing: on Debian install libusb-1.0-0-dev")

if(LibUSB_FOUND AND NOT TARGET LibUSB::LibUSB)
    # The headers without the library, for targets that link a replacement for libusb, such as the unit tests.
    add_library(LibUSB::Headers INTERFACE IMPORTED)
    target_include_directories(LibUSB::Headers SYSTEM INTERFACE ${LibUSB_INCLUDE_DIR})

    add_library(LibUSB::LibUSB UNKNOWN IMPORTED)
    set_target_properties(LibUSB::LibUSB PROPERTIES
        IMPORTED_LOCATION ${LibUSB_LIBRARY}
        INTERFACE_LINK_LIBRARIES LibUSB::Headers)
endif()
mark_as_advanced(LibUSB_INCLUDE_DIR LibUSB_LIBRARY)
