// Controls what the test program reads when it opens "/etc/gavo/gvusb.conf" with open(). Other paths are not
// redirected.
//
// Thread-safe, and usable before main(): the library reads the file while the program is loaded.
#pragma once

#include <optional>
#include <string>

// A test program may define this function to return the text that is read before main(), or null for a
// missing file. Without this function, the file is missing. It runs before any constructor of the test, so
// return a literal.
extern "C" [[gnu::weak]] const char* gvusbTestInitialConfiguration();

namespace support {

// Whether the environment variable GVUSB_TEST_PARALLEL is set. Then "gvusb_parallel=1" is appended to every text, so that the
// same tests run in the other mode.
bool inParallelSuite();

// Set the text of the file; nullopt means that the file is missing, as it is initially.
void setConfigurationText(std::optional<std::string> text);

// Make opening fail with EACCES.
void makeConfigurationUnreadable();

// Redirect opening to this file, of whatever type.
void setConfigurationPath(std::string path);

// How often the file has been opened since the last call of one of the three functions above, or since the
// start.
int configurationOpens();

} // namespace support
