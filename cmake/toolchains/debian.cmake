# Shared by the toolchain files: Debian's cross compiler, and the other architecture's libraries as unpacked by
# scripts/test-architectures. Libraries of this machine are never used. The including file must set `architecture`
# (Debian's name), `compiler` (the prefix of its name) and CMAKE_LIBRARY_ARCHITECTURE.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${compiler}-gcc)
set(CMAKE_CXX_COMPILER ${compiler}-g++)

get_filename_component(CMAKE_FIND_ROOT_PATH ${CMAKE_CURRENT_LIST_DIR}/../../build-packages/${architecture} ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_FIND_ROOT_PATH}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig)

# To find the libraries that libusb needs.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    -Wl,-rpath-link,${CMAKE_FIND_ROOT_PATH}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
