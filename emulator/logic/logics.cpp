#include "logic/logics.h"

#include "control/commands.h"
#include "model/pipes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iostream>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace emulator {

namespace {

// The streams of a command, in the two low bits of epoll's keys. The rest is its index.
constexpr unsigned outputStream = 0;
constexpr unsigned errorStream = 1;
constexpr unsigned inputStream = 2;
constexpr std::uint64_t bellKey = ~std::uint64_t{0};

// The output of a command is not read while so much of it waits for the program or for its time.
constexpr std::size_t mostPending = std::size_t{1} << 20;
constexpr std::size_t actionSize = 256;
constexpr Milliseconds betweenLooks(10);

constexpr unsigned mostMistakes = 10;
constexpr std::size_t longestShown = 200;

// How long commands may take to end after the end of their input.
constexpr std::chrono::seconds moment(1);

Time now() {
    return std::chrono::steady_clock::now();
}

// Without control characters, and not too long.
std::string shown(std::string_view line) {
    std::string text(line.substr(0, longestShown));
    std::ranges::replace_if(
        text, [](char c) { return c >= 0 && c < ' '; }, '?');
    return text + (line.size() > longestShown ? "..." : "");
}

// Whether the process has ended and still has to be waited for.
bool hasEnded(pid_t process) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid != 0;
}

std::string nameOf(std::size_t number, const ReaderDescription& description) {
    const auto id = description.strings.find(deviceIdString);
    return "reader " + std::to_string(number) +
           (id == description.strings.end() ? "" : " (" + shown(id->second) + ")");
}

} // namespace

Logics::Logics(Bus& bus, Environment environment, const sigset_t& mask, std::chrono::milliseconds patience)
    : m_bus(bus)
    , m_environment(std::move(environment))
    , m_mask(mask)
    , m_patience(patience)
    , m_epoll(::epoll_create1(EPOLL_CLOEXEC), "epoll")
    , m_bell(std::make_shared<FileDescriptor>(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
    epoll_event event{.events = EPOLLIN, .data = {.u64 = bellKey}};
    ::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_bell->get(), &event);
}

// The models may outlive this, and the logics with them. So each command is ended here.
Logics::~Logics() {
    for (const Player& player : m_players) {
        player.logic->finish();
    }
}

void Logics::startNew() {
    while (m_looked < m_bus.size()) {
        const std::size_t number = ++m_looked;
        if (m_bus.with(number, [](const ReaderModel& model) { return !model.description().logic.empty(); })) {
            auto logic = launch(number);
            m_players.push_back({.number = number, .logic = std::move(logic)});
            attach(m_players.size() - 1);
        }
    }
}

void Logics::restartPlugged() {
    for (std::size_t index = 0; index < m_players.size(); ++index) {
        Player& player = m_players[index];
        if (player.logic->ended() && m_bus.plugged(player.number)) {
            std::shared_ptr<Logic> logic;
            try {
                logic = launch(player.number);
            } catch (const std::exception&) {
                m_bus.unplug(player.number);
                throw;
            }
            player = {.number = player.number, .logic = std::move(logic)};
            attach(index);
        }
    }
}

std::shared_ptr<Logic> Logics::launch(std::size_t number) {
    const auto ring = [bell = m_bell] {
        constexpr std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(bell->get(), &one, sizeof one);
    };
    const auto description = m_bus.with(number, [](const ReaderModel& model) { return model.description(); });
    auto logic =
        std::make_shared<Logic>(nameOf(number, description), description.logic, m_environment, m_mask, ring);
    logic->send(helloLine(description, number));
    return logic;
}

void Logics::attach(std::size_t index) {
    const Player& player = m_players[index];
    const std::shared_ptr<Logic>& logic = player.logic;
    if (m_bus.plugged(player.number)) {
        logic->note(ReaderEvent::plugged, 0);
    }
    watch(index, logic->output(), outputStream, EPOLLIN);
    watch(index, logic->error(), errorStream, EPOLLIN);
    watch(index, logic->input(), inputStream, 0);
    m_bus.with(player.number, [&](ReaderModel& model) { model.setLogic(logic, now()); });
    m_started = now();
}

// What cannot be started while the program runs must not end it.
void Logics::startMore() {
    try {
        startNew();
        restartPlugged();
    } catch (const std::exception& error) {
        m_failed = true;
        std::cerr << "gvusb-emulate: cannot start the logic of a reader: " << error.what() << '\n';
    }
}

bool Logics::ready() {
    for (Player& player : m_players) {
        player.isReady |= player.logic->hasRead();
        if (player.isReady) {
            continue;
        }
        if (player.logic->ended()) {
            throw std::runtime_error("the program is not started");
        }
        if (now() - m_started > m_patience) {
            throw std::runtime_error("the logic of " + player.logic->name() + " did not read its first line");
        }
        return false;
    }
    return true;
}

// ---- streams

void Logics::watch(std::size_t index, int descriptor, unsigned stream, std::uint32_t events) const {
    epoll_event event{.events = events, .data = {.u64 = index << 2U | stream}};
    if (::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, descriptor, &event) != 0 && errno == EEXIST) {
        ::epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, descriptor, &event);
    }
}

void Logics::serve() {
    std::array<epoll_event, 64> events{};
    const int count = ::epoll_wait(m_epoll.get(), events.data(), events.size(), 0);
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        if (event.data.u64 == bellKey) {
            std::uint64_t rung = 0;
            [[maybe_unused]] const ssize_t got = ::read(m_bell->get(), &rung, sizeof rung);
            for (std::size_t index = 0; index < m_players.size(); ++index) {
                flush(index);
            }
            continue;
        }
        const auto index = static_cast<std::size_t>(event.data.u64 >> 2U);
        switch (event.data.u64 & 3U) {
        case outputStream:
            readOutput(index);
            break;
        case errorStream:
            m_players[index].logic->readError();
            break;
        default:
            if ((event.events & EPOLLERR) != 0) {
                m_players[index].logic->closeInput(); // the command has closed it
            } else {
                flush(index);
            }
            break;
        }
    }
    runDue();
    for (std::size_t index = 0; index < m_players.size(); ++index) {
        Player& player = m_players[index];
        if (player.isPaused) {
            player.waitingAnswers =
                m_bus.with(player.number, [](const ReaderModel& model) { return model.waitingAnswers(); });
            choosePause(index);
        }
    }
    if (!m_ending) {
        startMore();
    }
}

void Logics::flush(std::size_t index) {
    Player& player = m_players[index];
    if (player.logic->flush()) {
        m_bus.with(player.number, [](ReaderModel& model) { model.advance(now()); });
    }
    setWriting(index, player.logic->hasWaiting());
}

void Logics::setWriting(std::size_t index, bool writing) {
    Player& player = m_players[index];
    const int input = player.logic->input();
    if (input >= 0 && writing != player.isWriting) {
        watch(index, input, inputStream, writing ? EPOLLOUT : 0U);
    }
    player.isWriting = writing;
}

void Logics::readOutput(std::size_t index) {
    m_players[index].logic->readOutput();
    takeLines(m_players[index]);
    choosePause(index);
}

// While it is paused, what waits for the program is looked at from time to time, because nothing reports that the program
// has read it.
void Logics::choosePause(std::size_t index) {
    const Player& player = m_players[index];
    setPaused(index, player.laterSize + player.waitingAnswers > mostPending);
}

void Logics::setPaused(std::size_t index, bool paused) {
    Player& player = m_players[index];
    const int output = player.logic->output();
    if (paused == player.isPaused || output < 0) {
        player.isPaused &= output >= 0;
        return;
    }
    if (paused) {
        ::epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, output, nullptr);
    } else {
        watch(index, output, outputStream, EPOLLIN);
    }
    player.isPaused = paused;
}

std::optional<Time> Logics::nextDeadline() const {
    std::optional<Time> earliest;
    for (const Player& player : m_players) {
        if (player.isPaused) {
            return now() + betweenLooks;
        }
        if (!player.later.empty()) {
            earliest = std::min(earliest.value_or(player.later.begin()->first), player.later.begin()->first);
        }
    }
    return earliest;
}

// ---- what the commands ask for

void Logics::takeLines(Player& player) {
    std::vector<LogicAction> actions;
    while (const std::optional<std::string> line = player.logic->takeLine()) {
        try {
            LogicAction action = parseLogicLine(*line, player.number);
            if (action.after.count() == 0) {
                actions.push_back(std::move(action));
            } else {
                player.laterSize += action.frame.size() + action.text.size() + actionSize;
                player.later.emplace(now() + action.after, std::move(action));
            }
        } catch (const TextError& error) {
            perform(player, std::exchange(actions, {})); // which report their mistakes first
            report(player, error.what(), *line);
        }
    }
    if (player.logic->tookTooLongLine()) {
        report(player, "a line of more than " + std::to_string(Logic::longestLine) + " bytes", "");
    }
    perform(player, std::move(actions));
}

void Logics::report(Player& player, const std::string& mistake, std::string_view line) {
    m_failed = true;
    if (player.mistakes >= mostMistakes) {
        return;
    }
    std::cerr << "gvusb-emulate: the logic of " << player.logic->name() << ": " << shown(mistake)
              << (line.empty() ? "" : ": ") << shown(line) << '\n';
    if (++player.mistakes == mostMistakes) {
        std::cerr << "gvusb-emulate: the logic of " << player.logic->name()
                  << ": no further mistakes are shown\n";
    }
}

void Logics::runDue() {
    for (std::size_t index = 0; index < m_players.size(); ++index) {
        Player& player = m_players[index];
        if (player.later.empty()) {
            continue;
        }
        std::vector<LogicAction> due;
        const auto end = player.later.upper_bound(now());
        for (auto each = player.later.begin(); each != end; ++each) {
            player.laterSize -= each->second.frame.size() + each->second.text.size() + actionSize;
            due.push_back(std::move(each->second));
        }
        player.later.erase(player.later.begin(), end);
        perform(player, std::move(due));
        choosePause(index);
    }
}

void Logics::perform(Player& player, std::vector<LogicAction> actions) {
    const auto isSend = [](const LogicAction& action) { return action.kind == LogicAction::Kind::send; };
    for (auto each = actions.begin(); each != actions.end();) {
        if (!isSend(*each)) {
            try {
                performOne(player, *each);
            } catch (const TextError& error) {
                report(player, error.what(), each->text);
            }
            ++each;
            continue;
        }
        // Frames in a row are sent together, because the bus is locked for each access.
        const auto end = std::find_if_not(each, actions.end(), isSend);
        m_bus.with(player.number, [&](ReaderModel& model) {
            const bool hasBulk =
                std::ranges::any_of(model.description().endpoints, [](const Endpoint& endpoint) {
                    return endpoint.in() && endpoint.type == TransferType::bulk;
                });
            for (; each != end; ++each) {
                model.push(each->byControl.value_or(!hasBulk), std::move(each->frame), now());
            }
            player.waitingAnswers = model.waitingAnswers();
        });
    }
}

void Logics::performOne(const Player& player, const LogicAction& action) {
    switch (action.kind) {
    case LogicAction::Kind::plug:
        if (!m_bus.plugged(player.number)) {
            m_bus.plug(player.number);
        }
        break;
    case LogicAction::Kind::unplug:
        if (m_bus.plugged(player.number)) {
            m_bus.unplug(player.number);
        }
        break;
    case LogicAction::Kind::stall:
        m_bus.with(player.number, [&](ReaderModel& model) {
            for (const Pipe pipe : pipesNamed(model.description(), action.text)) {
                model.stallNext(pipe, now());
            }
        });
        break;
    case LogicAction::Kind::command: {
        const CommandAnswer answer = runCommand(m_bus, action.text);
        if (answer.text.starts_with("error: ")) {
            throw TextError(answer.text.substr(7));
        }
        break;
    }
    case LogicAction::Kind::log:
        player.logic->print(action.text);
        break;
    case LogicAction::Kind::send:
        break;
    }
}

// ---- processes

bool Logics::has(pid_t process) const {
    return std::ranges::any_of(m_players,
                               [&](const Player& player) { return player.logic->process() == process; });
}

bool Logics::noteEnded(pid_t process) {
    const auto found = std::ranges::find_if(
        m_players, [&](const Player& player) { return player.logic->process() == process; });
    if (found == m_players.end()) {
        return false;
    }
    Player& player = *found;
    finish(player);
    m_failed = true;
    const std::string how =
        player.logic->failure().empty() ? "ended with exit status 0" : player.logic->failure();
    std::cerr << "gvusb-emulate: the logic of " << player.logic->name() << ' ' << how << '\n';
    if (m_bus.plugged(player.number)) {
        m_bus.unplug(player.number);
    }
    return true;
}

// Perform what the command has asked for before it ended, but nothing later.
void Logics::finish(Player& player) {
    player.logic->finish();
    takeLines(player);
    player.later.clear();
    player.laterSize = player.waitingAnswers = 0;
}

void Logics::endOne(Player& player, bool isLate) {
    Logic& logic = *player.logic;
    const bool ended = hasEnded(logic.process());
    if (!ended && !isLate) {
        if (!logic.hasWaiting()) {
            logic.closeInput();
        }
        return;
    }
    if (!ended) {
        std::cerr << "gvusb-emulate: killed the logic of " << logic.name()
                  << ", which did not end within 1 s of the end of its input\n";
    }
    finish(player);
    if (ended && !logic.failure().empty()) {
        m_failed = true;
        std::cerr << "gvusb-emulate: the logic of " << logic.name() << ' ' << logic.failure() << '\n';
    }
}

void Logics::end() {
    m_ending = true;
    const Time until = now() + moment;
    for (bool areLeft = true; areLeft;) {
        areLeft = false;
        for (Player& player : m_players) {
            if (!player.logic->ended()) {
                endOne(player, until <= now());
                areLeft |= !player.logic->ended();
            }
        }
        if (areLeft) {
            pollfd polled = {.fd = m_epoll.get(), .events = POLLIN, .revents = 0};
            ::poll(&polled, 1, 1);
            serve();
        }
    }
}

} // namespace emulator
