// The launcher's side of one opening of a node: answers the requests in the shared memory, delivers completed URBs, and
// keeps the program's descriptor readable as poll() of usbfs would report it.
//
// One thread at a time; the bus guards it.
#pragma once

#include "usbfs/device.h"
#include "usbfs/file_descriptor.h"
#include "usbfs/opening_memory.h"
#include "usbfs/shared_memory.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace emulator {

class UsbfsNode;

class UsbfsOpening {
public:
    // `flags` as fcntl() reports them. Throws std::system_error.
    UsbfsOpening(UsbfsNode& node, std::uint32_t index, int flags);
    UsbfsOpening(const UsbfsOpening&) = delete;
    UsbfsOpening& operator=(const UsbfsOpening&) = delete;
    ~UsbfsOpening();

    UsbfsNode& node() const { return m_node; }
    OpenId id() const { return m_id; }
    std::uint32_t index() const { return m_index; }
    std::uint64_t inode() const { return m_inode; }
    int memory() const { return m_memory.descriptor(); }

    // The program's descriptor, to be sent to it. The opening is closed when no copy is left.
    FileDescriptor takeDescriptor() { return std::move(m_descriptor); }

    // Readable as a hang-up when no copy of the program's descriptor is left; -1 once the reader is unplugged.
    int hangUp() const { return m_readEnd.get(); }
    bool isClosed() const;

    // Answer what the program has requested, and deliver what completes by it. Call it when the bell has rung.
    void serve(Time now);

    // Show the program what has changed at the device, and deliver completed URBs.
    void refresh();

    void unplug();

    // When to look again whether the program has written what it is about to write; refresh() does.
    std::optional<Time> patience() const { return m_patience; }

private:
    // The launcher's record of a pending URB.
    struct Pending {
        bool pending = false;
        bool called = false; // completes in place
        std::uint64_t urb = 0;
        std::uint32_t offset = 0;
        std::uint32_t length = 0;
        std::uint32_t signal = 0;
        std::int32_t process = 0;
    };

    void showConfiguration();
    void serve(std::uint32_t number, Time now);
    int call(std::uint32_t number, const opening_request& request, Time now);
    int detachAndClaim(const opening_request& request);
    int discard(std::uint64_t urb, Time now);
    int cancel(std::uint64_t number, Time now);
    void submit(std::uint32_t number, const opening_request& request, Time now);
    void complete(const ReapedUrb& urb);
    void answer(std::uint32_t number);
    void signalProgram(int signal, int process, int error, std::uint64_t value) const;
    void setReady();
    void tryToHangUp();
    bool programIsWriting();
    FileDescriptor readAgain() const;
    void takeByte();
    void takeOver();

    UsbfsNode& m_node;
    std::uint32_t m_index;
    SharedMemory<opening_memory> m_memory;
    FileDescriptor m_descriptor; // the pipe's write end, until it is sent
    FileDescriptor m_readEnd;
    FileDescriptor m_pipe; // the pipe as a path, once the read end is closed
    std::uint64_t m_inode = 0;
    OpenId m_id = 0;
    std::uint32_t m_tail = 0;
    bool m_hangUpWanted = false;
    std::optional<Time> m_patience;
    std::vector<Pending> m_pending; // by the number of the request
    std::size_t m_pendingSize = 0;
    std::vector<std::uint32_t> m_answered; // calls to wake when everything else is done
    std::uint32_t m_disconnectSignal = 0;
    std::uint64_t m_disconnectValue = 0;
    std::int32_t m_disconnectProcess = 0;
};

} // namespace emulator
