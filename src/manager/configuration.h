// The configuration file and its settings.
#pragma once

#include <cstddef>
#include <optional>

// The library reads only this much of the file.
inline constexpr std::size_t configurationSize = 1023;

struct Configuration {
    int libUsbDebugLevel = 0;
    int debugLevel = 0;
    int hotPlugMode = 1;
    unsigned int updateRate = 300000; // microseconds
    bool parallel = false;
    // Path of the log file, or "stderr"; empty for standard output.
    char logFile[configurationSize + 1] = {};
};

// Keys are found anywhere in the text, even inside longer words. The first occurrence counts. Missing or invalid settings
// keep their defaults.
Configuration parseConfiguration(const char* text);

// The file that the environment variable GVUSB_CONFIG names, or "/etc/gavo/gvusb.conf". It is open from construction until it
// has been read. Other files than regular ones are ignored: a FIFO or a device could block.
class ConfigurationFile {
public:
    ConfigurationFile() noexcept;
    ~ConfigurationFile();
    ConfigurationFile(const ConfigurationFile&) = delete;
    ConfigurationFile& operator=(const ConfigurationFile&) = delete;

    // Read the beginning and close the file. Empty if there is no file.
    std::optional<Configuration> read();

private:
    void close() noexcept;

    int m_descriptor;
};
