// A reader with bulk endpoints, and what a test does with it.
#pragma once

#include "model/model.h"
#include "model/pipes.h"

#include <gtest/gtest.h>

namespace emulator {

class ReaderModelTest : public testing::Test {
protected:
    TransferId out(Bytes data, std::uint8_t endpoint = 0x02) {
        return reader.submit({.endpoint = endpoint, .data = std::move(data)}, now);
    }
    TransferId in(std::size_t capacity = 64, std::uint8_t endpoint = 0x81) {
        return reader.submit({.endpoint = endpoint, .capacity = capacity}, now);
    }
    TransferId frameOut(Bytes data) {
        const auto length = static_cast<std::uint16_t>(data.size());
        return reader.submit({.endpoint = 0, .setup = {0x40, 0, 0, 0, length}, .data = std::move(data)}, now);
    }
    TransferId frameIn(std::uint16_t length = 64) {
        return reader.submit({.endpoint = 0, .setup = {0xC0, 0, 0, 0, length}, .capacity = length}, now);
    }
    void expectCompletion(TransferId id, Outcome outcome, const Bytes& data = {}) {
        const auto completion = reader.takeCompletion();
        ASSERT_TRUE(completion.has_value());
        EXPECT_EQ(completion->id, id);
        EXPECT_EQ(completion->outcome, outcome);
        EXPECT_EQ(completion->data, data);
    }
    void expectNothing() { EXPECT_FALSE(reader.takeCompletion().has_value()); }
    void take() { ASSERT_TRUE(reader.takeCompletion().has_value()); }
    void fault(std::string_view pipe, const PipeFaults& faults) {
        for (const Pipe each : pipesNamed(reader.description(), pipe)) {
            reader.setPipeFaults(each, faults, now);
        }
    }
    static ReaderModel described(std::string_view line) { return ReaderModel(parseReaders(line).front()); }

    Time now{std::chrono::hours(1)};
    ReaderModel reader = described("");
};

} // namespace emulator
