// What the test program reads when it opens "/etc/gavo/gvusb.conf" with open(); all other paths are the real ones.
//
// May be used from any thread, and before main: the library reads the file while the program is loaded.
#pragma once

#include <optional>
#include <string>

// A test program may define this function to give the text that is read before main; null means no such file.
// Without it there is none. It runs before any constructor of the test: let it return a literal.
extern "C" [[gnu::weak]] const char* gvusbTestInitialConfiguration();

namespace support {

// The file has this text from now on; nullopt means that it is missing (the state at the beginning).
void setConfigurationText(std::optional<std::string> text);

// Opening fails with EACCES.
void makeConfigurationUnreadable();

// What is opened is this file, whatever it is.
void setConfigurationPath(std::string path);

// How often the file has been asked for since one of the three above was called last, or since the start.
int configurationOpens();

} // namespace support
