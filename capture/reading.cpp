#include "capture/capture.h"
#include "capture/pcapng_extras.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <unordered_map>

#include <pcap/pcap.h>
#include <pcap/usb.h>

namespace capture {

namespace {

constexpr std::uint8_t getDescriptor = 6;
constexpr std::uint8_t setAddress = 5;
constexpr std::uint8_t setConfiguration = 9;
constexpr std::uint8_t standardIn = 0x80;
constexpr std::uint8_t standardOut = 0;
constexpr unsigned deviceDescriptor = 1;
constexpr unsigned configurationDescriptor = 2;
constexpr unsigned stringDescriptor = 3;
constexpr std::size_t shortHeaderSize = 48; // of link type 189

struct Handle {
    explicit Handle(std::span<const std::uint8_t> file, const std::string& name) {
        if (file.empty()) {
            throw CaptureError(name + ": is empty, not a capture");
        }
        // Opened for reading only.
        std::FILE* const stream = ::fmemopen(const_cast<std::uint8_t*>(file.data()), file.size(), "rb");
        if (stream == nullptr) {
            throw std::bad_alloc();
        }
        std::array<char, PCAP_ERRBUF_SIZE> error{};
        pcap.reset(
            ::pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, error.data()));
        if (!pcap) {
            std::fclose(stream);
            throw CaptureError(name +
                               ": is not a capture (pcap or pcapng) that can be read: " + error.data());
        }
    }

    struct Close {
        void operator()(pcap_t* opened) const { ::pcap_close(opened); }
    };
    std::unique_ptr<pcap_t, Close> pcap;
};

void checkLinkType(pcap_t* pcap, const std::string& name) {
    const int type = ::pcap_datalink(pcap);
    if (type == DLT_USB_LINUX || type == DLT_USB_LINUX_MMAPPED) {
        return;
    }
    const char* const description = ::pcap_datalink_val_to_description(type);
    const std::string what = description != nullptr ? description : "something unknown";
    throw CaptureError(name + ": holds " + what + " (link type " + std::to_string(type) +
                       "), not the USB transfers of Linux (189 or 220)");
}

std::string counted(std::size_t count, const std::string& one, const std::string& many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string textOf(const Json& remark, const char* key) {
    const auto found = remark.find(key);
    return found != remark.end() && found->is_string() ? found->get<std::string>() : std::string{};
}

std::optional<std::int64_t> numberOf(const Json& remark, const char* key) {
    const auto found = remark.find(key);
    return found != remark.end() && found->is_number_integer() ? std::optional(found->get<std::int64_t>())
                                                               : std::nullopt;
}

// Puts packets and remarks together, in the order of the file.
class Reading {
public:
    Reading(std::span<const std::uint8_t> file, const std::string& name)
        : m_handle(file, name)
        , m_extras(readExtras(file)) {
        m_capture.path = name;
        checkLinkType(m_handle.pcap.get(), name);
    }

    Capture read() {
        for (;;) {
            addRemarksBefore(m_capture.packets);
            pcap_pkthdr* header = nullptr;
            const u_char* data = nullptr;
            const int result = ::pcap_next_ex(m_handle.pcap.get(), &header, &data);
            if (result != 1) {
                noteEnd(result);
                break;
            }
            addPacket(*header, {data, header->caplen});
            ++m_capture.packets;
        }
        addRemarksBefore(SIZE_MAX);
        if (m_usable == 0 && !m_capture.isRecording) {
            throw CaptureError(m_capture.path + ": no USB transfer in it");
        }
        addNotes();
        return std::move(m_capture);
    }

private:
    using Key = std::pair<unsigned, unsigned>;

    void noteEnd(int result) {
        if (result != PCAP_ERROR_BREAK) {
            m_capture.notes.push_back(std::string("the file is damaged or truncated: ") +
                                      ::pcap_geterr(m_handle.pcap.get()));
        }
    }

    // ---- devices

    std::size_t newDevice(const Key& key) {
        Device& device = m_capture.devices.emplace_back();
        device.bus = key.first;
        device.address = key.second;
        device.firstSeen = m_position;
        const std::size_t index = m_capture.devices.size() - 1;
        m_present[key] = index;
        m_gone.erase(key);
        return index;
    }

    std::size_t presentAt(const Key& key) {
        const auto found = m_present.find(key);
        return found != m_present.end() ? found->second : newDevice(key);
    }

    // One that has left still fails transfers, and is closed.
    std::size_t deviceAt(const Key& key) {
        const auto gone = m_gone.find(key);
        return gone != m_gone.end() ? gone->second : presentAt(key);
    }

    void noteLeft(const Key& key, Time time) {
        const auto found = m_present.find(key);
        if (found != m_present.end()) {
            m_capture.devices[found->second].left = time;
            m_capture.devices[found->second].leftAt = m_position;
            m_gone[key] = found->second;
            m_present.erase(found);
        }
    }

    std::size_t noteCame(const Key& key, Time time) {
        noteLeft(key, time);
        const std::size_t index = newDevice(key);
        m_capture.devices[index].came = time;
        m_capture.devices[index].cameAt = m_position;
        return index;
    }

    // Only another device can answer after one has left: nobody was told that it came.
    void noteAnswer(Transfer& transfer) {
        const Device& device = m_capture.devices[transfer.device];
        if (device.leftAt && transfer.submitted && transfer.submittedAt > *device.leftAt &&
            transfer.status == 0) {
            transfer.device = presentAt({device.bus, device.address});
        }
    }

    // What a completed control transfer tells about its device. Returns the device, which is another one if this one
    // has replaced it unseen.
    std::size_t learn(const Transfer& transfer) {
        const SetupPacket& setup = *transfer.setup;
        const unsigned index = setup[2];
        if (transfer.status != 0) {
            return transfer.device;
        }
        const Key key(m_capture.devices[transfer.device].bus, m_capture.devices[transfer.device].address);
        if (setup[0] == standardOut && setup[1] == setAddress && index != 0) {
            noteCame({key.first, index}, *transfer.completed);
        } else if (setup[0] == standardOut && setup[1] == setConfiguration) {
            m_capture.devices[transfer.device].configuration = index;
        } else if (setup[0] == standardIn && setup[1] == getDescriptor && transfer.in.size() > 1) {
            return learnDescriptor(transfer, setup[3], index);
        }
        return transfer.device;
    }

    std::size_t learnDescriptor(const Transfer& transfer, unsigned type, unsigned index) {
        std::size_t device = transfer.device;
        const auto keepLonger = [&transfer](Bytes& kept) {
            if (kept.size() < transfer.in.size()) {
                kept = transfer.in;
            }
        };
        if (type == deviceDescriptor) {
            Bytes& known = m_capture.devices[device].descriptor;
            const std::size_t common = std::min(known.size(), transfer.in.size());
            const bool differs = !std::equal(
                known.begin(), known.begin() + static_cast<std::ptrdiff_t>(common), transfer.in.begin());
            if (differs) {
                const Key key(m_capture.devices[device].bus, m_capture.devices[device].address);
                device = noteCame(key, *transfer.completed);
            }
            keepLonger(m_capture.devices[device].descriptor);
        } else if (type == configurationDescriptor) {
            keepLonger(m_capture.devices[device].configurations[index]);
        } else if (type == stringDescriptor) {
            const unsigned language = (*transfer.setup)[4] | unsigned{(*transfer.setup)[5]} << 8;
            keepLonger(m_capture.devices[device].strings[{language, index}]);
        }
        return device;
    }

    // ---- packets

    void addPacket(const pcap_pkthdr& header, std::span<const std::uint8_t> packet) {
        const bool isLong = ::pcap_datalink(m_handle.pcap.get()) == DLT_USB_LINUX_MMAPPED;
        const std::size_t headerSize = isLong ? sizeof(pcap_usb_header_mmapped) : shortHeaderSize;
        if (packet.size() < headerSize) {
            ++m_short;
            return;
        }
        pcap_usb_header_mmapped usb{};
        std::memcpy(&usb, packet.data(), headerSize);
        packet = packet.subspan(headerSize);
        if (isLong && usb.ndesc != 0) {
            const std::size_t descriptors = std::size_t{usb.ndesc} * sizeof(usb_isodesc);
            packet = packet.subspan(std::min(descriptors, packet.size()));
        }
        packet = packet.first(std::min<std::size_t>(packet.size(), usb.data_len));
        if (usb.transfer_type > static_cast<std::uint8_t>(TransferType::bulk)) {
            ++m_odd;
            return;
        }
        constexpr auto most = std::chrono::duration_cast<std::chrono::seconds>(latest).count();
        const Time time = std::chrono::seconds(std::clamp<std::int64_t>(header.ts.tv_sec, 0, most)) +
                          Time(header.ts.tv_usec);
        switch (usb.event_type) {
        case static_cast<std::uint8_t>(PacketKind::submission):
            submit(usb, time, packet);
            break;
        case static_cast<std::uint8_t>(PacketKind::completion):
        case static_cast<std::uint8_t>(PacketKind::submissionError):
            complete(usb, time, packet);
            break;
        default:
            ++m_odd;
            return;
        }
        ++m_usable;
        ++m_position;
    }

    std::string_view comment() {
        const auto& comments = m_extras.comments;
        while (m_nextComment < comments.size() && comments[m_nextComment].packet < m_capture.packets) {
            ++m_nextComment;
        }
        return m_nextComment < comments.size() && comments[m_nextComment].packet == m_capture.packets
                   ? comments[m_nextComment].text
                   : std::string_view{};
    }

    Transfer transferOf(const pcap_usb_header_mmapped& usb) {
        Transfer transfer;
        transfer.id = usb.id;
        transfer.device = deviceAt({usb.bus_id, usb.device_address});
        transfer.type = static_cast<TransferType>(usb.transfer_type);
        transfer.endpoint = usb.endpoint_number;
        return transfer;
    }

    void addComment(Transfer& transfer) {
        const std::string_view text = comment();
        transfer.redacted |= text == redactedComment;
        transfer.fromKernelCopy |= text == kernelCopyComment;
    }

    void submit(const pcap_usb_header_mmapped& usb, Time time, std::span<const std::uint8_t> data) {
        Transfer transfer = transferOf(usb);
        transfer.submitted = time;
        transfer.submittedAt = m_position;
        transfer.requested = usb.urb_len;
        if (transfer.type == TransferType::control && usb.setup_flag == 0) {
            SetupPacket setup;
            std::memcpy(setup.data(), &usb.s.setup, setup.size());
            transfer.setup = setup;
        }
        if (!transfer.isIn()) {
            transfer.out.assign(data.begin(), data.end());
            m_cut += data.size() < transfer.requested ? 1 : 0;
        }
        addComment(transfer);
        if (!m_pending.insert_or_assign(usb.id, m_capture.transfers.size()).second) {
            ++m_forgotten;
        }
        m_capture.transfers.push_back(std::move(transfer));
    }

    void complete(const pcap_usb_header_mmapped& usb, Time time, std::span<const std::uint8_t> data) {
        const auto pending = m_pending.find(usb.id);
        std::size_t index = m_capture.transfers.size();
        if (pending != m_pending.end()) {
            index = pending->second;
            m_pending.erase(pending);
        } else {
            ++m_begunBefore;
            m_capture.transfers.push_back(transferOf(usb));
        }
        Transfer& transfer = m_capture.transfers[index];
        transfer.completed = time;
        transfer.completedAt = m_position;
        transfer.status = usb.status;
        transfer.refused = usb.event_type == static_cast<std::uint8_t>(PacketKind::submissionError);
        transfer.actual = transfer.refused ? 0 : usb.urb_len;
        if (transfer.isIn()) {
            transfer.in.assign(data.begin(), data.end());
            m_cut += data.size() < transfer.actual ? 1 : 0;
        }
        addComment(transfer);
        noteAnswer(transfer);
        if (transfer.setup) {
            transfer.device = learn(transfer);
        }
    }

    // ---- remarks

    void addRemarksBefore(std::size_t packet) {
        const auto& remarks = m_extras.remarks;
        for (; m_nextRemark < remarks.size() && remarks[m_nextRemark].packetsBefore <= packet;
             ++m_nextRemark) {
            addRemark(remarks[m_nextRemark]);
            ++m_position;
        }
    }

    void addRemark(const Extras::Remark& remark) {
        m_capture.isRecording = true;
        const std::string type = textOf(remark.value, "type");
        std::optional<std::size_t> device;
        const std::optional<std::int64_t> bus = numberOf(remark.value, "bus");
        const std::optional<std::int64_t> address = numberOf(remark.value, "address");
        if (bus && address && *bus >= 0 && *bus <= UINT16_MAX && *address >= 0 && *address <= UINT8_MAX) {
            const Key key(static_cast<unsigned>(*bus), static_cast<unsigned>(*address));
            // One that was opened before it left may be noted after that.
            device = type == "came"     ? noteCame(key, remark.time)
                     : type == "device" ? presentAt(key)
                                        : deviceAt(key);
            if (type == "left") {
                noteLeft(key, remark.time);
            }
        }
        if (type == "device") {
            if (device) {
                describe(m_capture.devices[*device], remark.value);
            }
            return;
        }
        if (type == "return") {
            addReturn(remark);
            return;
        }
        addEvent(remark, type, device);
    }

    static void describe(Device& device, const Json& facts) {
        const auto learnText = [&facts](std::string& known, const char* key) {
            if (std::string text = textOf(facts, key); !text.empty()) {
                known = std::move(text);
            }
        };
        learnText(device.name, "name");
        learnText(device.speed, "speed");
        learnText(device.manufacturer, "manufacturer");
        learnText(device.product, "product");
        learnText(device.serial, "serial");
        if (const auto value = numberOf(facts, "configuration")) {
            device.configuration = static_cast<unsigned>(*value);
        }
    }

    void addEvent(const Extras::Remark& remark, const std::string& type, std::optional<std::size_t> device) {
        Event event;
        event.type = eventType(type);
        event.time = remark.time;
        event.at = m_position;
        event.device = device;
        event.result = numberOf(remark.value, "result");
        event.process = numberOf(remark.value, "process").value_or(0);
        event.thread = numberOf(remark.value, "thread").value_or(0);
        event.function = textOf(remark.value, "function");
        event.arguments = textOf(remark.value, "arguments");
        event.details = remark.value;
        if (event.type == EventType::call) {
            m_running[{event.process, event.thread}].push_back(m_capture.events.size());
        }
        m_ended |= event.type == EventType::end;
        noteMissing(event);
        m_capture.events.push_back(std::move(event));
    }

    void noteMissing(const Event& event) {
        if (event.type == EventType::limitReached) {
            m_capture.notes.emplace_back("the recording reached its largest size and stopped there");
        } else if (event.type == EventType::lost) {
            m_capture.notes.push_back("the recorder lost " +
                                      counted(static_cast<std::size_t>(std::max<std::int64_t>(
                                                  numberOf(event.details, "count").value_or(0), 0)),
                                              "record", "records"));
        }
    }

    // The innermost call of the thread.
    void addReturn(const Extras::Remark& remark) {
        const auto found = m_running.find(
            {numberOf(remark.value, "process").value_or(0), numberOf(remark.value, "thread").value_or(0)});
        if (found == m_running.end() || found->second.empty()) {
            return;
        }
        Event& call = m_capture.events[found->second.back()];
        found->second.pop_back();
        call.returned = remark.time;
        call.returnedAt = m_position;
        call.result = numberOf(remark.value, "result");
        for (const auto& [key, value] : remark.value.items()) {
            if (!call.details.contains(key)) {
                call.details[key] = value;
            }
        }
    }

    // ---- notes

    void addNotes() {
        const auto note = [this](std::size_t count, const std::string& one, const std::string& many,
                                 const std::string& what) {
            if (count != 0) {
                m_capture.notes.push_back(counted(count, one, many) + " " + what);
            }
        };
        note(m_short, "packet", "packets", "too short for a transfer of USB, left out");
        note(m_odd, "packet", "packets", "of an unknown kind, left out");
        note(m_begunBefore, "transfer", "transfers", "whose submission is not in the capture");
        note(m_pending.size() + m_forgotten, "transfer", "transfers",
             "whose completion is not in the capture");
        note(m_cut, "transfer", "transfers", "whose data were not captured whole");
        std::vector<bool> isUsed(m_capture.devices.size());
        for (const Transfer& transfer : m_capture.transfers) {
            isUsed[transfer.device] = true;
        }
        std::size_t unknown = 0;
        for (std::size_t i = 0; i < m_capture.devices.size(); ++i) {
            const Device& device = m_capture.devices[i];
            unknown += isUsed[i] && device.address != 0 && device.descriptor.empty() ? 1 : 0;
        }
        note(unknown, "device", "devices", "whose descriptors are not in the capture");
        if (m_capture.isRecording && !m_ended) {
            m_capture.notes.emplace_back(
                "the recording has no end: the recorder was killed, or the file is truncated");
        }
    }

    Handle m_handle;
    Extras m_extras;
    Capture m_capture;
    std::size_t m_position = 0;
    std::size_t m_nextRemark = 0;
    std::size_t m_nextComment = 0;
    std::map<Key, std::size_t> m_present;
    std::map<Key, std::size_t> m_gone; // the last device at a place where there is none
    std::unordered_map<std::uint64_t, std::size_t> m_pending;
    std::map<std::pair<std::int64_t, std::int64_t>, std::vector<std::size_t>> m_running;
    std::size_t m_usable = 0;
    std::size_t m_short = 0;
    std::size_t m_odd = 0;
    std::size_t m_begunBefore = 0;
    std::size_t m_forgotten = 0; // their identity was used again
    std::size_t m_cut = 0;
    bool m_ended = false;
};

} // namespace

Capture readCapture(std::span<const std::uint8_t> file, const std::string& name) {
    return Reading(file, name).read();
}

} // namespace capture
