# What can be switched.
set(GVUSB_VENDOR_ID 0x1209 CACHE STRING "USB vendor ID of the readers (16 bits)")
if(NOT GVUSB_VENDOR_ID MATCHES "^0x[0-9A-Fa-f][0-9A-Fa-f]?[0-9A-Fa-f]?[0-9A-Fa-f]?$")
    message(FATAL_ERROR "GVUSB_VENDOR_ID is '${GVUSB_VENDOR_ID}'; it takes a 16-bit number such as 0x1209")
endif()
set(GVUSB_SANITIZE "" CACHE STRING "Sanitizers for library and tests, as -fsanitize= takes them (address,undefined or thread)")
option(GVUSB_WERROR "Treat compiler warnings as errors" OFF)
option(GVUSB_COVERAGE "Measure test coverage" OFF)
