#include "model/transfer_faults.h"

#include <algorithm>
#include <array>
#include <string>

namespace emulator {

namespace {

constexpr Chance certain = 100'000;

} // namespace

TransferFault TransferFault::parse(std::string_view text) {
    constexpr std::string_view delay = "delay:";
    if (text == "stall") {
        return {.kind = Kind::stall, .time = {}};
    }
    if (text == "mute") {
        return {.kind = Kind::mute, .time = {}};
    }
    if (text == "corrupt") {
        return {.kind = Kind::corrupt, .time = {}};
    }
    if (text.starts_with(delay)) {
        return {.kind = Kind::delay, .time = TimeRange::parse("delay", text.substr(delay.size()))};
    }
    throw TextError("fault must be stall, mute, corrupt, delay:MS or delay:MIN-MAX, not '" +
                    std::string(text) + "'");
}

Chance parseChance(std::string_view text) {
    constexpr std::size_t places = 3;
    const auto point = text.find('.');
    const std::string_view whole = text.substr(0, point);
    std::string decimals(point == std::string_view::npos ? "0" : text.substr(point + 1));
    const auto isNumber = [](std::string_view digits) {
        return !digits.empty() && digits.size() <= places &&
               digits.find_first_not_of("0123456789") == std::string_view::npos;
    };
    if (isNumber(whole) && isNumber(decimals)) {
        decimals.resize(places, '0');
        const std::uint64_t chance =
            number("chance", whole, 0, 999) * 1000 + number("chance", decimals, 0, 999);
        if (chance <= certain) {
            return static_cast<Chance>(chance);
        }
    }
    throw TextError("chance must be a percentage from 0 to 100 with up to three decimal places, not '" +
                    std::string(text) + "'");
}

void TransferFate::add(const TransferFate& other) {
    stalls |= other.stalls;
    mute |= other.mute;
    corruption = corruption ? corruption : other.corruption;
    delay += other.delay;
}

void TransferFate::corrupt(Bytes& data) const {
    if (corruption && !data.empty()) {
        constexpr std::uint64_t changes = 255; // every value but the right one
        data[*corruption / changes % data.size()] ^= static_cast<std::uint8_t>(1 + *corruption % changes);
    }
}

void TransferFaults::setChance(Chance chance, const TransferFault& fault) {
    const auto same = [&](const Chanced& each) { return each.fault.kind == fault.kind; };
    const auto found = std::ranges::find_if(m_chances, same);
    if (found != m_chances.end()) {
        *found = {.chance = chance, .fault = fault};
    } else {
        m_chances.push_back({.chance = chance, .fault = fault});
    }
}

Draws& TransferFaults::draws(std::uint64_t seed) {
    if (!m_draws) {
        m_draws.emplace(seed);
    }
    return *m_draws;
}

void TransferFaults::apply(const TransferFault& fault, TransferFate& fate, std::uint64_t seed) {
    switch (fault.kind) {
    case TransferFault::Kind::stall:
        fate.stalls = true;
        break;
    case TransferFault::Kind::mute:
        fate.mute = true;
        break;
    case TransferFault::Kind::corrupt:
        fate.corruption = draws(seed).next();
        break;
    case TransferFault::Kind::delay:
        fate.delay += fault.time.needsDraw() ? fault.time.draw(draws(seed)) : fault.time.shortest;
        break;
    }
}

TransferFate TransferFaults::next(std::uint64_t seed) {
    TransferFate fate;
    for (Counted& counted : m_counted) {
        if (--counted.left == 0) {
            apply(counted.fault, fate, seed);
        }
    }
    std::erase_if(m_counted, [](const Counted& counted) { return counted.left == 0; });
    for (const Chanced& chanced : m_chances) {
        if (draws(seed).between(0, certain - 1) < chanced.chance) {
            apply(chanced.fault, fate, seed);
        }
    }
    return fate;
}

} // namespace emulator
