# The sources that write what recorded programs do to a file. Each target that links this compiles them with its own flags.
add_library(gvusb_recorder INTERFACE)
foreach(source
        call_texts.cpp
        recording_writer.cpp
        redaction.cpp
        ring.cpp)
    target_sources(gvusb_recorder INTERFACE ${CMAKE_CURRENT_LIST_DIR}/${source})
endforeach()
target_include_directories(gvusb_recorder INTERFACE ${PROJECT_SOURCE_DIR})
target_link_libraries(gvusb_recorder INTERFACE gvusb_capture Threads::Threads)

# The preload, which notes what a program does. Without sanitizers: programs that have their own sanitizer runtime load it.
add_library(gvusb-record-preload MODULE)
foreach(source
        descriptors.c
        devices.c
        functions.c
        library_calls.c
        requests.c
        ring.c
        uevents.c)
    target_sources(gvusb-record-preload PRIVATE ${CMAKE_CURRENT_LIST_DIR}/preload/${source})
endforeach()
target_include_directories(gvusb-record-preload PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
# Handlers of the program may throw through the functions of the library.
target_compile_options(gvusb-record-preload PRIVATE -fexceptions)
set_target_properties(gvusb-record-preload PROPERTIES
    C_VISIBILITY_PRESET hidden
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tools)
target_link_libraries(gvusb-record-preload PRIVATE Threads::Threads ${CMAKE_DL_LIBS} gvusb_warnings)
install(TARGETS gvusb-record-preload
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/gvusb
    COMPONENT tools)
