// The readers that are known to be present, and the changes to print next.
//
// The library's reports alone are not enough. Between two scans it reports a reader only once for each
// direction. In mode 2, a disconnect does not say which reader it was. A change during a scan may be reported
// before or after it. Scans alone are not enough either: they miss a reader that disconnects and comes back
// in between. So each batch of reports is compared with a scan that follows it.
#pragma once

#include <map>
#include <vector>

// A report of the library.
struct Report {
    bool arrived;
    unsigned int id; // 0 if unknown
    int handle;      // 0 if unknown
};

// A change to print.
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

    // Forget disconnects that still match no reader: they were of other devices.
    void settle() { m_unmatchedDepartures = 0; }

private:
    std::map<unsigned int, int> m_known; // how many readers have this ID
    int m_unmatchedDepartures = 0;
};
