// The topics of a fleet: PREFIX/MACHINE/status, .../events, .../scan, .../readers/NAME and .../readers/NAME/OPERATION.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fleet {

inline constexpr const char* defaultPrefix = "gvusb";
inline constexpr const char* online = "online";
inline constexpr const char* offline = "offline";

enum class Operation : std::uint8_t { transceive, transmit, receive, get, set, scan };

std::string_view operationName(Operation operation);

// Whether a text can name a machine: 1 to 64 bytes of UTF-8 without control characters, blanks and "/+#", not beginning
// with '$'.
bool isMachineName(std::string_view text);

// The same for each level of a prefix, such as "site/gvusb".
bool isPrefix(std::string_view text);

std::string statusTopic(const std::string& prefix, std::string_view machine);
std::string eventsTopic(const std::string& prefix, std::string_view machine);
std::string readerTopic(const std::string& prefix, std::string_view machine, std::string_view reader);
std::string scanTopic(const std::string& prefix, std::string_view machine);
std::string requestTopic(const std::string& prefix, std::string_view machine, std::string_view reader,
                         Operation operation);

// What a topic below PREFIX/ means. Nothing if it is none of them.
struct Topic {
    enum class Kind : std::uint8_t { status, events, reader, request };
    Kind kind;
    std::string_view machine;
    std::string_view reader;                     // empty for status, events and a scan
    Operation operation = Operation::transceive; // of a request
};
std::optional<Topic> parseTopic(const std::string& prefix, std::string_view topic);

} // namespace fleet
