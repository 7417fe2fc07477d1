#include "replay/request_table.h"

#include <algorithm>

namespace emulator::replay {

std::array<std::uint8_t, 8> setupBytes(const ControlSetup& setup) {
    const auto low = [](std::uint16_t value) { return static_cast<std::uint8_t>(value & 0xFF); };
    const auto high = [](std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8); };
    return {setup.requestType, setup.request,     low(setup.value),  high(setup.value),
            low(setup.index),  high(setup.index), low(setup.length), high(setup.length)};
}

bool isSame(const RecordedRequest& recorded, const Transfer& transfer) {
    if (recorded.endpoint != transfer.endpoint || recorded.length != transfer.data.size() ||
        (transfer.endpoint == 0 && recorded.setup != setupBytes(transfer.setup))) {
        return false;
    }
    return std::equal(recorded.data.begin(), recorded.data.end(), transfer.data.begin());
}

RequestTable::Key RequestTable::keyOf(const RecordedRequest& request) {
    Key key{.endpoint = request.endpoint, .setup = request.setup, .length = request.length, .data = {}};
    if (request.whole) {
        key.chain = request.chain;
        key.data = request.data;
    }
    return key;
}

void RequestTable::add(const RecordedRequest& request) {
    const Key key = keyOf(request);
    Occurrences& occurrences = request.whole ? m_whole[key] : m_partial[key][request.data];
    occurrences.requests.push_back(&request);
}

Occurrences* RequestTable::find(const Transfer& transfer, std::uint64_t chain) {
    Key key{
        .endpoint = transfer.endpoint, .chain = chain, .length = transfer.data.size(), .data = transfer.data};
    if (transfer.endpoint == 0) {
        key.setup = setupBytes(transfer.setup);
    }
    if (const auto found = m_whole.find(key); found != m_whole.end()) {
        return &found->second;
    }
    key.chain = 0;
    key.data.clear();
    const auto partial = m_partial.find(key);
    if (partial == m_partial.end()) {
        return nullptr;
    }
    // The longest beginning comes last.
    for (auto each = partial->second.rbegin(); each != partial->second.rend(); ++each) {
        const Bytes& beginning = each->first;
        if (std::equal(beginning.begin(), beginning.end(), transfer.data.begin())) {
            return &each->second;
        }
    }
    return nullptr;
}

void RequestTable::noteUsed(const RecordedRequest& request) {
    const Key key = keyOf(request);
    Occurrences& used = request.whole ? m_whole.at(key) : m_partial.at(key).at(request.data);
    while (used.next < used.requests.size() && used.requests[used.next]->position <= request.position) {
        ++used.next;
    }
}

} // namespace emulator::replay
