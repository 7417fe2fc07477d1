// Changes the stand-in's bus at random: plugs, unplugs and replugs readers, injects failures, and calls
// libusb's callbacks for the changes.
//
// One thread may call step() and another one deliver(). Call the other functions only while both are idle.
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

    // Make one change.
    void step();

    // Call libusb's hot-plug callbacks for a pending change; false if there is none.
    bool deliver();

    // Clear all failures and deliver all pending changes.
    void calm();

    // The names of the plugged readers and of the last unplugged ones.
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
