# What the toolchains here have in common: Debian's cross compiler, and the libraries of the other architecture that
# scripts/test-architectures has unpacked, so that nothing of this machine's own gets in. The file that includes this
# one sets architecture (Debian's name), compiler (the prefix of its name) and CMAKE_LIBRARY_ARCHITECTURE.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${compiler}-gcc)
set(CMAKE_CXX_COMPILER ${compiler}-g++)

get_filename_component(CMAKE_FIND_ROOT_PATH ${CMAKE_CURRENT_LIST_DIR}/../../build-packages/${architecture} ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_FIND_ROOT_PATH}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig)

# For the libraries that libusb itself needs.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    -Wl,-rpath-link,${CMAKE_FIND_ROOT_PATH}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
