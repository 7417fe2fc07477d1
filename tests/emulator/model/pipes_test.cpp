#include "model/pipes.h"

#include <gtest/gtest.h>

namespace emulator {
namespace {

TEST(PipesTest, NamesPipes) {
    const ReaderDescription reader;
    EXPECT_EQ(pipesNamed(reader, "in"), (std::vector<Pipe>{pipeOf(0x81), Pipe::controlFrameIn}));
    EXPECT_EQ(pipesNamed(reader, "out"), (std::vector<Pipe>{pipeOf(0x02), Pipe::controlFrameOut}));
    EXPECT_EQ(pipesNamed(reader, "control"), std::vector<Pipe>{Pipe::control});
    EXPECT_EQ(pipesNamed(reader, "all"), (std::vector<Pipe>{pipeOf(0x81), pipeOf(0x02), Pipe::control}));
    EXPECT_EQ(pipesNamed(reader, "0x81"), std::vector<Pipe>{pipeOf(0x81)});
    EXPECT_THROW(pipesNamed(reader, "0x83"), TextError);
    EXPECT_THROW(pipesNamed(reader, "sideways"), TextError);
}

} // namespace
} // namespace emulator
