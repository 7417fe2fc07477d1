#include "commands/presence.h"

#include <algorithm>

namespace {

struct Tally {
    int known = 0;
    int present = 0;
    int arrivals = 0;
    int departures = 0;
    int handle = 0; // of the departure
};

} // namespace

Presence::Presence(const Ids& present) {
    for (const unsigned int id : present) {
        ++m_known[id];
    }
}

std::vector<Change> Presence::update(const std::vector<Report>& reports, const Ids& present) {
    std::map<unsigned int, Tally> tallies;
    for (const auto& [id, count] : m_known) {
        tallies[id].known = count;
    }
    for (const unsigned int id : present) {
        ++tallies[id].present;
    }
    for (const Report& report : reports) {
        if (report.id == 0) {
            m_unmatchedDepartures += report.arrived ? 0 : 1;
            continue;
        }
        Tally& tally = tallies[report.id];
        ++(report.arrived ? tally.arrivals : tally.departures);
        if (!report.arrived) {
            tally.handle = report.handle;
        }
    }

    std::vector<Change> gone;
    std::vector<Change> came;
    std::vector<Change> blinked; // twice changed between two scans
    for (const auto& [id, tally] : tallies) {
        const Change departure{.connected = false, .id = id, .handle = tally.handle};
        const Change arrival{.connected = true, .id = id, .handle = 0};
        for (int i = tally.present; i < tally.known; ++i) {
            gone.push_back(departure);
            --m_unmatchedDepartures;
        }
        for (int i = tally.known; i < tally.present; ++i) {
            came.push_back(arrival);
        }
        if (tally.known != tally.present) {
            continue;
        }
        if (tally.known == 0) {
            // Connected and disconnected before the scan.
            if (tally.arrivals > 0) {
                blinked.insert(blinked.end(), {arrival, departure});
                --m_unmatchedDepartures;
            }
            continue;
        }
        // Disconnected and connected before the scan. A lone arrival counts only if a departure has no reader
        // yet.
        int times = tally.departures;
        if (times == 0) {
            times = std::min(tally.arrivals, std::max(m_unmatchedDepartures, 0));
            m_unmatchedDepartures -= times;
        }
        for (int i = 0; i < times; ++i) {
            blinked.insert(blinked.end(), {departure, arrival});
        }
    }

    m_known.clear();
    for (const unsigned int id : present) {
        ++m_known[id];
    }
    std::vector<Change> changes = std::move(gone);
    changes.insert(changes.end(), blinked.begin(), blinked.end());
    changes.insert(changes.end(), came.begin(), came.end());
    return changes;
}
