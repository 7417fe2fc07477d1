// Build a manager with the input as the text of the configuration file, check it and destroy it.
#include "manager/configuration.h"
#include "guarded_buffer.h"
#include "gvusb.h"
#include "manager.h"

#include "base/log.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

constexpr std::size_t charactersRead = configurationSize;

// The library searches for keys in the first 1023 characters, up to a zero byte.
Configuration expectedConfiguration(const std::string& text) {
    const std::string read = text.substr(0, charactersRead);
    const fuzz::GuardedText terminated(read.substr(0, read.find('\0')));
    return parseConfiguration(terminated.text());
}

void checkParsed(const Configuration& configuration) {
    fuzz::expect(configuration.updateRate >= 10'000, "polls are at least 10 ms apart");
    fuzz::expect(configuration.hotPlugMode >= SCHAR_MIN - '0' && configuration.hotPlugMode <= SCHAR_MAX - '0',
                 "the hot-plug mode comes from one character");
}

void checkManager(const Configuration& configuration) {
    const int mode = g_GvUsbMan.m_iHotPlugMode;
    fuzz::expect(mode == configuration.hotPlugMode, "the hot-plug mode is that of the file");
    fuzz::expect(relaxed::load(g_GvUsbMan.m_uiUpdateRate) == configuration.updateRate,
                 "the update rate is that of the file");
    fuzz::expect(g_GvUsbMan.m_iLibUsbDebugLevel == configuration.libUsbDebugLevel,
                 "libusb's debug level is that of the file");
    fuzz::expect(GVLOG_Level() == configuration.debugLevel, "the log level is that of the file");
    fuzz::expect(g_GvUsbMan.IsParallel() == configuration.parallel, "parallel mode is that of the file");
    fuzz::expect(relaxed::load(g_GvUsbMan.m_bSuspend) == (mode != 1), "only mode 1 polls");
    fuzz::expect(fake_libusb::registeredCallbacks() == (mode == 2 ? 2 : 0), "only mode 2 has callbacks");
    fuzz::expect(g_GvUsbMan.m_bThreadStarted, "the worker runs");
}

void checkDriverParameters(const Configuration& configuration) {
    fuzz::GuardedBuffer value(GVUSB_PARAMETER_SIZE);
    fuzz::expect(GVUSB_GetDevicePara(GVUSB_DRIVER, "hotplug-mode", value.text()) == 0,
                 "the mode can be read");
    const std::string mode = std::to_string(static_cast<unsigned int>(configuration.hotPlugMode));
    fuzz::expect(value.terminatedText() == mode, "the mode is that of the manager");
    fuzz::expect(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", "4000000") == 0,
                 "the rate can be set");
    fuzz::expect(relaxed::load(g_GvUsbMan.m_uiUpdateRate) == 4'000'000, "the rate was set");
    fuzz::expect(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", "9") == GVUSB_ERR_OUT_OF_RANGE,
                 "a rate below 10 is rejected");
    fuzz::expect(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1") == 0, "polling can be suspended");
    fuzz::expect(relaxed::load(g_GvUsbMan.m_bSuspend), "polling is suspended");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::discardStdout();
    fuzz::putWorkerToSleep();
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Configuration configuration = expectedConfiguration(text);
    checkParsed(configuration);

    // The manager would create a file with any name.
    if (configuration.logFile[0] != '\0') {
        return 0;
    }
    fuzz::destroyManager();
    fuzz::buildManager(text);
    checkManager(configuration);
    checkDriverParameters(configuration);
    fuzz::destroyManager();
    return 0;
}
