// The stand-in's bus, changed at random all the time: readers come, go and come back, anything fails, and
// libusb's callbacks are called for it.
//
// step() belongs to one thread and deliver() to another; the rest is for quiet moments.
#pragma once

#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace stress {

class ChangingBus {
public:
    explicit ChangingBus(unsigned seed)
        : random_(seed) {}

    // One change.
    void step();

    // Calls libusb's hot-plug callbacks for a change that nobody has heard of; false when there is none.
    bool deliver();

    // Ends all failures and has every change heard of.
    void calm();

    // The readers on the bus and the last ones that were.
    std::vector<std::string> names() const;

private:
    struct Change {
        std::string name;
        bool arrived;
    };

    unsigned pick(unsigned below) { return static_cast<unsigned>(random_() >> 8) % below; }
    std::size_t anyPlugged() { return pick(static_cast<unsigned>(plugged_.size())); }
    std::string newName();
    void note(const std::string& name, bool arrived);
    void plug();
    void unplug();
    void replug();
    void fail();
    void disturb();

    std::minstd_rand random_;
    unsigned plugs_ = 0;
    std::vector<std::string> plugged_;
    std::deque<std::string> gone_;
    std::mutex mutex_; // guards changes_
    std::deque<Change> changes_;
    std::minstd_rand deliveries_{1};
};

} // namespace stress
