#include "base/owner.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<int> released;
bool releaseThrows = false;

void releaseNumber(int* number) {
    released.push_back(*number);
    if (releaseThrows) {
        throw std::runtime_error("while releasing");
    }
}

using OwnedNumber = Owner<int, releaseNumber>;

class OwnerTest : public testing::Test {
protected:
    ~OwnerTest() override {
        released.clear();
        releaseThrows = false;
    }

    int one = 1;
    int two = 2;
};

TEST_F(OwnerTest, ReleasesItsObjectOnce) {
    {
        OwnedNumber owner(&one);
        EXPECT_EQ(owner.get(), &one);
        EXPECT_EQ(*owner, 1);
        owner.reset();
        EXPECT_EQ(released, std::vector<int>{1});
        EXPECT_EQ(owner.get(), nullptr);
    }
    EXPECT_EQ(released, std::vector<int>{1});
}

TEST_F(OwnerTest, WithoutAnObjectReleasesNothing) {
    { const OwnedNumber owner; }
    { const OwnedNumber owner(nullptr); }
    EXPECT_TRUE(released.empty());
}

TEST_F(OwnerTest, MovingPassesTheObjectOn) {
    {
        OwnedNumber first(&one);
        OwnedNumber second(std::move(first));
        EXPECT_EQ(second.get(), &one);
        second = OwnedNumber(&two);
        EXPECT_EQ(released, std::vector<int>{1});
    }
    EXPECT_EQ(released, (std::vector<int>{1, 2}));
}

TEST_F(OwnerTest, ObjectThatIsGivenUpIsNotReleased) {
    {
        OwnedNumber owner(&one);
        EXPECT_EQ(owner.release(), &one);
    }
    EXPECT_TRUE(released.empty());
}

TEST_F(OwnerTest, ExceptionWhileReleasingPasses) {
    releaseThrows = true;
    EXPECT_THROW({ const OwnedNumber owner(&one); }, std::runtime_error);
    EXPECT_EQ(released, std::vector<int>{1});
}

} // namespace
