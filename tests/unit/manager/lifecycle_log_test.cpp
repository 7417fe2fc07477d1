// The log of the manager's construction and destruction.
#include "lifecycle_test.h"

#include "captured_stdout.h"

#include "base/log.h"

#include <locale>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LifecycleLogTest : public LifecycleTest {
protected:
    using Lines = std::vector<std::string>;

    ~LifecycleLogTest() override { GVLOG_SetLevel(0); }

    static Lines logOfLoading(
        const std::string& configuration, const std::function<void()>& prepare = [] {}) {
        support::CapturedStdout output;
        load(configuration, prepare);
        Lines lines = output.takeLogLines();
        GVLOG_SetLevel(0);
        if (support::inParallelSuite()) {
            EXPECT_EQ(std::erase(lines, "[init] gvUSB-Parallel=1"), 1u);
        }
        return lines;
    }
};

struct GroupedDigits : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\1"; }
};

} // namespace

TEST_F(LifecycleLogTest, StartLogsVersionsLevelsAndMode) {
    EXPECT_THAT(logOfLoading("gvusb_debuglevel=1"),
                ElementsAre("[init] libUSB-Version=1.0.26.11724   API=1000105", "[init] libUSB-DebugLevel=0",
                            "[init] libUSB-HasHotPlug=1", "[init] gvUSB-Version=7.1.0  ",
                            "[init] gvUSB-DebugLevel=1", "[init] gvUSB-UseHotPlug=1",
                            "[init] gvUSB-UpdateRate=300msec"));
}

TEST_F(LifecycleLogTest, StartLogsTheConfiguration) {
    EXPECT_THAT(logOfLoading("libusb_debuglevel=3 gvusb_debuglevel=2 gvusb_updaterate=1250"),
                ElementsAre("[init] libUSB-Version=1.0.26.11724   API=1000105", "[init] libUSB-DebugLevel=3",
                            "[init] libUSB-HasHotPlug=1", "[init] gvUSB-Version=7.1.0  ",
                            "[init] gvUSB-DebugLevel=2", "[init] gvUSB-UseHotPlug=1",
                            "[init] gvUSB-UpdateRate=1250msec"));
}

TEST_F(LifecycleLogTest, StartInModeTwoLogsTheCallbacks) {
    EXPECT_THAT(logOfLoading("gvusb_debuglevel=1 gvusb_hotplug=2"),
                ElementsAre("[init] libUSB-Version=1.0.26.11724   API=1000105", "[init] libUSB-DebugLevel=0",
                            "[init] libUSB-HasHotPlug=1", "[init] gvUSB-Version=7.1.0  ",
                            "[init] gvUSB-DebugLevel=1", "[init] gvUSB-UseHotPlug=2",
                            "[init] libUSB callbacks registered"));
}

TEST_F(LifecycleLogTest, CallbacksAreLoggedAsRegisteredEvenIfLibusbRefusedThem) {
    EXPECT_EQ(
        logOfLoading("gvusb_debuglevel=1 gvusb_hotplug=2",
                     [] { fake::failAlways("libusb_hotplug_register_callback", LIBUSB_ERROR_NOT_SUPPORTED); })
            .back(),
        "[init] libUSB callbacks registered");
}

TEST_F(LifecycleLogTest, StartInOtherModesEndsWithTheMode) {
    EXPECT_EQ(logOfLoading("gvusb_debuglevel=1 nopnp").back(), "[init] gvUSB-UseHotPlug=0");
    EXPECT_EQ(logOfLoading("gvusb_debuglevel=1 gvusb_hotplug=7").back(), "[init] gvUSB-UseHotPlug=7");
    EXPECT_EQ(logOfLoading("gvusb_debuglevel=1 gvusb_hotplug=!").back(), "[init] gvUSB-UseHotPlug=-15");
}

TEST_F(LifecycleLogTest, ModeTwoWithoutLibusbsHotPlugShowsAsModeZero) {
    EXPECT_THAT(logOfLoading("gvusb_debuglevel=1 gvusb_hotplug=2",
                             [] { fake::setCapability(LIBUSB_CAP_HAS_HOTPLUG, false); }),
                ElementsAre("[init] libUSB-Version=1.0.26.11724   API=1000105", "[init] libUSB-DebugLevel=0",
                            "[init] libUSB-HasHotPlug=0", "[init] gvUSB-Version=7.1.0  ",
                            "[init] gvUSB-DebugLevel=1", "[init] gvUSB-UseHotPlug=0"));
}

TEST_F(LifecycleLogTest, StartLogsParallelModeOnlyIfItIsOn) {
    support::CapturedStdout output;
    load("gvusb_debuglevel=1 gvusb_parallel=1");
    EXPECT_THAT(output.takeLogLines(),
                testing::IsSupersetOf({"[init] gvUSB-UseHotPlug=1", "[init] gvUSB-Parallel=1"}));
    load("nopnp");
    output.takeText();
    load("gvusb_debuglevel=1 gvusb_parallel=0");
    EXPECT_THAT(output.takeLogLines(), testing::Not(testing::Contains("[init] gvUSB-Parallel=1")));
}

TEST_F(LifecycleLogTest, ReleaseCandidateFollowsTheVersionDirectly) {
    const auto candidate = [] { fake::setVersion({1, 0, 27, 11882, "-rc1", ""}); };
    EXPECT_EQ(logOfLoading("nopnp gvusb_debuglevel=1", candidate).front(),
              "[init] libUSB-Version=1.0.27.11882-rc1   API=1000105");
}

TEST_F(LifecycleLogTest, VersionLineIsShorterWithoutAReleaseCandidate) {
    const auto withoutText = [] { fake::setVersion({1, 0, 8, 10555, nullptr, ""}); };
    EXPECT_THAT(logOfLoading("nopnp gvusb_debuglevel=1", withoutText),
                ElementsAre("[init] libUSB-Version=1.0.8.10555", "[init] libUSB-DebugLevel=0",
                            "[init] libUSB-HasHotPlug=1", "[init] gvUSB-Version=7.1.0  ",
                            "[init] gvUSB-DebugLevel=1", "[init] gvUSB-UseHotPlug=0"));
}

TEST_F(LifecycleLogTest, UpdateRateIsShownInMilliseconds) {
    EXPECT_EQ(logOfLoading("gvusb_debuglevel=1 gvusb_updaterate=5").back(), "[init] gvUSB-UpdateRate=10msec");
    EXPECT_EQ(logOfLoading("gvusb_debuglevel=1 gvusb_updaterate=9999999").back(),
              "[init] gvUSB-UpdateRate=4294967msec");
}

TEST_F(LifecycleLogTest, NumbersDoNotDependOnTheGlobalLocale) {
    const std::locale before = std::locale::global(std::locale(std::locale(), new GroupedDigits));
    const Lines lines = logOfLoading("libusb_debuglevel=1234 gvusb_debuglevel=2 gvusb_updaterate=1234567");
    std::locale::global(before);
    EXPECT_THAT(lines, ElementsAre("[init] libUSB-Version=1.0.26.11724   API=1000105",
                                   "[init] libUSB-DebugLevel=1234", "[init] libUSB-HasHotPlug=1",
                                   "[init] gvUSB-Version=7.1.0  ", "[init] gvUSB-DebugLevel=2",
                                   "[init] gvUSB-UseHotPlug=1", "[init] gvUSB-UpdateRate=1234567msec"));
}

TEST_F(LifecycleLogTest, NothingIsLoggedAtLevelZeroAndBelow) {
    for (const char* configuration : {"gvusb_hotplug=1", "gvusb_hotplug=2", "nopnp", "gvusb_debuglevel=-1"}) {
        support::CapturedStdout output;
        load(configuration);
        unload();
        EXPECT_EQ(output.takeText(), "") << configuration;
    }
}

TEST_F(LifecycleLogTest, EndIsLoggedBeforeAndAfterLibusbExits) {
    for (const char* configuration :
         {"gvusb_debuglevel=1", "gvusb_debuglevel=2 gvusb_hotplug=2", "gvusb_debuglevel=1 nopnp"}) {
        SCOPED_TRACE(configuration);
        support::CapturedStdout output;
        load(configuration);
        output.takeText();
        Lines before;
        fake::setHook([&](std::string_view function, std::string_view) {
            if (function == "libusb_exit") {
                before = output.takeLogLines();
            }
        });
        unload();
        EXPECT_THAT(before, ElementsAre("[exit] cleaning up ..."));
        EXPECT_THAT(output.takeLogLines(), ElementsAre("[exit] ... done"));
        GVLOG_SetLevel(0);
    }
}
