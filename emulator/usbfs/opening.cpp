#include "usbfs/opening.h"

#include "preload_contract.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

namespace emulator {

namespace {

constexpr std::size_t setupSize = 8;

constexpr std::uint32_t capabilities = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                       USBDEVFS_CAP_REAP_AFTER_DISCONNECT | USBDEVFS_CAP_BULK_SCATTER_GATHER;

Transfer transferOf(const usbdevfs_urb& urb, const ProgramMemory& buffer) {
    const auto length = static_cast<std::size_t>(urb.buffer_length);
    Transfer transfer;
    transfer.endpoint = urb.endpoint;
    if (urb.type == USBDEVFS_URB_TYPE_CONTROL) {
        const std::uint8_t* bytes = buffer.bytes();
        transfer.endpoint = 0;
        transfer.setup = {.requestType = bytes[0],
                          .request = bytes[1],
                          .value = static_cast<std::uint16_t>(bytes[2] | bytes[3] << 8),
                          .index = static_cast<std::uint16_t>(bytes[4] | bytes[5] << 8),
                          .length = static_cast<std::uint16_t>(bytes[6] | bytes[7] << 8)};
        if (transfer.setup.in()) {
            transfer.capacity = std::min<std::size_t>(transfer.setup.length, length - setupSize);
        } else {
            transfer.data.assign(bytes + setupSize, bytes + length);
        }
    } else if ((urb.endpoint & 0x80) != 0) {
        transfer.capacity = length;
    } else if (length != 0) {
        transfer.data.assign(buffer.bytes(), buffer.bytes() + length);
    }
    return transfer;
}

} // namespace

UsbfsOpening::UsbfsOpening(std::shared_ptr<SharedNode> node)
    : m_node(std::move(node)) {
    const std::lock_guard lock(m_node->mutex);
    m_id = m_node->device->open();
}

void UsbfsOpening::close() {
    const std::lock_guard lock(m_node->mutex);
    if (m_closed) {
        return;
    }
    m_closed = true;
    m_node->device->close(m_id, std::chrono::steady_clock::now());
    m_node->refresh();
}

int UsbfsOpening::submit(UMockdevIoctlData* argument) {
    UrbMemory memory;
    memory.urb = ProgramMemory::at(argument, 0, sizeof(usbdevfs_urb));
    if (!memory.urb) {
        return -EFAULT;
    }
    const auto urb = memory.urb.as<usbdevfs_urb>();
    memory.control = urb.type == USBDEVFS_URB_TYPE_CONTROL;
    if (urb.type == USBDEVFS_URB_TYPE_ISO || urb.buffer_length < 0 ||
        (memory.control && urb.buffer_length < static_cast<int>(setupSize))) {
        return -EINVAL;
    }
    if (urb.buffer_length > 0) {
        memory.buffer = ProgramMemory::at(memory.urb.get(), offsetof(usbdevfs_urb, buffer),
                                          static_cast<std::size_t>(urb.buffer_length));
        if (!memory.buffer) {
            return -EFAULT;
        }
    }
    const UrbAddress address = memory.urb.get()->client_addr;
    Transfer transfer = transferOf(urb, memory.buffer);
    bool timed = false;
    const int result = onDevice([&](UsbfsDevice& device, Time now) {
        const int submitted = device.submit(m_id, address, std::move(transfer), now);
        timed = device.timed();
        return submitted;
    });
    if (result == 0) {
        m_urbs.insert_or_assign(address, std::move(memory));
    }
    if (timed) {
        m_node->hooks.deadlineChanged();
    }
    return result;
}

int UsbfsOpening::reap(UMockdevIoctlData* argument) {
    std::optional<ReapedUrb> reaped;
    bool connected = false;
    onDevice([&](UsbfsDevice& device, Time) {
        reaped = device.reap(m_id);
        connected = device.connected();
        return 0;
    });
    if (!reaped) {
        return connected ? -EAGAIN : -ENODEV;
    }
    const auto entry = m_urbs.find(reaped->urb);
    if (entry == m_urbs.end()) {
        return -EIO;
    }
    const UrbMemory memory = std::move(entry->second);
    m_urbs.erase(entry);
    const ProgramMemory where = ProgramMemory::at(argument, 0, sizeof(void*));
    if (!where) {
        return -EFAULT;
    }
    const int actual = static_cast<int>(reaped->actual);
    memory.urb.put(offsetof(usbdevfs_urb, status), &reaped->status, sizeof reaped->status);
    memory.urb.put(offsetof(usbdevfs_urb, actual_length), &actual, sizeof actual);
    if (!reaped->data.empty()) {
        memory.buffer.put(memory.control ? setupSize : 0, reaped->data.data(), reaped->data.size());
    }
    umockdev_ioctl_data_set_ptr(where.get(), 0, memory.urb.get());
    return 0;
}

int UsbfsOpening::setConfiguration(int value) {
    const int result =
        onDevice([&](UsbfsDevice& device, Time now) { return device.setConfiguration(m_id, value, now); });
    if (result == 0) {
        m_node->hooks.configured(static_cast<std::uint8_t>(std::max(value, 0)));
    }
    return result;
}

int UsbfsOpening::getDriver(const ProgramMemory& memory) {
    auto request = memory.as<usbdevfs_getdriver>();
    std::string name;
    const bool connected = onDevice([&](UsbfsDevice& device, Time) {
        name = device.driver(request.interface);
        return device.connected();
    });
    if (!connected) {
        return -ENODEV;
    }
    if (name.empty()) {
        return -ENODATA;
    }
    name.copy(request.driver, sizeof request.driver - 1);
    request.driver[std::min(name.size(), sizeof request.driver - 1)] = '\0';
    memory.put(0, &request, sizeof request);
    return 0;
}

// USBDEVFS_IOCTL passes an ioctl to the driver of an interface. Only binding and unbinding are supported.
int UsbfsOpening::driverIoctl(const ProgramMemory& memory) {
    const auto request = memory.as<usbdevfs_ioctl>();
    const auto interfaceNumber = static_cast<unsigned>(request.ifno);
    const auto code = static_cast<unsigned>(request.ioctl_code);
    return onDevice([&](UsbfsDevice& device, Time) {
        if (code == USBDEVFS_DISCONNECT) {
            return device.detachDriver(interfaceNumber);
        }
        if (code == USBDEVFS_CONNECT) {
            return device.attachDriver(interfaceNumber);
        }
        return -ENOTTY;
    });
}

int UsbfsOpening::detachAndClaim(const ProgramMemory& memory) {
    const auto request = memory.as<usbdevfs_disconnect_claim>();
    return onDevice([&](UsbfsDevice& device, Time) {
        const std::string bound = device.driver(request.interface);
        const bool named = bound == request.driver;
        if (((request.flags & USBDEVFS_DISCONNECT_CLAIM_IF_DRIVER) != 0 && !bound.empty() && !named) ||
            ((request.flags & USBDEVFS_DISCONNECT_CLAIM_EXCEPT_DRIVER) != 0 && named)) {
            return -EBUSY;
        }
        if (!bound.empty()) {
            device.detachDriver(request.interface);
        }
        return device.claim(m_id, request.interface);
    });
}

int UsbfsOpening::getCapabilities(const ProgramMemory& memory) {
    if (!onDevice([](UsbfsDevice& device, Time) { return device.connected(); })) {
        return -ENODEV;
    }
    memory.put(0, &capabilities, sizeof capabilities);
    return 0;
}

int UsbfsOpening::getSpeed() {
    return onDevice([](UsbfsDevice& device, Time) {
        if (!device.connected()) {
            return -ENODEV;
        }
        return static_cast<int>(device.speed()) + 1; // the kernel counts low, full and high from 1
    });
}

int UsbfsOpening::answer(unsigned long request, UMockdevIoctlData* argument) {
    if (m_closed) {
        return -ENODEV;
    }
    // First the requests whose argument is a value, or a pointer that is only compared.
    UrbAddress value = 0;
    std::memcpy(&value, argument->data, sizeof value);
    switch (request) {
    case USBDEVFS_SUBMITURB:
        return submit(argument);
    case USBDEVFS_REAPURBNDELAY:
        return reap(argument);
    case USBDEVFS_DISCARDURB:
        return onDevice([&](UsbfsDevice& device, Time now) { return device.discard(m_id, value, now); });
    case USBDEVFS_RESET:
        return onDevice([&](UsbfsDevice& device, Time now) { return device.reset(m_id, now); });
    case USBDEVFS_GET_SPEED:
        return getSpeed();
    case emulate_closing_request:
        close();
        return 0;
    default:
        break;
    }
    const ProgramMemory memory = ProgramMemory::at(argument, 0, _IOC_SIZE(request));
    if (!memory) {
        return -EFAULT;
    }
    const auto word = memory.as<unsigned>();
    switch (request) {
    case USBDEVFS_CLAIMINTERFACE:
        return onDevice([&](UsbfsDevice& device, Time) { return device.claim(m_id, word); });
    case USBDEVFS_RELEASEINTERFACE:
        return onDevice([&](UsbfsDevice& device, Time) { return device.release(m_id, word); });
    case USBDEVFS_SETCONFIGURATION:
        return setConfiguration(static_cast<int>(word));
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESETEP:
        return onDevice([&](UsbfsDevice& device, Time now) {
            return device.clearHalt(m_id, static_cast<std::uint8_t>(word), now);
        });
    case USBDEVFS_GETDRIVER:
        return getDriver(memory);
    case USBDEVFS_IOCTL:
        return driverIoctl(memory);
    case USBDEVFS_DISCONNECT_CLAIM:
        return detachAndClaim(memory);
    case USBDEVFS_GET_CAPABILITIES:
        return getCapabilities(memory);
    default:
        return -ENOTTY;
    }
}

} // namespace emulator
