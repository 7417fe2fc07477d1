#include "manager/gvdrvhnd.h"

#include <algorithm>

namespace {

// Keep only the reports that are due, each device ID once, and add their device IDs to those reported.
template <class Report>
void keepUnreported(std::vector<Report>& reports, std::vector<unsigned int>& reported) {
    std::erase_if(reports, [&](const Report& report) {
        if (GVDrvHnd::IsInDevIds(&reported, report.devId)) {
            return true;
        }
        reported.push_back(report.devId);
        return false;
    });
}

} // namespace

void GVDrvHnd::ForgetReported() {
    m_ReportedConnects.clear();
    m_ReportedDisconnects.clear();
}

void GVDrvHnd::RecordKnown(unsigned int devId) {
    if (!m_ReportedSearch.find(m_ReportedConnects, [&](unsigned int id) { return id == devId; })) {
        m_ReportedConnects.push_back(devId);
    }
}

// Memory is reserved first: if it runs out, none of the reports is recorded.
void GVDrvHnd::RecordReports(Reports& reports) {
    m_ReportedDisconnects.reserve(m_ReportedDisconnects.size() + reports.disconnects.size());
    m_ReportedConnects.reserve(m_ReportedConnects.size() + reports.connects.size());
    keepUnreported(reports.disconnects, m_ReportedDisconnects);
    keepUnreported(reports.connects, m_ReportedConnects);
}

void GVDrvHnd::ToDevIds(std::vector<unsigned int>* ids, unsigned int id) {
    if (!IsInDevIds(ids, id)) {
        ids->push_back(id);
    }
}

bool GVDrvHnd::IsInDevIds(std::vector<unsigned int>* ids, unsigned int id) {
    return std::find(ids->begin(), ids->end(), id) != ids->end();
}
