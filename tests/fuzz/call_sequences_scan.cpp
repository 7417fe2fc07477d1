// Scanning and the scan list.

#include "call_sequences_attempt.h"
#include "call_sequences_parameters.h"
#include "call_sequences_session.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace call_sequences {
namespace {

constexpr std::array options = {
    int{GVUSB_SCAN_ALL},
    int{GVUSB_SCAN_FIRST},
    int{GVUSB_SCAN_NEXT},
    int{GVUSB_SCAN_ALL_15},
    GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH,
    GVUSB_SCAN_FIRST | GVUSB_SCAN_SEARCH,
    GVUSB_SCAN_NEXT | GVUSB_SCAN_SEARCH,
    int{GVUSB_SCAN_NOTHING},
    GVUSB_SCAN_NOTHING | GVUSB_SCAN_SEARCH,
    0,
    4,
    16,
    -1,
    GVUSB_SCAN_NOTHING | GVUSB_SCAN_ALL,
};

// Fill the field with a text, which is not terminated if it is too long.
template <std::size_t Size>
void fill(char (&field)[Size], Input& input) {
    static constexpr std::array<const char*, 8> texts = {
        "A1",      "a2",
        "0xA3",    "0",
        "DESKTOP", "READER ONE",
        "",        "much longer than any of the fields, so that none has room for a terminating zero"};
    const char* const text = input.oneOf(texts);
    std::memcpy(field, text, std::min(Size, std::strlen(text) + 1));
}

std::unique_ptr<GVUSB_SCANSEARCH> chooseSearch(Input& input) {
    static constexpr std::array masks = {4, 1, 2, 6, 8, 0, -1, 7};
    if (input.number(4) == 0) {
        return nullptr;
    }
    auto search = std::make_unique<GVUSB_SCANSEARCH>();
    search->mask = input.oneOf(masks);
    fill(search->devId, input);
    search->devId[sizeof search->devId - 1] = '\0';
    fill(search->devName, input);
    fill(search->famName, input);
    return search;
}

bool isOpeningFailure(int code) {
    return code == GVUSB_ERR_CANNOT_OPEN || code == GVUSB_ERR_CONFIG_DESCRIPTOR_READ ||
           code == GVUSB_ERR_SET_CONFIGURATION;
}

void checkFound(const std::vector<Model::Found>& expected) {
    const manager_lists::Devices list = manager_lists::scanList();
    expectEqual(list.size(), expected.size(), "the number of readers found");
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (list[i] == nullptr) {
            expect(std::ranges::count(expected, expected[i].devId, &Model::Found::devId) > 1,
                   "an entry is empty without a replacement");
            continue;
        }
        expectEqual(list[i]->devId, expected[i].devId, "the device ID of an entry");
        expect(list[i]->usbdev == expected[i].usbDevice, "an entry is another device");
    }
}

// Check a new scan. `first`: the first entry is the current one afterwards.
void checkNewScan(Session& session, bool first, bool open, bool searched, std::optional<int> result,
                  const std::vector<Model::Found>& expected) {
    Model& model = session.model;
    ++model.scans;
    model.follow({.opens = open, .replaces = true, .collapses = true, .mayFailToOpen = session.mayFail()});
    if (!result) {
        expect(!first || session.model.cursor == manager_lists::scanCursor() ||
                   manager_lists::scanCursor() == 0,
               "the current entry is wrong");
        model.cursor = first ? manager_lists::scanCursor() : -1;
        return;
    }
    const bool found = *result != GVUSB_ERR_NO_DEVICE_FOUND;
    model.cursor = first && found ? 0 : -1;
    expect(found != manager_lists::scanList().empty(), "the result contradicts the scan list");
    if (!open) {
        expect(*result == 0 || !found, "a scan fails with an unknown code");
    } else if (first && found) {
        const bool emptied = manager_lists::scanList().front() == nullptr;
        expect(*result > 0                               ? model.findHandle(*result) != nullptr
               : *result == GVUSB_ERR_UNKNOWN_ERROR_CODE ? emptied
                                                         : isOpeningFailure(*result),
               "the first reader is not open, and the code is unknown");
    } else {
        expect(*result == 0 || !found || isOpeningFailure(*result), "opening all fails with an unknown code");
    }
    if (searched || session.mayFail()) {
        return;
    }
    checkFound(expected);
    if (open && found) {
        for (const Model::Found& reader : expected) {
            const bool opens = session.bus.find(reader.usbDevice)->opens;
            expect(first || !opens || reader.devId == 0 || model.findId(reader.devId) != nullptr,
                   "a reader was found but not opened");
        }
        expect(first || *result == 0 ||
                   std::ranges::any_of(expected,
                                       [&](const Model::Found& reader) {
                                           return !session.bus.find(reader.usbDevice)->opens;
                                       }),
               "opening all has failed for no reason");
    }
}

void checkNext(Session& session, bool open, std::optional<int> result) {
    Model& model = session.model;
    model.follow({.opens = open});
    const manager_lists::Devices list = manager_lists::scanList();
    if (model.cursor < 0) {
        expectEqual(result.value_or(GVUSB_ERR_NO_CURRENT_ENTRY), int{GVUSB_ERR_NO_CURRENT_ENTRY},
                    "the result");
        return;
    }
    const auto next = static_cast<std::size_t>(model.cursor) + 1;
    if (next >= list.size()) {
        model.cursor = result ? -1 : manager_lists::scanCursor();
        expectEqual(result.value_or(GVUSB_ERR_NO_DEVICE_FOUND), int{GVUSB_ERR_NO_DEVICE_FOUND}, "the result");
        return;
    }
    model.cursor = result ? static_cast<int>(next) : manager_lists::scanCursor();
    if (!result) {
        return;
    }
    if (!open) {
        expectEqual(*result, static_cast<int>(next), "the index of the next entry");
    } else if (list[next] == nullptr) {
        expectEqual(*result, int{GVUSB_ERR_UNKNOWN_ERROR_CODE}, "the result for an emptied entry");
    } else {
        const OpenReader* const reader = model.findHandle(*result);
        expect(reader != nullptr ? reader->devId == list[next]->devId : isOpeningFailure(*result),
               "the next reader is not open, and the code is unknown");
    }
}

void runScan(Session& session, bool open) {
    const int option = session.input.oneOf(options);
    const auto search = chooseSearch(session.input);
    const std::vector<Model::Found> expected = session.model.expectedScan();
    const auto result = attempt(session, [&] {
        return open ? GVUSB_ScanAndOpen(option, search.get()) : GVUSB_Scan(option, search.get());
    });
    const bool searched = (option & GVUSB_SCAN_SEARCH) != 0 && search != nullptr;
    switch (option & ~GVUSB_SCAN_SEARCH) {
    case GVUSB_SCAN_ALL:
    case GVUSB_SCAN_ALL_15:
        checkNewScan(session, false, open, searched, result, expected);
        break;
    case GVUSB_SCAN_FIRST:
        checkNewScan(session, true, open, searched, result, expected);
        break;
    case GVUSB_SCAN_NEXT:
        checkNext(session, open, result);
        break;
    case GVUSB_SCAN_NOTHING:
        expectEqual(result.value_or(0), 0, "the result of no scan");
        break;
    default:
        expectEqual(result.value_or(GVUSB_ERR_UNKNOWN_SCAN_OPTION), int{GVUSB_ERR_UNKNOWN_SCAN_OPTION},
                    "the result of an unknown option");
    }
    if (result) {
        expectLastError(std::min(*result, 0));
    }
}

} // namespace

void scan(Session& session) {
    runScan(session, false);
}

void scanAndOpen(Session& session) {
    runScan(session, true);
}

void getScanListPara(Session& session) {
    static constexpr std::array indexes = {
        0, 1, 2, 3, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), 6};
    const int index = session.input.oneOf(indexes);
    const ReadKey key(session.input);
    const ParameterValue value(session.input);
    const auto result =
        attempt(session, [&] { return GVUSB_GetScanListPara(index, key.text(), value.buffer()); });
    if (!result) {
        return;
    }
    expectLastError(*result);
    if (key.text() == nullptr || value.buffer() == nullptr) {
        expectEqual(*result, int{GVUSB_ERR_NULL_POINTER}, "the result for a null pointer");
        return;
    }
    const manager_lists::Devices list = manager_lists::scanList();
    const auto position = static_cast<std::size_t>(index);
    if (index < 0 || position >= list.size() || list[position] == nullptr) {
        expectEqual(*result, int{GVUSB_NO_SCAN_LIST_ENTRY}, "the result for no entry");
    } else {
        checkReading(session, *list[position], key, value, *result);
    }
}

void getScanListSize(Session& session) {
    const auto result = attempt(session, [] { return GVUSB_GetScanListSize(); });
    if (result) {
        expectEqual(static_cast<std::size_t>(*result), manager_lists::scanList().size(), "the list's size");
        expectLastError(GVUSB_OK);
    }
}

void clearScanList(Session& session) {
    const auto result = attempt(session, [] { return GVUSB_ClearScanList(); });
    expectEqual(result.value_or(-1), 0, "the result of clearing");
    expect(manager_lists::scanList().empty(), "the scan list is not empty");
    expectLastError(GVUSB_OK);
}

} // namespace call_sequences
