#include "time_stamp.h"

#include <array>
#include <cstdio>
#include <ctime>

std::string timeStamp(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    std::tm parts = {};
    ::localtime_r(&seconds, &parts);
    std::array<char, 32> date{};
    std::array<char, 8> zone{};
    std::array<char, 64> text{};
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::strftime(zone.data(), zone.size(), "%z", &parts);
    std::snprintf(text.data(), text.size(), "%s.%03d%.3s:%.2s", date.data(),
                  static_cast<int>(sinceEpoch.count() % 1000), zone.data(), zone.data() + 3);
    return text.data();
}
