// The log in a file or on standard error.
#include "base/log.h"

#include "captured_stdout.h"
#include "manager_test.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

namespace {

using support::CapturedStdout;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// What is written to standard error during its lifetime.
class CapturedStderr {
public:
    CapturedStderr() { dup2(m_file, STDERR_FILENO); }
    ~CapturedStderr() {
        dup2(m_original, STDERR_FILENO);
        close(m_original);
        close(m_file);
    }
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;

    std::string text() const {
        std::string all(4096, '\0');
        const ssize_t count = pread(m_file, all.data(), all.size(), 0);
        all.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return all;
    }

private:
    const int m_original = dup(STDERR_FILENO);
    const int m_file = memfd_create("stderr", MFD_CLOEXEC);
};

class LogFile : public ManagerTest {
protected:
    LogFile() { GVLOG_SetLevel(1); }
    ~LogFile() override {
        closeLogFile();
        GVLOG_SetLevel(0);
        std::filesystem::remove_all(folder);
    }

    std::string contents() const {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::vector<std::string> lines() const { return support::logLines(contents()); }

    // The descriptors of the process that refer to the file.
    std::vector<int> descriptors() const {
        std::vector<int> found;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code missing;
            if (std::filesystem::read_symlink(entry, missing) == path) {
                found.push_back(std::stoi(entry.path().filename()));
            }
        }
        return found;
    }

    const std::string folder = [] {
        char name[] = "/tmp/gvusb-log-XXXXXX";
        return std::string(mkdtemp(name));
    }();
    const std::string path = folder + "/a log";
};

TEST_F(LogFile, GetsTheLinesInsteadOfStandardOutput) {
    CapturedStdout output;
    openLogFile(path.c_str());
    GVLOG_Msg("scan", "no devices");
    GVLOG_Msg("100%s", "%n%d %% \x80\tTab");
    EXPECT_THAT(lines(), ElementsAre("[scan] no devices", "[100%s] %n%d %% \x80\tTab"));
    closeLogFile();
    GVLOG_Msg("scan", "afterwards");
    EXPECT_THAT(output.takeLogLines(), ElementsAre("[scan] afterwards"));
    EXPECT_EQ(lines().size(), 2u);
}

TEST_F(LogFile, IsAppendedTo) {
    std::ofstream(path) << "older text\n";
    openLogFile(path.c_str());
    GVLOG_Msg("scan", "no devices");
    std::ofstream(path, std::ios::app) << "of another process\n";
    GVLOG_Msg("scan", "again");
    EXPECT_THAT(contents(), StartsWith("older text\n"));
    EXPECT_THAT(contents(), HasSubstr("[scan] no devices\nof another process\n"));
    EXPECT_THAT(contents(), EndsWith("[scan] again\n"));
}

TEST_F(LogFile, GetsLongLinesWhole) {
    openLogFile(path.c_str());
    const std::string text(100'000, 'x');
    GVLOG_Msg("receive", text.c_str());
    EXPECT_THAT(lines(), ElementsAre("[receive] " + text));
}

TEST_F(LogFile, IsClosedOnExecAndAtTheEnd) {
    openLogFile(path.c_str());
    ASSERT_EQ(descriptors().size(), 1u);
    EXPECT_EQ(fcntl(descriptors().front(), F_GETFD), FD_CLOEXEC);
    closeLogFile();
    EXPECT_THAT(descriptors(), IsEmpty());
}

TEST_F(LogFile, DoesNotTakeTheNumberOfAClosedStandardStream) {
    const int original = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    openLogFile(path.c_str());
    const std::vector<int> taken = descriptors();
    dup2(original, STDERR_FILENO);
    close(original);
    ASSERT_EQ(taken.size(), 1u);
    EXPECT_GT(taken.front(), STDERR_FILENO);
}

// A program that becomes a daemon may close every descriptor and then open its own files.
TEST_F(LogFile, DoesNotWriteIntoAnotherFileWithItsNumber) {
    openLogFile(path.c_str());
    const int number = descriptors().at(0);
    const int another = memfd_create("another", 0);
    dup2(another, number);
    GVLOG_Msg("scan", "no devices");
    closeLogFile();
    struct stat status = {};
    EXPECT_EQ(fstat(number, &status), 0) << "it was closed";
    EXPECT_EQ(status.st_size, 0);
    close(number);
    close(another);
    EXPECT_EQ(contents(), "");
}

TEST_F(LogFile, ThatCannotBeOpenedLeavesTheLogOnStandardOutput) {
    const std::string impossible = folder + "/missing/log";
    CapturedStderr errors;
    CapturedStdout output;
    openLogFile(impossible.c_str());
    EXPECT_EQ(errors.text(),
              "gvusb: cannot open the log file " + impossible + ": No such file or directory\n");
    GVLOG_Msg("scan", "no devices");
    EXPECT_THAT(output.takeLogLines(), ElementsAre("[scan] no devices"));
    EXPECT_THAT(errors.text(), testing::Not(HasSubstr("scan")));
}

TEST_F(LogFile, ThatIsAFifoWithoutAReaderDoesNotBlock) {
    const std::string fifo = folder + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    CapturedStderr errors;
    openLogFile(fifo.c_str());
    EXPECT_THAT(errors.text(), HasSubstr("cannot open the log file " + fifo + ": "));
}

TEST_F(LogFile, NamedStderrIsStandardError) {
    CapturedStderr errors;
    CapturedStdout output;
    openLogFile("stderr");
    GVLOG_Msg("scan", "no devices");
    EXPECT_THAT(support::logLines(errors.text()), ElementsAre("[scan] no devices"));
    closeLogFile();
    EXPECT_GE(fcntl(STDERR_FILENO, F_GETFD), 0) << "standard error was closed";
    EXPECT_THAT(output.takeLogLines(), IsEmpty());
}

TEST_F(LogFile, OfTheConfigurationGetsTheWholeLog) {
    GVLOG_SetLevel(0);
    CapturedStdout output;
    restart("nopnp\ngvusb_debuglevel=1\ngvusb_logfile=" + path + "\n");
    EXPECT_THAT(lines().front(), StartsWith("[init] libUSB-Version="));
    restart(quiet);
    EXPECT_THAT(lines().back(), "[exit] ... done");
    EXPECT_THAT(descriptors(), IsEmpty());
    EXPECT_THAT(output.takeLogLines(), IsEmpty());
}

} // namespace
