#include "logic/logics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace emulator {
namespace {

using namespace std::chrono_literals;

// Readers without a host: transfers go straight to the models.
class ModelBus final : public Bus {
public:
    std::size_t add(ReaderDescription description) override {
        m_readers.push_back({std::make_unique<ReaderModel>(std::move(description)), false});
        return m_readers.size();
    }
    void removeLast() override { m_readers.pop_back(); }
    std::size_t size() const override { return m_readers.size(); }
    const ReaderDescription& description(std::size_t number) const override {
        return m_readers.at(number - 1).first->description();
    }
    bool hostIsElsewhere() const override { return false; }
    void checkRoom(const std::vector<std::size_t>&) const override {}
    bool plugged(std::size_t number) const override { return m_readers.at(number - 1).second; }
    void plug(std::size_t number) override {
        m_readers.at(number - 1).second = true;
        model(number).power(std::chrono::steady_clock::now());
    }
    void unplug(std::size_t number) override {
        m_readers.at(number - 1).second = false;
        model(number).unplug();
        model(number).note(ReaderEvent::unplugged);
    }
    std::string place(std::size_t) const override { return "here"; }
    NamedCounts counts(std::size_t) override { return {}; }
    void setBusy(std::size_t, bool) override {}
    void bindDriver(std::size_t, const std::string&) override {}
    void refuseOpening(std::size_t, int) override {}
    void failReset(std::size_t, bool) override {}
    void addPolled(std::vector<pollfd>&) override {}
    void serve(const std::vector<pollfd>&, std::size_t) override {}
    std::optional<Time> nextDeadline() override { return std::nullopt; }

    ReaderModel& model(std::size_t number) { return *m_readers.at(number - 1).first; }

protected:
    void onModel(std::size_t number, const std::function<void(ReaderModel&)>& action) override {
        action(model(number));
    }

private:
    std::vector<std::pair<std::unique_ptr<ReaderModel>, bool>> m_readers;
};

// The mask of commands. A write to one that has closed its input must not end the tests.
const sigset_t& mask() {
    static const sigset_t before = [] {
        sigset_t blocked;
        sigset_t old;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &blocked, &old);
        return old;
    }();
    return before;
}

class LogicsTest : public testing::Test {
protected:
    LogicsTest() {
        std::string pattern = testing::TempDir() + "logics-XXXXXX";
        folder = ::mkdtemp(pattern.data());
        testing::internal::CaptureStderr();
    }
    ~LogicsTest() override {
        if (capturing) {
            testing::internal::GetCapturedStderr();
        }
        std::filesystem::remove_all(folder);
    }

    void start(const std::string& line) {
        for (ReaderDescription& description : parseReaders(line)) {
            bus.plug(bus.add(std::move(description)));
        }
        logics.startNew();
    }

    // As the launcher does after SIGCHLD.
    void reap() {
        siginfo_t info{};
        if (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0) {
            EXPECT_TRUE(logics.noteEnded(info.si_pid));
        }
    }

    bool await(const std::function<bool()>& condition) {
        const Time end = now() + 30s;
        while (!condition()) {
            if (end < now()) {
                return false;
            }
            pollfd polled = {.fd = logics.descriptor(), .events = POLLIN, .revents = 0};
            ::poll(&polled, 1, 2);
            logics.serve();
            reap();
        }
        return true;
    }

    TransferId out(Bytes data, std::size_t number = 1) {
        return bus.model(number).submit({.endpoint = 0x02, .data = std::move(data)}, now());
    }
    TransferId in(std::size_t number = 1) {
        return bus.model(number).submit({.endpoint = 0x81, .capacity = 64}, now());
    }
    // Completions of other transfers are kept until they are asked for.
    std::optional<Completion> completionOf(TransferId id, std::size_t number = 1) {
        auto& taken = completions[number];
        const auto isThis = [&](const Completion& completion) { return completion.id == id; };
        await([&] {
            while (auto completion = bus.model(number).takeCompletion()) {
                taken.push_back(std::move(*completion));
            }
            return std::ranges::any_of(taken, isThis);
        });
        const auto found = std::ranges::find_if(taken, isThis);
        if (found == taken.end()) {
            return std::nullopt;
        }
        Completion completion = std::move(*found);
        taken.erase(found);
        return completion;
    }
    void expectAnswer(const Bytes& answer, std::size_t number = 1) {
        const auto completion = completionOf(in(number), number);
        ASSERT_TRUE(completion.has_value());
        EXPECT_EQ(completion->outcome, Outcome::done);
        EXPECT_EQ(completion->data, answer);
    }

    std::string standardError() {
        capturing = false;
        return testing::internal::GetCapturedStderr();
    }
    std::string file(const std::string& name) const { return folder + "/" + name; }
    void touch(const std::string& name) const { std::ofstream(file(name)).put('\n'); }
    bool exists(const std::string& name) const { return std::filesystem::exists(file(name)); }

    static Time now() { return std::chrono::steady_clock::now(); }
    static bool gone(pid_t group) { return ::kill(-group, 0) != 0 && errno == ESRCH; }

    // A shell command that does something for each frame.
    static std::string onFrame(const std::string& what) {
        return "while read -r line; do case $line in *'\"frame\"'*) " + what + ";; esac; done";
    }

    std::string folder;
    bool capturing = true;
    std::map<std::size_t, std::vector<Completion>> completions; // by reader
    ModelBus bus;
    Logics logics{bus, {}, mask()};
};

TEST_F(LogicsTest, SendsFactsAndEvents) {
    start("id=CAFE,copies=2,logic=exec cat >&2");
    ASSERT_TRUE(await([&] { return logics.ready(); }));
    bus.model(1).note(ReaderEvent::opened);
    out({1, 2}, 2);
    logics.end();
    const std::string text = standardError();
    // The two programs write in any order.
    for (const auto& lines :
         {std::array<std::string, 3>{"reader 1 (CAFE): {\"hello\":1,\"reader\":1,\"copy\":1,\"id\":\"CAFE\",",
                                     "reader 1 (CAFE): {\"event\":\"plugged\"}\n",
                                     "reader 1 (CAFE): {\"event\":\"opened\"}\n"},
          std::array<std::string, 3>{
              "reader 2 (CAFF): {\"hello\":1,\"reader\":2,\"copy\":2,\"id\":\"CAFF\",",
              "reader 2 (CAFF): {\"event\":\"plugged\"}\n",
              "reader 2 (CAFF): {\"frame\":\"0102\",\"number\":1,\"pipe\":\"bulk\","}}) {
        std::size_t at = 0;
        for (const std::string& line : lines) {
            at = text.find(line, at);
            ASSERT_NE(at, std::string::npos) << line << text;
        }
    }
    EXPECT_FALSE(logics.failed());
}

TEST_F(LogicsTest, AnswersNoneOneOrSeveral) {
    start("logic=" + onFrame("case $line in *'\"01\"'*) echo '{\"send\":\"9000\"}';; "
                             "*'\"02\"'*) printf '{\"send\":\"0a\"}\\n{\"send\":\"0b\"}\\n';; esac"));
    out({3});
    out({1});
    expectAnswer({0x90, 0x00});
    out({2});
    expectAnswer({0x0A});
    expectAnswer({0x0B});
}

TEST_F(LogicsTest, AnswersByControlIfThereIsNoBulkEndpoint) {
    start("endpoints=control,logic=" + onFrame("echo '{\"send\":\"05\"}'"));
    bus.model(1).submit({.endpoint = 0, .setup = {0x40, 0, 0, 0, 1}, .data = {1}}, now());
    const auto answer =
        completionOf(bus.model(1).submit({.endpoint = 0, .setup = {0xC0, 0, 0, 0, 8}, .capacity = 8}, now()));
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->data, Bytes{5});
}

TEST_F(LogicsTest, AnswersOnTheNamedPipe) {
    start("logic=echo '{\"send\":\"05\",\"pipe\":\"control\"}'; exec cat >/dev/null");
    const auto answer =
        completionOf(bus.model(1).submit({.endpoint = 0, .setup = {0xC0, 0, 0, 0, 8}, .capacity = 8}, now()));
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->data, Bytes{5});
}

TEST_F(LogicsTest, AnswersLaterInTheOrderOfTime) {
    start("logic=" +
          onFrame("printf '{\"send\":\"02\",\"after_ms\":120}\\n{\"send\":\"01\",\"after_ms\":60}\\n'"));
    const Time begin = now();
    out({1});
    expectAnswer({1});
    EXPECT_GE(now() - begin, 60ms);
    expectAnswer({2});
    EXPECT_GE(now() - begin, 120ms);
}

TEST_F(LogicsTest, SendsUnasked) {
    start("logic=echo '{\"send\":\"07\"}'; exec cat >/dev/null");
    expectAnswer({7});
}

TEST_F(LogicsTest, AnswersSeveralPendingFramesInOrder) {
    start("logic=n=0; " + onFrame("n=$((n + 1)); printf '{\"send\":\"%02x\"}\\n' $n"));
    for (std::uint8_t i = 0; i < 50; ++i) {
        out({i});
    }
    for (std::uint8_t i = 1; i <= 50; ++i) {
        expectAnswer({i});
    }
}

TEST_F(LogicsTest, Stalls) {
    start("logic=" + onFrame("printf '{\"stall\":\"in\"}\\n'"));
    const TransferId waiting = in();
    out({1});
    const auto stalled = completionOf(waiting);
    ASSERT_TRUE(stalled.has_value());
    EXPECT_EQ(stalled->outcome, Outcome::stalled);
}

TEST_F(LogicsTest, SetsFaultsAndAnswers) {
    start("logic=printf '{\"mute\":\"out\"}\\n{\"delay\":\"in\",\"ms\":7}\\n{\"reply\":\"fixed:01\"}\\n"
          "{\"command\":\"string 1 5 New "
          "name\"}\\n{\"send\":\"01\"}\\n{\"flush\":true}\\n{\"unmute\":\"control\"}\\n"
          "{\"log\":\"done\"}\\n'; touch " +
          file("done") + "; exec cat >/dev/null");
    ReaderModel& model = bus.model(1);
    ASSERT_TRUE(await([&] { return model.description().strings.at(5) == "New name"; }));
    EXPECT_TRUE(model.pipeFaults(pipeOf(0x02)).mute);
    EXPECT_EQ(model.pipeFaults(pipeOf(0x81)).delay, 7ms);
    EXPECT_EQ(model.description().reply.text(), "fixed:01");
    ASSERT_TRUE(await([&] { return exists("done"); }));
    logics.end();
    EXPECT_EQ(model.waitingAnswers(), 0U);
    EXPECT_EQ(standardError(), "reader 1 (1A2B3C): done\n");
    EXPECT_FALSE(logics.failed());
}

TEST_F(LogicsTest, UnplugsAndPlugsItself) {
    start("logic=printf '{\"unplug\":true}\\n{\"unplug\":true}\\n{\"plug\":true,\"after_ms\":50}\\n'; exec "
          "cat >&2");
    ASSERT_TRUE(await([&] { return !bus.plugged(1); }));
    ASSERT_TRUE(await([&] { return bus.plugged(1); }));
    logics.end();
    const std::string text = standardError();
    EXPECT_NE(text.find("{\"event\":\"unplugged\"}\nreader 1 (1A2B3C): {\"event\":\"plugged\"}\n"),
              std::string::npos)
        << text;
    EXPECT_FALSE(logics.failed());
}

TEST_F(LogicsTest, SaysWhatIsNotUnderstood) {
    start("logic=printf '{\"sned\":\"01\"}\\n{\"mute\":\"up\"}\\nx\\001y\\n{\"send\":\"0a\"}\\nno end'; "
          "touch " +
          file("done") + "; exec cat >/dev/null");
    expectAnswer({0x0A});
    logics.end();
    EXPECT_TRUE(logics.failed());
    EXPECT_EQ(standardError(),
              "gvusb-emulate: the logic of reader 1 (1A2B3C): unknown key \"sned\": {\"sned\":\"01\"}\n"
              "gvusb-emulate: the logic of reader 1 (1A2B3C): pipe must be in, out, control, all or an "
              "endpoint such as "
              "0x81, not 'up': mute 1 up\n"
              "gvusb-emulate: the logic of reader 1 (1A2B3C): not a JSON object: x?y\n"
              "gvusb-emulate: the logic of reader 1 (1A2B3C): not a JSON object: no end\n");
}

TEST_F(LogicsTest, ShowsTenMistakes) {
    start("logic=yes mistake | head -n 5000; echo '{\"send\":\"01\"}'; exec cat >/dev/null");
    expectAnswer({1});
    const std::string text = standardError();
    EXPECT_EQ(std::ranges::count(text, '\n'), 11) << text;
    EXPECT_TRUE(text.ends_with("reader 1 (1A2B3C): no further mistakes are shown\n")) << text;
}

TEST_F(LogicsTest, DropsALineThatIsTooLong) {
    start("logic=head -c 5000000 /dev/zero | tr '\\0' x; printf '\\n{\"send\":\"01\"}\\n'; exec cat "
          ">/dev/null");
    expectAnswer({1});
    EXPECT_EQ(standardError(),
              "gvusb-emulate: the logic of reader 1 (1A2B3C): a line of more than 4194304 bytes\n");
    EXPECT_TRUE(logics.failed());
}

TEST_F(LogicsTest, DeathUnplugsTheReader) {
    start("logic=" + onFrame("echo '{\"send\":\"01\"}'; echo why >&2; exit 3"));
    ASSERT_TRUE(await([&] { return logics.ready(); }));
    const TransferId first = in();
    const TransferId second = in();
    out({1});
    // What it sent before is still delivered.
    const auto answered = completionOf(first);
    ASSERT_TRUE(answered.has_value());
    EXPECT_EQ(answered->data, Bytes{1});
    const auto gone = completionOf(second);
    ASSERT_TRUE(gone.has_value());
    EXPECT_EQ(gone->outcome, Outcome::gone);
    EXPECT_FALSE(bus.plugged(1));
    EXPECT_TRUE(logics.failed());
    const std::string text = standardError();
    EXPECT_NE(text.find("reader 1 (1A2B3C): why\n"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("gvusb-emulate: the logic of reader 1 (1A2B3C) ended with exit status 3\n"))
        << text;
}

TEST_F(LogicsTest, DeathBySignalIsReported) {
    start("logic=read -r hello; kill -KILL $$");
    ASSERT_TRUE(await([&] { return !bus.plugged(1); }));
    EXPECT_EQ(standardError(),
              "gvusb-emulate: the logic of reader 1 (1A2B3C) was killed by signal 9 (Killed)\n");
}

TEST_F(LogicsTest, StartsAgainWhenTheReaderIsPluggedIn) {
    start("logic=" + onFrame("echo '{\"send\":\"01\"}'; exit 0"));
    out({1});
    ASSERT_TRUE(await([&] { return !bus.plugged(1); }));
    bus.plug(1);
    out({1});
    expectAnswer({1});
}

TEST_F(LogicsTest, FramesStayPendingWhileItDoesNotRead) {
    start("logic=read -r hello; while [ ! -e " + file("read") + " ]; do sleep 0.02; done; n=0; " +
          onFrame("n=$((n + 1)); [ $n != 300 ] || echo '{\"send\":\"01\"}'"));
    start("logic=" + onFrame("echo '{\"send\":\"02\"}'"));
    for (int i = 0; i < 300; ++i) {
        out(Bytes(500, 1));
    }
    // The pipe and the queue hold fewer. The other reader goes on.
    out({1}, 2);
    expectAnswer({2}, 2);
    int done = 0;
    const auto count = [&] {
        while (bus.model(1).takeCompletion()) {
            ++done;
        }
        return done;
    };
    EXPECT_LT(count(), 300);
    EXPECT_GT(done, 0);
    touch("read");
    EXPECT_TRUE(await([&] { return count() == 300; }));
    expectAnswer({1});
}

TEST_F(LogicsTest, EventsAreLostWhileItDoesNotRead) {
    start("logic=read -r hello; while [ ! -e " + file("read") +
          " ]; do sleep 0.02; done; exec grep --line-buffered -o 'lost.*' >" + file("lost"));
    for (int i = 0; i < 100'000; ++i) {
        bus.model(1).note(ReaderEvent::opened);
    }
    touch("read");
    ASSERT_TRUE(await([&] { return exists("lost") && std::filesystem::file_size(file("lost")) != 0; }));
    logics.end();
    std::string text;
    std::getline(std::ifstream(file("lost")), text);
    EXPECT_TRUE(text.starts_with("lost\",\"count\":")) << text;
    EXPECT_FALSE(logics.failed());
}

TEST_F(LogicsTest, FloodIsHeldBack) {
    start("logic=exec yes '{\"send\":\"0102\"}'");
    start("logic=" + onFrame("echo '{\"send\":\"02\"}'"));
    constexpr std::size_t most = std::size_t{8} << 20;
    ASSERT_TRUE(await([&] { return bus.model(1).waitingAnswers() > (std::size_t{1} << 20); }));
    for (int i = 0; i < 20; ++i) {
        out({1}, 2);
        expectAnswer({2}, 2);
        EXPECT_LT(bus.model(1).waitingAnswers(), most);
    }
    for (int i = 0; i < 30'000; ++i) {
        const TransferId id = in();
        if (i % 1000 == 0) {
            ASSERT_TRUE(completionOf(id).has_value());
        }
        while (bus.model(1).takeCompletion()) {
        }
    }
    EXPECT_LT(bus.model(1).waitingAnswers(), most);
}

TEST_F(LogicsTest, FloodForLaterIsHeldBack) {
    start("logic=exec yes '{\"send\":\"0102\",\"after_ms\":3600000}'");
    start("logic=" + onFrame("echo '{\"send\":\"02\"}'"));
    for (int i = 0; i < 20; ++i) {
        out({1}, 2);
        expectAnswer({2}, 2);
    }
    ASSERT_TRUE(await([&] { return logics.nextDeadline() < now() + 1s; })); // it has been paused
}

TEST_F(LogicsTest, CloseOfItsInputKeepsFramesPending) {
    start("logic=read -r hello; exec <&-; touch " + file("closed") + "; exec sleep 1000");
    ASSERT_TRUE(await([&] { return exists("closed"); }));
    logics.serve();
    const TransferId waiting = out({1});
    logics.serve();
    EXPECT_FALSE(bus.model(1).takeCompletion().has_value());
    EXPECT_TRUE(bus.model(1).cancel(waiting, now()));
    // Nothing keeps the launcher busy.
    pollfd polled = {.fd = logics.descriptor(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&polled, 1, 50), 0);
}

TEST_F(LogicsTest, EndsWithTheRun) {
    start("logic=trap '' TERM INT HUP; " + onFrame(":") + "; echo '{\"log\":\"bye\"}'");
    start("logic=read -r hello; echo $$ >" + file("group") + "; sleep 1000 & exec sleep 1000");
    ASSERT_TRUE(await([&] { return logics.ready() && exists("group"); }));
    pid_t group = 0;
    ASSERT_TRUE(await([&] { return static_cast<bool>(std::ifstream(file("group")) >> group); }));
    EXPECT_FALSE(gone(group));
    logics.end();
    EXPECT_TRUE(await([&] { return gone(group); })); // its children end in a moment
    EXPECT_EQ(standardError(),
              "reader 1 (1A2B3C): bye\n"
              "gvusb-emulate: killed the logic of reader 2 (1A2B3C), which did not end within 1 s of the "
              "end of its input\n");
    EXPECT_FALSE(logics.failed());
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(LogicsTest, FailureAtTheEndCounts) {
    start("logic=cat >/dev/null; exit 4");
    ASSERT_TRUE(await([&] { return logics.ready(); }));
    logics.end();
    EXPECT_EQ(standardError(), "gvusb-emulate: the logic of reader 1 (1A2B3C) ended with exit status 4\n");
    EXPECT_TRUE(logics.failed());
}

TEST_F(LogicsTest, IsNotReadyIfItEndsOrDoesNotRead) {
    start("logic=no-such-command-anywhere");
    EXPECT_THROW(await([&] { return logics.ready(); }), std::runtime_error);
    EXPECT_TRUE(standardError().ends_with(
        "gvusb-emulate: the logic of reader 1 (1A2B3C) ended with exit status 127\n"));
    ModelBus other;
    other.add(parseReaders("logic=exec sleep 1000").front());
    Logics silent(other, {}, mask(), 50ms);
    silent.startNew();
    EXPECT_FALSE(silent.ready());
    ::poll(nullptr, 0, 60);
    EXPECT_THROW(silent.ready(), std::runtime_error);
}

TEST_F(LogicsTest, StartsTheCommandsOfReadersAddedLater) {
    start("logic=" + onFrame("echo '{\"send\":\"01\"}'"));
    bus.plug(bus.add(parseReaders("id=B,logic=" + onFrame("echo '{\"send\":\"02\"}'")).front()));
    logics.serve();
    out({1}, 2);
    expectAnswer({2}, 2);
}

TEST_F(LogicsTest, GetsItsEnvironment) {
    ModelBus other;
    Logics others(other, {{"GIVEN", "yes"}, {"HOME", std::nullopt}}, mask());
    other.add(parseReaders("logic=echo \"$GIVEN ${HOME-none}\" >&2; exec cat >/dev/null").front());
    others.startNew();
    others.end();
    EXPECT_EQ(standardError(), "reader 1 (1A2B3C): yes none\n");
}

} // namespace
} // namespace emulator
