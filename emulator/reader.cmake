# The sources of the reader, of its commands and of the USB/IP protocol. Each target that links this compiles them with its own flags.
add_library(gvusb_reader INTERFACE)
foreach(source
        control/actions.cpp
        control/arguments.cpp
        control/commands.cpp
        control/expected_readers.cpp
        control/roster.cpp
        control/script.cpp
        model/description.cpp
        model/descriptors.cpp
        model/frame_rules.cpp
        model/frames.cpp
        model/hub_requests.cpp
        model/model.cpp
        model/pipes.cpp
        model/playing.cpp
        model/reply_rule.cpp
        model/requests.cpp
        model/text.cpp
        model/time_range.cpp
        model/transfer_faults.cpp
        usbfs/device.cpp
        usbip/connection.cpp
        usbip/import.cpp
        usbip/messages.cpp
        usbip/output.cpp
        usbip/readers.cpp)
    target_sources(gvusb_reader INTERFACE ${CMAKE_CURRENT_LIST_DIR}/${source})
endforeach()
# The commands that play readers: on a bus of any kind.
add_library(gvusb_logic INTERFACE)
foreach(source
        process.cpp
        control/actions.cpp
        control/commands.cpp
        logic/logic.cpp
        logic/logics.cpp
        logic/messages.cpp)
    target_sources(gvusb_logic INTERFACE ${CMAKE_CURRENT_LIST_DIR}/${source})
endforeach()
target_link_libraries(gvusb_logic INTERFACE gvusb_reader nlohmann_json::nlohmann_json)

# The readers of captures.
add_library(gvusb_replay INTERFACE)
foreach(source
        replay/played_reader.cpp
        replay/recording.cpp
        replay/replay.cpp
        replay/request_table.cpp
        replay/timeline.cpp)
    target_sources(gvusb_replay INTERFACE ${CMAKE_CURRENT_LIST_DIR}/${source})
endforeach()

target_include_directories(gvusb_reader INTERFACE ${CMAKE_CURRENT_LIST_DIR} ${PROJECT_SOURCE_DIR}/src)
target_compile_definitions(gvusb_reader INTERFACE GVUSB_VENDOR_ID=${GVUSB_VENDOR_ID})
target_link_libraries(gvusb_reader INTERFACE nlohmann_json::nlohmann_json)
