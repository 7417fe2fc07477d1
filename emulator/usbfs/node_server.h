// Serves the nodes of the emulated bus: opens them for programs, which ask over a socket, and answers their requests in
// a thread of its own, which a bell in shared memory wakes.
//
// The mutex guards the nodes, their readers and all openings. The launcher's thread takes it for every access, except
// in the functions that say otherwise.
#pragma once

#include "usbfs/file_descriptor.h"
#include "usbfs/node.h"
#include "usbfs/opening.h"
#include "usbfs/shared_memory.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace emulator {

class NodeServer {
public:
    // Create the socket in this folder. Throws std::system_error.
    explicit NodeServer(const std::filesystem::path& folder);
    NodeServer(const NodeServer&) = delete;
    NodeServer& operator=(const NodeServer&) = delete;
    ~NodeServer();

    // Holds the mutex. What programs have requested before is answered first. The thread lets whoever waits for the
    // mutex have it first.
    class Lock {
    public:
        explicit Lock(NodeServer& server);
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        ~Lock();

    private:
        NodeServer& m_server;
    };

    // ---- with the lock held
    // `refusal`: the errno with which opening fails, or 0; it may change later.
    void add(std::shared_ptr<UsbfsNode> node, const int& refusal);

    // Programs that have it open still get answers.
    void remove(UsbfsNode& node);

    // Show programs what the launcher has changed at the reader.
    void refresh(UsbfsNode& node);

    // Close the openings of a node that no program has any more. The thread does so by itself, a little later.
    void closeLeft(UsbfsNode& node);
    void closeLeftUnplugged(); // the same for nodes that have been removed

    // ---- without
    int descriptor() const { return m_epoll.get(); } // readable when there is something to serve
    void serve();
    bool takeLeaving() { return m_leaving.exchange(false); } // whether a reader has begun to unplug itself
    std::optional<Time> nextDeadline();                      // when to call serve() at the latest

private:
    struct Place {
        std::shared_ptr<UsbfsNode> node;
        const int* refusal = nullptr;
    };
    using Address = std::pair<unsigned, unsigned>; // bus and address

    void watch(int descriptor, std::uint32_t events, std::uint64_t key) const;
    void accept();
    void answer(int connection);
    bool receive(int connection);
    UsbfsOpening* open(const node_question& question, int& error);
    UsbfsOpening* find(const node_question& question, int& error) const;
    void close(UsbfsOpening& opening);

    void run();
    void serveRung(Time now);
    void schedule(UsbfsNode& node);
    void scheduleSoon(UsbfsNode& node);
    void advance();
    void ring();

    std::mutex m_mutex;
    std::atomic<int> m_waiting = 0;
    SharedMemory<opening_bell> m_bell;
    FileDescriptor m_epoll;
    FileDescriptor m_listening;
    FileDescriptor m_leavingEvent; // readable if m_leaving
    std::atomic<bool> m_leaving = false;
    std::map<Address, Place> m_places;
    std::vector<std::unique_ptr<UsbfsOpening>> m_openings; // by index; null if free
    std::map<std::uint64_t, UsbfsOpening*> m_byInode;
    std::map<UsbfsOpening*, std::shared_ptr<UsbfsNode>> m_owned; // keeps the nodes of openings
    std::set<UsbfsOpening*> m_unplugged;                         // whose closing nothing reports
    Time m_lookedAtUnplugged;
    std::set<std::pair<Time, UsbfsNode*>> m_deadlines;
    std::set<int> m_connections; // that have not asked yet
    std::atomic<bool> m_ending = false;
    std::thread m_thread;
};

} // namespace emulator
