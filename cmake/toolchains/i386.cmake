# Builds for i386. The programs run directly on amd64.
set(architecture i386)
set(compiler i686-linux-gnu)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
