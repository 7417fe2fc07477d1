// The configuration file and the settings in its text.
#pragma once

#include <optional>

struct Configuration {
    int libUsbDebugLevel = 0;
    int debugLevel = 0;
    int hotPlugMode = 1;
    unsigned int updateRate = 300000; // microseconds
};

// Keys are found anywhere in the text, inside longer words too; of several the first counts. What is missing or unreadable
// keeps its default.
Configuration parseConfiguration(const char* text);

// "/etc/gavo/gvusb.conf", open from construction until it has been read. Only a regular file is opened, so that nothing
// waits for the other end of a FIFO or reads a device.
class ConfigurationFile {
public:
    ConfigurationFile() noexcept;
    ~ConfigurationFile();
    ConfigurationFile(const ConfigurationFile&) = delete;
    ConfigurationFile& operator=(const ConfigurationFile&) = delete;

    // Reads the first 1023 bytes and closes the file. Nothing when there is no file.
    std::optional<Configuration> read();

private:
    void close() noexcept;

    int m_descriptor;
};
