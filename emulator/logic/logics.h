// The commands that play the readers of a bus. They run from their reader's adding to the end of the run, or until they
// end by themselves, which unplugs the reader.
//
// For the launcher's main thread only.
#pragma once

#include "control/bus.h"
#include "logic/logic.h"

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace emulator {

class Logics {
public:
    // How long the commands may take to read their first line.
    static constexpr std::chrono::seconds defaultPatience{30};

    // `environment` and `mask` are those of the commands.
    Logics(Bus& bus, Environment environment, const sigset_t& mask,
           std::chrono::milliseconds patience = defaultPatience);
    Logics(const Logics&) = delete;
    Logics& operator=(const Logics&) = delete;
    ~Logics();

    // Start the commands of readers that have been added since the last call. serve() does so too, and starts commands
    // again that have ended and whose readers have been plugged in since.
    void startNew();

    // Whether each command has read its first line. Throws std::runtime_error if one ended before or takes too long.
    bool ready();

    // Readable when serve() has something to do.
    int descriptor() const { return m_epoll.get(); }
    void serve();
    std::optional<Time> nextDeadline() const;

    // Whether this process, which has ended, is one of the commands. If it is, unplug its reader.
    bool noteEnded(pid_t process);
    bool has(pid_t process) const;
    bool empty() const { return m_players.empty(); }

    // End the commands: close their input, and kill those that do not end in a moment.
    void end();

    // Whether a command ended too early or with another status than 0, or wrote what is not understood.
    bool failed() const { return m_failed; }

private:
    struct Player {
        std::size_t number = 0; // of the reader
        std::shared_ptr<Logic> logic = nullptr;
        std::multimap<Time, LogicAction> later = {};
        std::size_t laterSize = 0;
        unsigned mistakes = 0;
        std::size_t waitingAnswers = 0; // in the model, when it was looked at last
        bool isReady = false;
        bool isPaused = false; // its output is not read
        bool isWriting = false;
    };

    std::shared_ptr<Logic> launch(std::size_t number);
    void attach(std::size_t index);
    void restartPlugged();
    void startMore();
    void watch(std::size_t index, int descriptor, unsigned stream, std::uint32_t events) const;
    void setWriting(std::size_t index, bool writing);
    void flush(std::size_t index);
    void readOutput(std::size_t index);
    void takeLines(Player& player);
    void perform(Player& player, std::vector<LogicAction> actions);
    void performOne(const Player& player, const LogicAction& action);
    void runDue();
    void setPaused(std::size_t index, bool paused);
    void choosePause(std::size_t index);
    void report(Player& player, const std::string& mistake, std::string_view line);
    void finish(Player& player);
    void endOne(Player& player, bool isLate);

    Bus& m_bus;
    Environment m_environment;
    sigset_t m_mask;
    std::chrono::milliseconds m_patience;
    FileDescriptor m_epoll;
    std::shared_ptr<FileDescriptor> m_bell; // rung by logics whose command does not read
    std::vector<Player> m_players;
    std::size_t m_looked = 0; // how many of the bus's readers have been looked at
    Time m_started{};
    bool m_failed = false;
    bool m_ending = false;
};

} // namespace emulator
