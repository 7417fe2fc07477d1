// Explores the schedules of calls that run at the same time. See --help.

#include "cases.h"
#include "deciders.h"
#include "gvusb.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <random>
#include <set>

#include <CLI/CLI.hpp>
#include <sched.h>
#include <unistd.h>

// Present if the program is built with a sanitizer.
extern "C" [[gnu::weak]] void __sanitizer_set_death_callback(void (*callback)());

// What the library reads while the program is loaded.
extern "C" const char* gvusbTestInitialConfiguration() {
    return "nopnp";
}

namespace {

using namespace schedules;

struct Options {
    std::string pattern;
    Mode mode = Mode::usual;
    std::string schedule;
    unsigned preemptions = 1;
    std::uint64_t mostSchedules = UINT64_MAX; // of each case
    std::size_t every = 1;
    std::size_t from = 0;
    std::uint64_t seed = 0;
    std::uint64_t seeds = 0;
    double minutes = 0;
};

class Explorer {
public:
    explicit Explorer(const Options& options)
        : options_(options) {}

    // Every schedule of a case.
    void explore(const Case& which) {
        begin(which);
        EverySchedule every(options_.preemptions);
        std::uint64_t left = options_.mostSchedules;
        do {
            run(every, [&] { return "--schedule '" + every.text() + "'"; });
        } while (--left > 0 && every.next());
    }

    void exploreSeeds(const Case& which, std::uint64_t seed, std::uint64_t count) {
        begin(which);
        for (const std::uint64_t end = seed + count; seed != end; ++seed) {
            RandomSchedule random(seed);
            run(random, [&] { return "--seed " + std::to_string(seed); });
        }
    }

    void repeat(const Case& which) {
        begin(which);
        WrittenSchedule written(options_.schedule);
        const Seen seen = run(written, [&] { return "--schedule '" + options_.schedule + "'"; });
        std::printf("%s\n", text(which, seen).c_str());
    }

    void printRepetition() const {
        if (which_ != nullptr) {
            std::fprintf(stderr, "repeat it: gvusb_schedules%s --case '%s' %s\n",
                         options_.mode == Mode::parallel ? " --parallel" : "", which_->name().c_str(),
                         how_().c_str());
        }
    }

    void printSummary() const {
        std::printf("%s mode: %zu cases, %llu schedules, %llu failures, %.1f s\n",
                    options_.mode == Mode::parallel ? "parallel" : "default", begun_.size(),
                    static_cast<unsigned long long>(runs_), static_cast<unsigned long long>(failures_),
                    seconds());
        std::fflush(stdout);
    }

    // Since the start.
    [[nodiscard]] double seconds() const { return now() - start_; }

    [[nodiscard]] bool failed() const { return failures_ != 0; }

private:
    // In real time, also inside a run.
    static double now() {
        timespec time = {};
        clock_gettime(CLOCK_MONOTONIC_RAW, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }

    using How = std::function<std::string()>; // how to repeat a run

    void begin(const Case& which) {
        if (which_ == &which) {
            return;
        }
        which_ = &which;
        begun_.insert(&which);
        reported_.clear();
        inOrder_.clear();
        nextChange_ = 0;
        libusbCalls_ = 0;
        addInOrder(SIZE_MAX);
    }

    // Add what the program sees when the calls run one after the other.
    void addInOrder(std::size_t changeAt) {
        EverySchedule every(0);
        do {
            how_ = [] { return std::string("--preemptions 0"); };
            const Model model = {.changeAt = changeAt, .inOrder = true};
            const Run result = runOnce(*which_, options_.mode, every, stuck(), model);
            ++runs_;
            libusbCalls_ = std::max(libusbCalls_, result.libusbCalls);
            inOrder_.insert(result.seen);
            report(result.mistakes);
        } while (every.next());
    }

    // The bus changes by itself, also in the middle of a call. These runs are many: add them when one is missing.
    bool isInOrder(const Seen& seen) {
        while (!isKnown(seen)) {
            if (which_->beside == Beside::nothing || nextChange_ >= libusbCalls_) {
                return false;
            }
            addInOrder(nextChange_++);
        }
        return true;
    }

    bool isKnown(const Seen& seen) const {
        return inOrder_.contains(seen) ||
               (options_.mode == Mode::parallel && (isKnownButClosed(seen) || isKnownButCanceled(seen)));
    }

    // A call on a reader that is closed meanwhile is like one on an unknown handle, with another code.
    bool isKnownButClosed(const Seen& seen) const {
        const std::array<const Call*, 2> both = {which_->first, which_->second};
        for (std::size_t i = 0; i < both.size(); ++i) {
            const std::size_t at = both[i]->whenClosed != nullptr ? seen.results[i].find(both[i]->whenClosed)
                                                                  : std::string::npos;
            if (at != std::string::npos) {
                Seen unknown = seen;
                unknown.results[i].replace(at, std::strlen(both[i]->whenClosed),
                                           std::to_string(GVUSB_ERR_HANDLE_NOT_FOUND));
                if (inOrder_.contains(unknown)) {
                    return true;
                }
            }
        }
        return false;
    }

    // A call that is canceled fails; apart from this it is like one that is not. A reader makes one call at a time, so one "CANCEL" ends
    // one call.
    bool isKnownButCanceled(const Seen& seen) const {
        const std::array<const Call*, 2> both = {which_->first, which_->second};
        for (std::size_t i = 0; i < both.size(); ++i) {
            if (both[i]->canBeEnded && both[1 - i]->endsCalls && failedTransfers(seen.results[i]) == 1) {
                return std::ranges::any_of(inOrder_, [&](Seen each) {
                    each.results[i] = seen.results[i];
                    return each == seen;
                });
            }
        }
        return false;
    }

    static std::size_t failedTransfers(const std::string& result) {
        std::size_t count = 0;
        for (const int code : {GVUSB_ERR_BULK_TRANSFER, GVUSB_ERR_CONTROL_TRANSFER}) {
            const std::string text = std::to_string(code);
            for (std::size_t at = result.find(text); at != std::string::npos;
                 at = result.find(text, at + 1)) {
                ++count;
            }
        }
        return count;
    }

    Seen run(Decider& decider, const How& how) {
        how_ = how;
        const Run result = runOnce(*which_, options_.mode, decider, stuck());
        ++runs_;
        report(result.mistakes);
        if (!isInOrder(result.seen)) {
            std::string all = "no order of the calls gives\n  " + text(*which_, result.seen) + "\nbut only";
            for (const Seen& each : inOrder_) {
                all += "\n  " + text(*which_, each);
            }
            how_ = how;
            report(all);
        }
        return result.seen;
    }

    // Each failure of a case once.
    void report(const std::string& what) {
        if (what.empty()) {
            return;
        }
        ++failures_;
        if (reported_.insert(what).second) {
            std::fprintf(stderr, "%s\n%s\n", which_->name().c_str(), what.c_str());
            printRepetition();
        }
    }

    StuckHandler stuck() {
        return [this](const std::string& why) {
            report(why);
            printSummary();
            _exit(1);
        };
    }

    const Options& options_;
    const Case* which_ = nullptr;
    std::set<Seen> inOrder_;
    std::size_t libusbCalls_ = 0; // in the longest run
    std::size_t nextChange_ = 0;  // the bus changes before this call in the next run that is added
    std::set<std::string> reported_;
    How how_;
    std::set<const Case*> begun_;
    std::uint64_t runs_ = 0;
    std::uint64_t failures_ = 0;
    const double start_ = now();
};

Explorer* explorerInUse = nullptr;

std::vector<const Case*> chosenCases(const Options& options) {
    std::vector<const Case*> chosen;
    std::size_t index = 0;
    for (const Case& which : cases()) {
        if (which.name() == options.pattern) {
            return {&which};
        }
        if (which.name().find(options.pattern) != std::string::npos &&
            index++ % options.every == options.from) {
            chosen.push_back(&which);
        }
    }
    return chosen;
}

// Random schedules of the cases in random order, until the time is over.
void exploreFor(Explorer& explorer, std::vector<const Case*> chosen, double minutes) {
    constexpr std::uint64_t seedsOfCase = 128;
    std::mt19937_64 numbers(std::random_device{}());
    while (true) {
        std::ranges::shuffle(chosen, numbers);
        for (const Case* which : chosen) {
            if (explorer.seconds() >= minutes * 60) {
                return;
            }
            explorer.exploreSeeds(*which, numbers() % 1'000'000'000, seedsOfCase);
        }
    }
}

// One thread runs at a time, and waking the next one takes half as long on the same processor. Leave the choice to chance, so
// that several of these programs do not share one.
void stayOnOneProcessor() {
    cpu_set_t permitted;
    if (sched_getaffinity(0, sizeof permitted, &permitted) != 0) {
        return;
    }
    int skipped = getpid() % CPU_COUNT(&permitted);
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &permitted) && skipped-- == 0) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(processor, &one);
            sched_setaffinity(0, sizeof one, &one);
            return;
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    stayOnOneProcessor();
    Options options;
    bool parallel = false;
    CLI::App app("Run calls of the library at the same time, in every order.");
    app.add_option("--case", options.pattern, "only cases whose names contain this");
    app.add_option("--preemptions", options.preemptions, "how often a thread is preempted at most")
        ->capture_default_str();
    app.add_option("--most", options.mostSchedules, "how many schedules of each case at most");
    app.add_option("--every", options.every, "only every N-th case");
    app.add_option("--from", options.from, "the first of them, from 0");
    app.add_option("--seed", options.seed, "the random schedule of this seed");
    app.add_option("--seeds", options.seeds, "so many random schedules of each case, from --seed on");
    app.add_option("--minutes", options.minutes, "random schedules of cases in random order for so long");
    app.add_option("--schedule", options.schedule, "repeat this schedule");
    app.add_flag("--parallel", parallel, "switch parallel mode on");
    CLI11_PARSE(app, argc, argv);
    if (parallel) {
        options.mode = Mode::parallel;
    }
    const std::vector<const Case*> chosen = chosenCases(options);
    if (chosen.empty()) {
        std::fprintf(stderr, "no such case\n");
        return 2;
    }
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback([] {
            explorerInUse->printRepetition();
            explorerInUse->printSummary();
        });
    }
    Explorer explorer(options);
    explorerInUse = &explorer;
    unloadFirst();
    if (app.count("--schedule") > 0) {
        explorer.repeat(*chosen.front());
    } else if (options.minutes > 0) {
        exploreFor(explorer, chosen, options.minutes);
    } else {
        const bool random = app.count("--seed") > 0 || options.seeds > 0;
        for (const Case* which : chosen) {
            if (random) {
                explorer.exploreSeeds(*which, options.seed, std::max<std::uint64_t>(options.seeds, 1));
            } else {
                explorer.explore(*which);
            }
        }
    }
    loadLast();
    explorer.printSummary();
    return explorer.failed() ? 1 : 0;
}
