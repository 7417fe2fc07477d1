#include "control/expected_readers.h"

namespace emulator {

namespace {

constexpr std::size_t mostReaders = 65535;

} // namespace

const ReaderDescription& ExpectedReaders::description(std::size_t number) const {
    if (number < 1 || number > m_readers.size()) {
        throw TextError("no reader " + std::to_string(number));
    }
    return *m_readers[number - 1];
}

void ExpectedReaders::expectRoom(std::size_t count, std::uint64_t times) const {
    if (count != 0 && times > (mostReaders - m_readers.size()) / count) {
        throw TextError("more than " + std::to_string(mostReaders) + " readers");
    }
}

void ExpectedReaders::add(const std::vector<ReaderDescription>& descriptions) {
    expectRoom(descriptions.size(), 1);
    for (const ReaderDescription& description : descriptions) {
        m_readers.push_back(std::make_shared<const ReaderDescription>(description));
    }
}

void ExpectedReaders::repeatAllBut(std::size_t first, std::uint64_t times) {
    const std::size_t count = m_readers.size() - first;
    expectRoom(count, times);
    m_readers.reserve(m_readers.size() + count * times);
    for (std::uint64_t i = 0; count != 0 && i < times; ++i) {
        for (std::size_t each = 0; each < count; ++each) {
            m_readers.push_back(m_readers[first + each]);
        }
    }
}

} // namespace emulator
