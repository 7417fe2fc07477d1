// Which readers are there, as far as has been told, and what to tell next.
//
// The library's reports alone do not suffice: a reader is reported once for each direction between two scans,
// in mode 2 a departure does not say whose it is, and what happens while a scan runs may be reported before
// or after it. A scan alone does not either: it does not see who went and came back meanwhile. So each batch
// of reports is set against what a scan has found after them.
#pragma once

#include <map>
#include <vector>

// What the library has reported.
struct Report {
    bool arrived;
    unsigned int id; // 0: not told
    int handle;      // 0: not told
};

// What is told to the user.
struct Change {
    bool connected;
    unsigned int id;
    int handle;

    bool operator==(const Change&) const = default;
};

class Presence {
public:
    using Ids = std::vector<unsigned int>;

    explicit Presence(const Ids& present);

    std::vector<Change> update(const std::vector<Report>& reports, const Ids& present);

    // Nothing has happened for a while: departures that are still without a reader were of something else.
    void settle() { unexplainedDepartures_ = 0; }

private:
    std::map<unsigned int, int> known_; // readers may have the same ID
    int unexplainedDepartures_ = 0;
};
