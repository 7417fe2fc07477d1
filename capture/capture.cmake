# The sources that write and read capture files. Each target that links this compiles them with its own flags.
add_library(gvusb_capture INTERFACE)
foreach(source
        capture.cpp
        device_facts.cpp
        pcapng_extras.cpp
        pcapng_writer.cpp
        reading.cpp)
    target_sources(gvusb_capture INTERFACE ${CMAKE_CURRENT_LIST_DIR}/${source})
endforeach()
target_include_directories(gvusb_capture INTERFACE ${PROJECT_SOURCE_DIR})
target_link_libraries(gvusb_capture INTERFACE nlohmann_json::nlohmann_json PkgConfig::libpcap)
