#include "time_stamp.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <system_error>

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

std::optional<std::chrono::system_clock::time_point> parseTimeStamp(const std::string& text) {
    std::tm parts = {};
    const char* rest = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr) {
        return std::nullopt;
    }
    std::chrono::nanoseconds fraction(0);
    if (*rest == '.') {
        constexpr std::size_t mostDigits = 9;
        std::string digits;
        while (*++rest >= '0' && *rest <= '9') {
            digits += *rest;
        }
        if (digits.empty() || digits.size() > mostDigits) {
            return std::nullopt;
        }
        digits.resize(mostDigits, '0');
        std::int64_t number = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), number);
        fraction = std::chrono::nanoseconds(number);
    }
    if (std::string_view(rest) != "Z") {
        return std::nullopt;
    }
    return std::chrono::system_clock::from_time_t(::timegm(&parts)) + fraction;
}
