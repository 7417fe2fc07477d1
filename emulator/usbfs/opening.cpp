#include "usbfs/opening.h"

#include "usbfs/futex.h"
#include "usbfs/node.h"
#include "usbfs/sysfs.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace emulator {

namespace {

// How long a program may take to write a byte before it is taken for killed. If it is only stopped, nothing breaks.
constexpr std::chrono::milliseconds longestWrite(200);

FileDescriptor openAgain(int descriptor, int flags) {
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    return FileDescriptor(::open(path.c_str(), flags | O_CLOEXEC));
}

bool hungUp(int readEnd) {
    pollfd polled = {.fd = readEnd, .events = 0, .revents = 0};
    return ::poll(&polled, 1, 0) > 0 && (polled.revents & POLLHUP) != 0;
}

// As in struct usbdevfs_urb.
std::uint8_t urbType(TransferType type) {
    switch (type) {
    case TransferType::isochronous:
        return USBDEVFS_URB_TYPE_ISO;
    case TransferType::interrupt:
        return USBDEVFS_URB_TYPE_INTERRUPT;
    case TransferType::bulk:
        return USBDEVFS_URB_TYPE_BULK;
    case TransferType::control:
        break;
    }
    return USBDEVFS_URB_TYPE_CONTROL;
}

Transfer transferOf(const opening_request& request, const std::uint8_t* data) {
    Transfer transfer;
    transfer.endpoint = request.type == USBDEVFS_URB_TYPE_CONTROL ? std::uint8_t{0} : request.endpoint;
    bool in = (transfer.endpoint & 0x80) != 0;
    if (transfer.endpoint == 0) {
        const std::uint8_t* setup = request.setup;
        transfer.setup = {.requestType = setup[0],
                          .request = setup[1],
                          .value = static_cast<std::uint16_t>(setup[2] | setup[3] << 8),
                          .index = static_cast<std::uint16_t>(setup[4] | setup[5] << 8),
                          .length = static_cast<std::uint16_t>(setup[6] | setup[7] << 8)};
        in = transfer.setup.in();
    }
    if (in) {
        transfer.capacity = request.length;
    } else {
        transfer.data.assign(data, data + request.length);
        transfer.zeroPacket = request.zero_packet != 0;
    }
    return transfer;
}

// When a program has submitted a transfer. From then on a reader takes its time, however late the launcher wakes up.
Time submissionTime(const opening_request& request, Time now) {
    constexpr std::chrono::seconds longestAgo(1); // what the program says is not trusted
    const Time time{std::chrono::duration_cast<Time::duration>(std::chrono::nanoseconds(request.time))};
    return time > now - longestAgo && time < now ? time : now;
}

std::string_view nameIn(const opening_request& request) {
    return {request.name, ::strnlen(request.name, sizeof request.name)};
}

} // namespace

UsbfsOpening::UsbfsOpening(UsbfsNode& node, std::uint32_t index, int flags)
    : m_node(node)
    , m_index(index)
    , m_memory("gvusb-opening") {
    std::array<int, 2> pipe{};
    if (::pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    m_readEnd = FileDescriptor(pipe[0]);
    m_descriptor = FileDescriptor(pipe[1]);
    struct stat status {};
    if (::fcntl(pipe[1], F_SETPIPE_SZ, 1) < 0 || ::write(pipe[1], "", 1) != 1 ||
        ::fstat(pipe[1], &status) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    m_inode = status.st_ino;

    opening_memory& memory = *m_memory;
    const NodeFacts& facts = node.facts();
    memory.index = index;
    memory.access = static_cast<std::uint32_t>(flags & O_ACCMODE);
    memory.flags = static_cast<std::uint32_t>(flags);
    memory.launcher = ::getpid();
    memory.bus = facts.bus;
    memory.address = facts.address;
    memory.speed = static_cast<std::uint32_t>(facts.speed) + 1; // the kernel counts low, full and high from 1
    memory.port = facts.port;
    memory.mode = nodeMode;
    memory.file_device = facts.fileDevice;
    memory.file_inode = facts.fileInode;
    memory.descriptors_size =
        static_cast<std::uint32_t>(std::min<std::size_t>(facts.descriptors.size(), opening_descriptors_size));
    std::copy_n(facts.descriptors.begin(), memory.descriptors_size, memory.descriptors);
    m_id = node.device().open();
    showConfiguration();
    node.add(*this);
}

UsbfsOpening::~UsbfsOpening() {
    m_node.remove(*this);
    m_node.device().close(m_id, std::chrono::steady_clock::now());
    m_node.showDrivers();
    shared(m_memory->closed).store(1);
}

bool UsbfsOpening::isClosed() const {
    if (m_descriptor) {
        return false;
    }
    if (m_readEnd) {
        return hungUp(m_readEnd.get());
    }
    // The read end is closed. Another hangs up if there has been a writer since it was opened and none is left.
    const FileDescriptor reading = openAgain(m_pipe.get(), O_RDONLY | O_NONBLOCK);
    openAgain(m_pipe.get(), O_WRONLY | O_NONBLOCK).reset();
    return hungUp(reading.get());
}

// ---- what the program sees of the device

void UsbfsOpening::showConfiguration() {
    opening_memory& memory = *m_memory;
    UsbfsDevice& device = m_node.device();
    if (!device.connected() || memory.configured == device.configuration()) {
        return;
    }
    const ReaderDescription& reader = device.model()->description();
    std::uint32_t count = 0;
    shared(memory.endpoint_count).store(0);
    if (device.configuration() != 0 && reader.interfaces != 0) {
        for (const Endpoint& endpoint : reader.endpoints) {
            if (count < opening_most_endpoints) {
                memory.endpoints[count++] = {.address = endpoint.address,
                                             .type = urbType(endpoint.type),
                                             .interface_number = reader.firstInterface,
                                             .reserved = 0};
            }
        }
    }
    shared(memory.endpoint_count).store(count);
    shared(memory.configured).store(device.configuration());
}

void UsbfsOpening::refresh() {
    UsbfsDevice& device = m_node.device();
    if (device.connected()) {
        showConfiguration();
        shared(m_memory->claimed).store(device.claimed(m_id));
    }
    bool ready = false;
    while (const std::optional<ReapedUrb> urb = device.reap(m_id)) {
        complete(*urb);
        ready = true;
    }
    if (ready) {
        setReady();
    }
    if (m_patience && *m_patience <= std::chrono::steady_clock::now()) {
        takeOver();
    }
}

void UsbfsOpening::setReady() {
    opening_memory& memory = *m_memory;
    if (memory.access == O_RDONLY || shared(memory.head).load() == shared(memory.tail).load()) {
        return;
    }
    std::uint32_t state = opening_idle;
    if (!programIsWriting() && shared(memory.signal).compare_exchange_strong(state, opening_ready)) {
        takeByte();
    }
}

// Whether a program is about to write a byte. If so, it rings the bell when it has.
bool UsbfsOpening::programIsWriting() {
    std::uint32_t state = opening_filling;
    if (shared(m_memory->signal).compare_exchange_strong(state, opening_wanted)) {
        m_patience = std::chrono::steady_clock::now() + longestWrite;
        return true;
    }
    if (state != opening_wanted) {
        m_patience.reset();
    }
    return state == opening_wanted;
}

// Works also after the read end is closed.
FileDescriptor UsbfsOpening::readAgain() const {
    return openAgain(m_readEnd ? m_readEnd.get() : m_pipe.get(), O_RDONLY | O_NONBLOCK);
}

void UsbfsOpening::takeByte() {
    char byte = 0;
    const FileDescriptor again = m_readEnd ? FileDescriptor() : readAgain();
    [[maybe_unused]] const ssize_t taken = ::read(again ? again.get() : m_readEnd.get(), &byte, 1);
}

// The program has been killed before or after it wrote the byte. If it has only been stopped, it notices this later, and
// takes its byte back.
void UsbfsOpening::takeOver() {
    m_patience.reset();
    opening_memory& memory = *m_memory;
    int written = 0;
    const bool known = ::ioctl(readAgain().get(), FIONREAD, &written) == 0;
    const bool idle = known && written > 0 && shared(memory.head).load() == shared(memory.tail).load();
    std::uint32_t state = opening_wanted;
    if (shared(memory.signal).compare_exchange_strong(state, idle ? opening_idle : opening_ready) && !idle) {
        takeByte();
    }
    tryToHangUp();
}

void UsbfsOpening::unplug() {
    refresh();
    opening_memory& memory = *m_memory;
    shared(memory.claimed).store(0);
    // Before the hang-up: once poll() has reported that, libusb waits for nothing that it has still submitted.
    shared(memory.gone).store(1);
    shared(memory.completed).fetch_add(1);
    wakeAll(memory.completed);
    if (m_disconnectSignal != 0) {
        signalProgram(static_cast<int>(m_disconnectSignal), m_disconnectProcess, EPIPE, m_disconnectValue);
    }
    m_hangUpWanted = true;
    tryToHangUp();
}

// Not while the program may be writing to the pipe, because that would end it with SIGPIPE.
void UsbfsOpening::tryToHangUp() {
    if (!m_hangUpWanted || !m_readEnd || programIsWriting()) {
        return;
    }
    m_pipe = openAgain(m_readEnd.get(), O_PATH);
    if (m_pipe) {
        m_readEnd.reset();
    }
}

// As the kernel's kill_pid_usb_asyncio().
void UsbfsOpening::signalProgram(int signal, int process, int error, std::uint64_t value) const {
    siginfo_t info{};
    info.si_signo = signal;
    info.si_errno = error;
    info.si_code = SI_ASYNCIO;
    info.si_addr =
        reinterpret_cast<void*>(static_cast<std::uintptr_t>(value)); // NOLINT(performance-no-int-to-ptr)
    ::syscall(SYS_rt_sigqueueinfo, process, signal, &info);
}

// ---- requests

void UsbfsOpening::serve(Time now) {
    opening_memory& memory = *m_memory;
    std::vector<std::uint32_t> numbers;
    for (std::uint64_t words = shared(memory.filled_words).exchange(0); words != 0; words &= words - 1) {
        const auto word = static_cast<std::uint32_t>(std::countr_zero(words));
        for (std::uint64_t bits = shared(memory.filled[word]).exchange(0); bits != 0; bits &= bits - 1) {
            numbers.push_back(word * 64 + static_cast<std::uint32_t>(std::countr_zero(bits)));
        }
    }
    if (numbers.size() > 1) {
        std::ranges::sort(numbers, {}, [&](std::uint32_t number) { return memory.requests[number].ticket; });
    }
    for (const std::uint32_t number : numbers) {
        serve(number, now);
    }
    m_node.refresh();
    for (const std::uint32_t number : m_answered) {
        answer(number);
    }
    m_answered.clear();
    // The program may have rung because it has just stopped reporting that a URB can be reaped.
    setReady();
    tryToHangUp();
}

void UsbfsOpening::serve(std::uint32_t number, Time now) {
    opening_request request;
    std::memcpy(&request, &m_memory->requests[number], offsetof(opening_request, data));
    if (request.operation == opening_submit || request.operation == opening_transfer) {
        submit(number, request, submissionTime(request, now));
        return;
    }
    m_memory->requests[number].result = call(number, request, now);
    m_answered.push_back(number);
}

void UsbfsOpening::answer(std::uint32_t number) {
    shared(m_memory->requests[number].state).store(opening_answered);
    wakeAll(m_memory->requests[number].state);
}

int UsbfsOpening::call(std::uint32_t number, const opening_request& request, Time now) {
    UsbfsDevice& device = m_node.device();
    switch (request.operation) {
    case opening_prepare:
        return device.prepareEndpoint(m_id, request.argument);
    case opening_prepare_interface:
        return device.prepareInterface(m_id, request.argument);
    case opening_discard:
        return discard(request.value, now);
    case opening_cancel:
        return cancel(request.value, now);
    case opening_claim:
        return device.claim(m_id, request.argument);
    case opening_release:
        return device.release(m_id, request.argument);
    case opening_set_interface:
        return device.setInterface(m_id, request.argument, static_cast<unsigned>(request.value), now);
    case opening_set_configuration: {
        const int value = static_cast<int>(request.argument);
        const int result = device.setConfiguration(m_id, value, now);
        if (result == 0) {
            m_node.facts().configured(device.configuration());
        }
        return result;
    }
    case opening_clear_halt:
        return device.clearHalt(m_id, request.argument, now);
    case opening_reset_endpoint:
        return device.resetEndpoint(m_id, request.argument);
    case opening_reset:
        return device.reset(m_id, now);
    case opening_get_driver: {
        const std::string name = device.driver(request.argument);
        opening_request& answered = m_memory->requests[number];
        std::memset(answered.name, 0, sizeof answered.name);
        name.copy(answered.name, sizeof answered.name - 1);
        return !device.connected() ? -ENODEV : name.empty() ? -ENODATA : 0;
    }
    case opening_detach_driver:
        return device.detachDriver(m_id, request.argument);
    case opening_attach_driver:
        return device.attachDriver(m_id, request.argument);
    case opening_detach_and_claim:
        return detachAndClaim(request);
    case opening_signal_disconnect:
        m_disconnectSignal = request.argument;
        m_disconnectValue = request.value;
        m_disconnectProcess = request.process;
        return 0;
    case opening_drop_privileges: {
        const int result = device.dropPrivileges(m_id, request.argument);
        shared(m_memory->privileges_dropped).store(1);
        return result;
    }
    default:
        return -ENOTTY;
    }
}

int UsbfsOpening::detachAndClaim(const opening_request& request) {
    using Unless = UsbfsDevice::Unless;
    Unless unless = Unless::never;
    if ((request.value & USBDEVFS_DISCONNECT_CLAIM_IF_DRIVER) != 0) {
        unless = Unless::itIsNot;
    } else if ((request.value & USBDEVFS_DISCONNECT_CLAIM_EXCEPT_DRIVER) != 0) {
        unless = Unless::itIs;
    }
    return m_node.device().detachAndClaim(m_id, request.argument, unless, nameIn(request));
}

int UsbfsOpening::discard(std::uint64_t urb, Time now) {
    for (std::size_t number = 0; number < m_pending.size(); ++number) {
        const Pending& pending = m_pending[number];
        if (pending.pending && !pending.called && pending.urb == urb) {
            return m_node.device().discard(m_id, number, now);
        }
    }
    return m_node.device().connected() ? -EINVAL : -ENODEV;
}

int UsbfsOpening::cancel(std::uint64_t number, Time now) {
    return number < m_pending.size() && m_pending[number].called ? m_node.device().discard(m_id, number, now)
                                                                 : -EINVAL;
}

// What the program says of its request is not trusted: the data has to lie within the memory.
void UsbfsOpening::submit(std::uint32_t number, const opening_request& request, Time now) {
    if (m_pending.size() <= number) {
        m_pending.resize(number + 1);
    }
    constexpr std::size_t first = offsetof(opening_memory, requests);
    if (m_pending[number].pending || request.offset < first || request.offset > sizeof(opening_memory) ||
        request.length > sizeof(opening_memory) - request.offset ||
        request.length > sizeof(opening_memory) - m_pendingSize) {
        return;
    }
    m_pendingSize += request.length;
    m_pending[number] = {.pending = true,
                         .called = request.operation == opening_transfer,
                         .urb = request.urb,
                         .offset = request.offset,
                         .length = request.length,
                         .signal = request.signal,
                         .process = request.process};
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&*m_memory);
    const int result = m_node.device().submit(m_id, number, transferOf(request, bytes + request.offset), now,
                                              request.short_not_ok != 0);
    if (result != 0) {
        // The device has changed since the program looked.
        complete({.urb = number, .status = result == -ENODEV ? -ESHUTDOWN : result, .data = {}, .actual = 0});
        setReady();
    }
}

void UsbfsOpening::complete(const ReapedUrb& urb) {
    Pending& pending = m_pending[urb.urb];
    opening_memory& memory = *m_memory;
    opening_request& request = memory.requests[urb.urb];
    pending.pending = false;
    m_pendingSize -= pending.length;
    auto* const bytes = reinterpret_cast<std::uint8_t*>(&memory);
    std::copy_n(urb.data.begin(), std::min<std::size_t>(urb.data.size(), pending.length),
                bytes + pending.offset);
    request.actual = static_cast<std::uint32_t>(urb.actual);
    request.result = urb.status;
    if (pending.called) {
        answer(static_cast<std::uint32_t>(urb.urb));
        return;
    }
    memory.ring[m_tail % opening_requests] = static_cast<std::uint16_t>(urb.urb);
    shared(memory.tail).store(++m_tail);
    shared(memory.completed).fetch_add(1);
    if (shared(memory.waiting).load() != 0) {
        wakeAll(memory.completed);
    }
    if (pending.signal != 0) {
        signalProgram(static_cast<int>(pending.signal), pending.process, -urb.status, pending.urb);
    }
}

} // namespace emulator
