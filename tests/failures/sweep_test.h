// Shared by the two sweeps: the fixture, and the count of injected failures.
#pragma once

#include "operations.h"
#include "situations.h"

#include "captured_stdout.h"
#include "manager_test.h"
#include "worker_sleep.h"

#include <cstdio>
#include <optional>
#include <string>

namespace failures {

template <class Sweep>
class SweepTest : public ManagerTest, public testing::WithParamInterface<Operation> {
protected:
    SweepTest() {
        if (GetParam().polls) {
            noPolls_.emplace();
        }
    }
    ~SweepTest() override {
        forgetSituation();
        support::setConfigurationText(quiet);
    }

    static void TearDownTestSuite() {
        std::printf("%s: %zu failures injected in all\n", Sweep::name, total());
        testing::Test::RecordProperty("failures_in_all", std::to_string(total()));
    }

    static void tell(std::size_t failures) {
        total() += failures;
        std::printf("%s, %s: %zu failures injected\n", Sweep::name, GetParam().name, failures);
        testing::Test::RecordProperty("failures", std::to_string(failures));
    }

private:
    static std::size_t& total() {
        static std::size_t count = 0;
        return count;
    }

    // Keeps the worker thread asleep, because a poll would call libusb during an operation.
    std::optional<support::SteeredSleep> noPolls_;
};

inline std::string nameOf(const testing::TestParamInfo<Operation>& each) {
    return each.param.name;
}

} // namespace failures
