#include "replay/recording.h"

#include "model/descriptors.h"
#include "model/model.h"
#include "replay/request_table.h"

#include <algorithm>
#include <cerrno>
#include <limits>

namespace emulator::replay {

namespace {

constexpr std::size_t deviceSize = 18;
constexpr std::size_t configurationSize = 9;
constexpr std::uint8_t interfaceType = 4;
constexpr std::uint8_t endpointType = 5;

// ---- descriptors

bool isWhole(const Bytes& configuration) {
    return configuration.size() >= configurationSize &&
           configuration.size() >= configuration[2] + std::size_t{256} * configuration[3];
}

// The active configuration comes first in what programs see of the emulator's readers only if the device has it first.
const Bytes* activeConfiguration(const capture::Device& device) {
    const Bytes* first = nullptr;
    for (const auto& [index, bytes] : device.configurations) {
        if (!isWhole(bytes)) {
            continue;
        }
        if (device.configuration && bytes[5] == *device.configuration) {
            return &bytes;
        }
        first = first == nullptr ? &bytes : first;
    }
    return first;
}

// The interfaces, and the endpoints of the first setting of the first one.
void describeInterfaces(ReaderDescription& reader, const Bytes& configuration) {
    reader.interfaces = configuration[4];
    reader.endpoints.clear();
    bool isFirst = false;
    bool found = false;
    for (std::size_t at = configurationSize; at + 2 <= configuration.size() && configuration[at] >= 2;
         at += configuration[at]) {
        const std::size_t left = configuration.size() - at;
        if (configuration[at + 1] == interfaceType && left >= 9) {
            isFirst = !found && configuration[at + 3] == 0;
            if (isFirst) {
                reader.firstInterface = configuration[at + 2];
                found = true;
            }
        } else if (configuration[at + 1] == endpointType && left >= 7 && isFirst) {
            reader.endpoints.push_back({.address = configuration[at + 2],
                                        .type = static_cast<TransferType>(configuration[at + 3] & 3),
                                        .packetSize = static_cast<std::uint16_t>(
                                            (configuration[at + 4] | configuration[at + 5] << 8) & 0x7FF)});
        }
    }
}

Speed speedOf(const capture::Device& device, const ReaderDescription& reader) {
    if (device.speed == "1.5") {
        return Speed::low;
    }
    if (device.speed == "12") {
        return Speed::full;
    }
    const bool isFast = std::ranges::any_of(reader.endpoints, [](const Endpoint& each) {
        return each.type == TransferType::bulk && each.packetSize > 64;
    });
    return !device.speed.empty() || isFast ? Speed::high : Speed::full;
}

void describeStrings(ReaderDescription& reader, const capture::Device& device) {
    reader.strings.clear();
    for (const auto& [key, descriptor] : device.strings) {
        if (key.second > 0 && key.second <= 255 && descriptor.size() >= 2) {
            reader.strings.try_emplace(static_cast<std::uint8_t>(key.second), capture::stringOf(descriptor));
        }
    }
    const auto learn = [&](std::size_t position, const std::string& text) {
        const std::uint8_t index = device.descriptor[position];
        if (index != 0 && !text.empty()) {
            reader.strings.try_emplace(index, text);
        }
    };
    learn(14, device.manufacturer);
    learn(15, device.product);
    learn(16, device.serial);
}

std::string placeOf(const capture::Device& device) {
    return "device " + std::to_string(device.address) + " of bus " + std::to_string(device.bus);
}

// Such as "1-2.3": the bus and the ports on the way from its root hub.
bool isName(const capture::Device& device) {
    const std::string bus = std::to_string(device.bus) + "-";
    if (!device.name.starts_with(bus)) {
        return false;
    }
    const std::vector<std::string> ports = splitEscaped(device.name.substr(bus.size()), '.');
    constexpr std::size_t mostHubs = 6;
    return ports.size() <= mostHubs && std::ranges::all_of(ports, [](const std::string& port) {
               return !port.empty() && port.size() < 4 && port.front() != '0' &&
                      port.find_first_not_of("0123456789") == std::string::npos;
           });
}

// ---- transfers

RecordedAnswer answerOf(const capture::Transfer& transfer, Duration after) {
    RecordedAnswer answer{.endpoint = transfer.type == capture::TransferType::control ? std::uint8_t{0}
                                                                                      : transfer.endpoint,
                          .after = std::max(after, Duration{0}),
                          .status = transfer.status,
                          .data = transfer.in,
                          .actual = transfer.actual};
    switch (transfer.status) {
    case -ENOENT:
    case -ECONNRESET:
    case -ESHUTDOWN:
    case -ENODEV:
    case -ETIMEDOUT:
        answer.pending = true;
        answer.status = 0;
        break;
    case -EREMOTEIO: // the host's wish, which it has again
        answer.status = 0;
        break;
    default:
        break;
    }
    return answer;
}

std::optional<HostAction> actionOf(capture::EventType type) {
    switch (type) {
    case capture::EventType::opened:
        return HostAction::open;
    case capture::EventType::claimed:
        return HostAction::claim;
    case capture::EventType::released:
        return HostAction::release;
    case capture::EventType::driverDetached:
        return HostAction::detachDriver;
    case capture::EventType::driverAttached:
        return HostAction::attachDriver;
    case capture::EventType::configurationSet:
        return HostAction::setConfiguration;
    case capture::EventType::interfaceSet:
        return HostAction::setInterface;
    case capture::EventType::reset:
        return HostAction::reset;
    case capture::EventType::haltCleared:
        return HostAction::clearHalt;
    default:
        return std::nullopt;
    }
}

unsigned numberIn(const capture::Json& details, const char* key) {
    const auto found = details.find(key);
    return found != details.end() && found->is_number_unsigned() ? found->get<unsigned>() : 0U;
}

class Preparation {
public:
    explicit Preparation(const capture::Capture& capture)
        : m_capture(capture) {}

    Recording run() {
        m_recording.name = m_capture.path;
        m_recording.notes = m_capture.notes;
        findStart();
        findReaders();
        if (m_recording.readers.empty()) {
            // Says what is missing.
            capture::requireReaders(m_capture, GVUSB_VENDOR_ID);
            throw capture::CaptureError(m_capture.path + ": no reader in it");
        }
        addTransfers();
        addEvents();
        for (RecordedReader& reader : m_recording.readers) {
            markUsual(reader);
        }
        addHappenings();
        return std::move(m_recording);
    }

private:
    static constexpr std::size_t none = std::numeric_limits<std::size_t>::max();

    // What is due in order of its position.
    struct Moment {
        enum class Kind { plugged, reset, asked, answered };
        Position position = 0;
        Kind kind = Kind::asked;
        std::size_t reader = 0;
        const capture::Transfer* transfer = nullptr;
        capture::Time time{0};
    };

    // The requests of a reader so far, and what came after the last of them.
    struct Progress {
        enum class After { beginning, request, reset } after = After::beginning;
        std::optional<capture::Time> since; // when it was
        std::map<std::uint8_t, Chain> chains;
    };

    void findStart() {
        std::optional<capture::Time> first;
        const auto consider = [&](std::optional<capture::Time> time) {
            if (time && (!first || *time < *first)) {
                first = time;
            }
        };
        for (const capture::Transfer& each : m_capture.transfers) {
            consider(each.submitted ? each.submitted : each.completed);
        }
        for (const capture::Event& each : m_capture.events) {
            consider(each.time);
        }
        m_start = first.value_or(capture::Time{0});
    }

    // ---- readers

    void findReaders() {
        m_readerOf.assign(m_capture.devices.size(), none);
        bool noPlace = false;
        for (std::size_t i = 0; i < m_capture.devices.size(); ++i) {
            const capture::Device& device = m_capture.devices[i];
            if (device.descriptor.size() < deviceSize || device.isHub()) {
                continue;
            }
            m_readerOf[i] = sameReader(i);
            if (m_readerOf[i] == none) {
                m_readerOf[i] = m_recording.readers.size();
                m_recording.readers.push_back({.description = describe(i),
                                               .requests = {},
                                               .standard = {},
                                               .beginnings = {},
                                               .afterResets = {},
                                               .results = {}});
                m_lives.push_back({i});
                noPlace |= m_recording.readers.back().description.place.empty();
            } else {
                m_lives[m_readerOf[i]].push_back(i);
                addAddress(m_recording.readers[m_readerOf[i]].description, device);
            }
        }
        const bool hasReader = std::ranges::any_of(m_recording.readers, [](const RecordedReader& each) {
            return each.description.vendor == GVUSB_VENDOR_ID;
        });
        if (!hasReader) {
            m_recording.readers.clear();
        } else if (noPlace) {
            m_recording.notes.emplace_back("the ports of readers are not in the capture, so they are chosen");
        }
    }

    // A device that returns is the same reader.
    std::size_t sameReader(std::size_t index) const {
        const capture::Device& device = m_capture.devices[index];
        for (std::size_t reader = 0; reader < m_lives.size(); ++reader) {
            const capture::Device& before = m_capture.devices[m_lives[reader].back()];
            const bool hasLeft = before.leftAt && *before.leftAt <= device.firstSeen;
            if (hasLeft && before.bus == device.bus && before.name == device.name &&
                before.descriptor == device.descriptor && before.serial == device.serial) {
                return reader;
            }
        }
        return none;
    }

    static void addAddress(ReaderDescription& reader, const capture::Device& device) {
        constexpr unsigned highest = 127;
        if (device.address >= 2 && device.address <= highest) {
            reader.addresses.push_back(static_cast<std::uint8_t>(device.address));
        }
    }

    ReaderDescription describe(std::size_t index) {
        const capture::Device& device = m_capture.devices[index];
        const Bytes& bytes = device.descriptor;
        ReaderDescription reader;
        reader.vendor = device.vendorId();
        reader.product = device.productId();
        reader.release = static_cast<std::uint16_t>(bytes[12] | bytes[13] << 8);
        reader.bus =
            device.bus >= 1 && device.bus <= 255 ? static_cast<std::uint8_t>(device.bus) : std::uint8_t{1};
        const auto isOnReader = [&](const RecordedReader& each) {
            const std::string& other = each.description.place;
            return !other.empty() &&
                   (device.name.starts_with(other + ".") || other.starts_with(device.name + "."));
        };
        if (isName(device) && std::ranges::none_of(m_recording.readers, isOnReader)) {
            reader.place = device.name;
        }
        addAddress(reader, device);
        reader.reply = ReplyRule::parse("none");
        reader.plugged = false;
        if (const Bytes* const active = activeConfiguration(device)) {
            describeInterfaces(reader, *active);
            reader.configurations.clear();
            Bytes all(bytes.begin(), bytes.begin() + deviceSize);
            for (const auto& [number, each] : device.configurations) {
                if (isWhole(each)) {
                    reader.configurations.push_back(each[5]);
                    all.insert(all.end(), each.begin(), each.end());
                }
            }
            // The first one is chosen when the reader is plugged in.
            const auto chosen = std::ranges::find(reader.configurations, (*active)[5]);
            std::iter_swap(reader.configurations.begin(), chosen);
            reader.descriptors = std::move(all);
        } else {
            guessEndpoints(reader, index);
            m_recording.notes.push_back("the configuration of " + placeOf(device) +
                                        " is not in the capture, so it is made from its transfers");
        }
        reader.speed = speedOf(device, reader);
        describeStrings(reader, device);
        // Only the first one tells whether a driver was there from the start.
        const auto detached = std::ranges::find_if(m_capture.events, [index](const capture::Event& each) {
            return each.device == index && each.type == capture::EventType::driverDetached;
        });
        if (detached != m_capture.events.end() && detached->result.value_or(-1) >= 0) {
            reader.kernelDriver = "usbhid"; // a recording has no name
        }
        return reader;
    }

    void guessEndpoints(ReaderDescription& reader, std::size_t index) const {
        reader.endpoints.clear();
        for (const capture::Transfer& each : m_capture.transfers) {
            const bool moves =
                each.type == capture::TransferType::bulk || each.type == capture::TransferType::interrupt;
            if (each.device == index && moves && (each.endpoint & 0x7F) != 0 &&
                std::ranges::find(reader.endpoints, each.endpoint, &Endpoint::address) ==
                    reader.endpoints.end()) {
                reader.endpoints.push_back({.address = each.endpoint,
                                            .type = each.type == capture::TransferType::bulk
                                                        ? TransferType::bulk
                                                        : TransferType::interrupt});
            }
        }
        std::ranges::sort(reader.endpoints, {}, &Endpoint::address);
    }

    // ---- transfers

    static bool readsFrame(const capture::Transfer& transfer) {
        return transfer.setup && (*transfer.setup)[0] == vendorIn && (*transfer.setup)[1] == frameRequest &&
               std::all_of(transfer.setup->begin() + 2, transfer.setup->begin() + 6,
                           [](std::uint8_t byte) { return byte == 0; });
    }

    static bool isControl(const capture::Transfer& transfer) {
        return transfer.type == capture::TransferType::control;
    }

    std::vector<Moment> moments() const {
        std::vector<Moment> result;
        for (std::size_t reader = 0; reader < m_lives.size(); ++reader) {
            for (const std::size_t life : m_lives[reader]) {
                const capture::Device& device = m_capture.devices[life];
                result.push_back({.position = device.cameAt.value_or(device.firstSeen),
                                  .kind = Moment::Kind::plugged,
                                  .reader = reader});
            }
        }
        for (const capture::Transfer& each : m_capture.transfers) {
            const std::size_t reader = m_readerOf[each.device];
            if (reader == none || each.fromKernelCopy || each.type == capture::TransferType::isochronous ||
                (isControl(each) && !each.setup)) {
                continue;
            }
            const bool reads = isControl(each) ? readsFrame(each) : each.isIn();
            if (!reads && each.submitted) {
                result.push_back({.position = each.submittedAt,
                                  .kind = Moment::Kind::asked,
                                  .reader = reader,
                                  .transfer = &each,
                                  .time = *each.submitted});
            } else if (reads && each.completed && !each.refused) {
                result.push_back({.position = each.completedAt,
                                  .kind = Moment::Kind::answered,
                                  .reader = reader,
                                  .transfer = &each,
                                  .time = *each.completed});
            }
        }
        for (const capture::Event& each : m_capture.events) {
            if (each.type == capture::EventType::reset && each.device && m_readerOf[*each.device] != none &&
                each.result.value_or(0) >= 0) {
                result.push_back({.position = each.at,
                                  .kind = Moment::Kind::reset,
                                  .reader = m_readerOf[*each.device],
                                  .time = each.time});
            }
        }
        std::ranges::stable_sort(result, {}, [](const Moment& each) {
            return std::pair(each.position, each.kind != Moment::Kind::plugged);
        });
        return result;
    }

    void addTransfers() {
        std::vector<Progress> progress(m_recording.readers.size());
        for (const Moment& each : moments()) {
            RecordedReader& reader = m_recording.readers[each.reader];
            Progress& state = progress[each.reader];
            switch (each.kind) {
            case Moment::Kind::plugged:
                reader.beginnings.emplace_back();
                state = {};
                break;
            case Moment::Kind::reset:
                reader.afterResets.emplace_back();
                state.after = Progress::After::reset;
                state.since = each.time;
                state.chains.clear();
                break;
            case Moment::Kind::asked:
                addRequest(reader, state, *each.transfer);
                break;
            case Moment::Kind::answered:
                addAnswer(reader, state, *each.transfer);
                break;
            }
        }
    }

    void addRequest(RecordedReader& reader, Progress& state, const capture::Transfer& transfer) {
        if (transfer.refused && transfer.status != -ENODEV) {
            return; // by the host, which does so again
        }
        if (!state.since) {
            state.since = transfer.submitted;
        }
        RecordedRequest request;
        request.position = transfer.submittedAt;
        request.time = *transfer.submitted - m_start;
        request.gone = transfer.refused;
        const Duration duration =
            transfer.completed ? *transfer.completed - *transfer.submitted : Duration{0};
        request.result = answerOf(transfer, duration);
        request.result.pending |= !transfer.completed;
        if (!transfer.isIn()) {
            request.length = transfer.requested;
            if (!transfer.redacted) {
                request.data = transfer.out;
            }
            request.data.resize(std::min(request.data.size(), request.length));
            request.whole = request.data.size() == request.length;
        }
        if (isControl(transfer)) {
            request.setup = *transfer.setup;
            if ((request.setup[0] & kindMask) == 0) {
                reader.standard.push_back(std::move(request));
                return;
            }
        } else {
            request.endpoint = transfer.endpoint;
            request.chain = state.chains[request.endpoint].next(request.data);
        }
        if (!request.gone) {
            state.after = Progress::After::request;
            state.since = transfer.submitted;
            m_requests.push_back({request.position, request.time});
        }
        reader.requests.push_back(std::move(request));
    }

    static void addAnswer(RecordedReader& reader, Progress& state, const capture::Transfer& transfer) {
        if (!state.since) {
            state.since = transfer.submitted.value_or(*transfer.completed);
        }
        RecordedAnswer answer = answerOf(transfer, *transfer.completed - *state.since);
        switch (state.after) {
        case Progress::After::beginning:
            reader.beginnings.back().push_back(std::move(answer));
            break;
        case Progress::After::request:
            lastMade(reader).answers.push_back(std::move(answer));
            break;
        case Progress::After::reset:
            reader.afterResets.back().push_back(std::move(answer));
            break;
        }
    }

    static RecordedRequest& lastMade(RecordedReader& reader) {
        return *std::ranges::find_if(reader.requests.rbegin(), reader.requests.rend(),
                                     [](const RecordedRequest& each) { return !each.gone; });
    }

    // Leave to the model what it answers in the same way.
    static void markUsual(RecordedReader& reader) {
        ReaderModel model(reader.description);
        for (RecordedRequest& each : reader.standard) {
            const bool in = (each.setup[0] & 0x80) != 0;
            if (!in) {
                each.byModel = each.result.status == 0 && !each.result.pending;
                continue;
            }
            const auto word = [&](std::size_t at) {
                return static_cast<std::uint16_t>(each.setup[at] | each.setup[at + 1] << 8);
            };
            constexpr std::uint8_t getDescriptor = 6;
            if (each.setup[1] != getDescriptor) {
                continue;
            }
            model.submit({.endpoint = 0,
                          .setup = {each.setup[0], each.setup[1], word(2), word(4), word(6)},
                          .capacity = word(6)},
                         {});
            const std::optional<Completion> usual = model.takeCompletion();
            each.byModel = usual && !each.result.pending &&
                           urbStatus(usual->outcome, 0) == each.result.status &&
                           usual->data == each.result.data;
        }
    }

    // ---- events

    void addEvents() {
        for (const capture::Event& each : m_capture.events) {
            const std::optional<HostAction> action = actionOf(each.type);
            if (!action || !each.device || m_readerOf[*each.device] == none || !each.result ||
                *each.result == -ENODEV || *each.result == -ENOENT) {
                continue;
            }
            unsigned number = 0;
            if (*action == HostAction::clearHalt) {
                number = numberIn(each.details, "endpoint");
            } else if (*action != HostAction::open && *action != HostAction::reset &&
                       *action != HostAction::setConfiguration) {
                number = numberIn(each.details, "interface");
            }
            m_recording.readers[m_readerOf[*each.device]].results[{*action, number}].push_back(
                static_cast<int>(std::clamp<std::int64_t>(*each.result, -4095, 0)));
        }
    }

    void addHappenings() {
        std::ranges::sort(m_requests);
        for (std::size_t reader = 0; reader < m_lives.size(); ++reader) {
            for (const std::size_t life : m_lives[reader]) {
                const capture::Device& device = m_capture.devices[life];
                if (device.came && !isThereAtStart(device)) {
                    addHappening(reader, true, *device.cameAt, *device.came);
                } else if (life == m_lives[reader].front()) {
                    m_recording.readers[reader].description.plugged = true;
                } else {
                    addHappening(reader, true, device.firstSeen, timeAt(device.firstSeen));
                }
                if (device.left) {
                    addHappening(reader, false, *device.leftAt, *device.left);
                }
            }
        }
        std::ranges::stable_sort(m_recording.happenings, {}, &Happening::position);
    }

    // A capture of usbmon does not tell when the program started: readers that came before any request were there.
    bool isThereAtStart(const capture::Device& device) const {
        return !m_capture.isRecording && (m_requests.empty() || *device.cameAt < m_requests.front().first);
    }

    capture::Time timeAt(Position position) const {
        for (const capture::Transfer& each : m_capture.transfers) {
            if (each.submitted && each.submittedAt >= position) {
                return *each.submitted;
            }
        }
        return m_start;
    }

    void addHappening(std::size_t reader, bool comes, Position position, capture::Time time) {
        const auto after = std::ranges::lower_bound(m_requests, std::pair(position, Duration{0}));
        const auto count = static_cast<std::size_t>(after - m_requests.begin());
        const Duration before = count == 0 ? Duration{0} : m_requests[count - 1].second;
        m_recording.happenings.push_back({.reader = reader,
                                          .comes = comes,
                                          .position = position,
                                          .requestsBefore = count,
                                          .after = std::max(time - m_start - before, Duration{0})});
    }

    const capture::Capture& m_capture;
    Recording m_recording;
    capture::Time m_start{0};
    std::vector<std::size_t> m_readerOf;                   // by device
    std::vector<std::vector<std::size_t>> m_lives;         // devices by reader
    std::vector<std::pair<Position, Duration>> m_requests; // of all readers: position and time
};

} // namespace

Recording recordingFrom(const capture::Capture& capture) {
    return Preparation(capture).run();
}

Recording readRecording(const std::filesystem::path& file) {
    return recordingFrom(capture::readCapture(file));
}

} // namespace emulator::replay
