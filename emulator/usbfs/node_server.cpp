#include "usbfs/node_server.h"

#include "preload_contract.h"
#include "usbfs/futex.h"
#include "usbfs/sysfs.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace emulator {

namespace {

// Keys of epoll: an opening's index, or one of these and a descriptor.
constexpr std::uint64_t listeningKey = std::uint64_t{1} << 32;
constexpr std::uint64_t connectionKey = std::uint64_t{2} << 32;
constexpr std::uint64_t leavingKey = std::uint64_t{4} << 32;

// How long to wait before looking at openings of unplugged readers again.
constexpr std::chrono::seconds betweenLooks(1);

Time present() {
    return std::chrono::steady_clock::now();
}

timespec asTimespec(Time time) {
    const auto since = time.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    return {.tv_sec = static_cast<time_t>(seconds.count()),
            .tv_nsec = static_cast<long>(
                std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds).count())};
}

void sendAnswer(int connection, node_answer answer, const std::vector<int>& descriptors) {
    std::array<char, CMSG_SPACE(3 * sizeof(int))> control{};
    iovec piece = {.iov_base = &answer, .iov_len = sizeof answer};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
        std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size() * sizeof(int));
    }
    ::sendmsg(connection, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

} // namespace

NodeServer::Lock::Lock(NodeServer& server)
    : m_server(server) {
    m_server.m_waiting.fetch_add(1);
    m_server.m_mutex.lock();
    m_server.m_waiting.fetch_sub(1);
    m_server.serveRung(present());
}

NodeServer::Lock::~Lock() {
    m_server.m_mutex.unlock();
}

NodeServer::NodeServer(const std::filesystem::path& folder)
    : m_bell("gvusb-bell")
    , m_epoll(::epoll_create1(EPOLL_CLOEXEC), "epoll")
    , m_listening(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket")
    , m_leavingEvent(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd") {
    const std::string path = folder / emulate_node_socket;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    }
    path.copy(address.sun_path, path.size());
    if (::bind(m_listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listening.get(), SOMAXCONN) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    watch(m_listening.get(), EPOLLIN, listeningKey);
    watch(m_leavingEvent.get(), EPOLLIN, leavingKey);
    m_thread = std::thread([this] { run(); });
}

NodeServer::~NodeServer() {
    m_ending = true;
    ring();
    m_thread.join();
    m_openings.clear(); // before the nodes
    for (const int connection : m_connections) {
        ::close(connection);
    }
}

// ---- nodes

void NodeServer::add(std::shared_ptr<UsbfsNode> node, const int& refusal) {
    const NodeFacts& facts = node->facts();
    m_places.insert_or_assign({facts.bus, facts.address},
                              Place{.node = std::move(node), .refusal = &refusal});
}

void NodeServer::remove(UsbfsNode& node) {
    m_places.erase({node.facts().bus, node.facts().address});
    node.unplug();
    scheduleSoon(node);
    m_unplugged.insert(node.openings().begin(), node.openings().end());
    m_lookedAtUnplugged = present();
}

void NodeServer::refresh(UsbfsNode& node) {
    node.refresh();
    scheduleSoon(node);
}

void NodeServer::scheduleSoon(UsbfsNode& node) {
    const std::optional<Time> before = node.scheduled;
    schedule(node);
    if (node.scheduled && (!before || *node.scheduled < *before)) {
        ring(); // the thread sleeps until the deadline before
    }
}

void NodeServer::closeLeft(UsbfsNode& node) {
    // A copy, because closing changes the list.
    for (UsbfsOpening* const opening : std::vector(node.openings())) {
        if (opening->isClosed()) {
            close(*opening);
        }
    }
}

void NodeServer::close(UsbfsOpening& opening) {
    const std::shared_ptr<UsbfsNode> node = m_owned.at(&opening);
    m_owned.erase(&opening);
    m_byInode.erase(opening.inode());
    m_unplugged.erase(&opening);
    m_openings[opening.index()].reset();
    node->refresh();
    schedule(*node);
}

// ---- the launcher's thread

void NodeServer::watch(int descriptor, std::uint32_t events, std::uint64_t key) const {
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    if (::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll");
    }
}

void NodeServer::serve() {
    std::array<epoll_event, 64> events;
    const int count = ::epoll_wait(m_epoll.get(), events.data(), static_cast<int>(events.size()), 0);
    for (int i = 0; i < count; ++i) {
        const std::uint64_t key = events.at(static_cast<std::size_t>(i)).data.u64;
        if (key == listeningKey) {
            accept();
        } else if (key == leavingKey) {
            eventfd_t ignored = 0;
            ::eventfd_read(m_leavingEvent.get(), &ignored);
        } else if ((key & connectionKey) != 0) {
            answer(static_cast<int>(key & 0xFFFFFFFF));
        } else {
            const Lock lock(*this);
            if (key < m_openings.size() && m_openings[key] && m_openings[key]->isClosed()) {
                close(*m_openings[key]);
            }
        }
    }
    const Lock lock(*this);
    if (!m_unplugged.empty() && present() - m_lookedAtUnplugged >= betweenLooks) {
        closeLeftUnplugged();
    }
}

std::optional<Time> NodeServer::nextDeadline() {
    const Lock lock(*this);
    return m_unplugged.empty() ? std::nullopt : std::optional(m_lookedAtUnplugged + betweenLooks);
}

void NodeServer::closeLeftUnplugged() {
    m_lookedAtUnplugged = present();
    const std::vector<UsbfsOpening*> openings(m_unplugged.begin(), m_unplugged.end());
    for (UsbfsOpening* const opening : openings) {
        if (opening->isClosed()) {
            close(*opening);
        }
    }
}

void NodeServer::accept() {
    for (;;) {
        const int connection = ::accept4(m_listening.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (connection < 0) {
            return;
        }
        if (!receive(connection)) { // a program that is stopped before it asks
            m_connections.insert(connection);
            watch(connection, EPOLLIN, connectionKey | static_cast<std::uint32_t>(connection));
        }
    }
}

void NodeServer::answer(int connection) {
    if (receive(connection)) {
        m_connections.erase(connection);
    }
}

// Answers and closes a connection that has asked; false if it has not.
bool NodeServer::receive(int connection) {
    node_question question{};
    const ssize_t received = ::recv(connection, &question, sizeof question, MSG_DONTWAIT);
    if (received < 0 && (errno == EAGAIN || errno == EINTR)) {
        return false;
    }
    if (received == sizeof question) {
        const Lock lock(*this);
        int error = 0;
        UsbfsOpening* const opening =
            question.kind == node_open ? open(question, error) : find(question, error);
        FileDescriptor descriptor;
        std::vector<int> sent;
        node_answer answer{};
        answer.error = error;
        if (opening != nullptr) {
            const NodeFacts& facts = opening->node().facts();
            answer.bus = facts.bus;
            answer.address = facts.address;
            answer.mode = nodeMode;
            answer.file_device = facts.fileDevice;
            answer.file_inode = facts.fileInode;
        }
        if (opening != nullptr && question.kind != node_describe) {
            descriptor = opening->takeDescriptor();
            if (descriptor) {
                sent.push_back(descriptor.get());
            }
            sent.push_back(opening->memory());
            sent.push_back(m_bell.descriptor());
        }
        sendAnswer(connection, answer, sent);
    }
    ::close(connection);
    return true;
}

UsbfsOpening* NodeServer::open(const node_question& question, int& error) {
    const auto place = m_places.find({question.bus, question.address});
    if (place == m_places.end()) {
        error = ENOENT;
        return nullptr;
    }
    error = *place->second.refusal;
    UsbfsDevice& device = place->second.node->device();
    if (error == 0 && device.connected()) {
        error = -std::min(device.model()->recordedResult(HostAction::open).value_or(0), 0);
    }
    if (error != 0) {
        return nullptr;
    }
    auto free = std::ranges::find_if(m_openings, [](const auto& each) { return each == nullptr; });
    if (free == m_openings.end()) {
        if (m_openings.size() >= bell_openings) {
            error = ENFILE;
            return nullptr;
        }
        free = m_openings.insert(free, nullptr);
    }
    const auto index = static_cast<std::uint32_t>(free - m_openings.begin());
    try {
        *free = std::make_unique<UsbfsOpening>(*place->second.node, index, question.flags);
        watch((*free)->hangUp(), 0, index);
    } catch (const std::system_error& failure) {
        free->reset();
        error = failure.code().value();
        return nullptr;
    }
    m_byInode[(*free)->inode()] = free->get();
    m_owned[free->get()] = place->second.node;
    return free->get();
}

UsbfsOpening* NodeServer::find(const node_question& question, int& error) const {
    const auto found = m_byInode.find(question.inode);
    error = found != m_byInode.end() ? 0 : ENOENT;
    return found != m_byInode.end() ? found->second : nullptr;
}

// ---- the thread

void NodeServer::ring() {
    opening_bell& bell = *m_bell;
    shared(bell.rung).fetch_add(1);
    wakeAll(bell.rung);
}

void NodeServer::run() {
    // Wake up when an answer is due. Programs are started by another thread and do not inherit this.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    opening_bell& bell = *m_bell;
    while (!m_ending) {
        const std::uint32_t seen = shared(bell.rung).load();
        std::optional<timespec> until;
        while (m_waiting.load() != 0) {
            std::this_thread::yield();
        }
        {
            const std::lock_guard lock(m_mutex);
            serveRung(present());
            advance();
            if (!m_deadlines.empty()) {
                until = asTimespec(m_deadlines.begin()->first);
            }
        }
        shared(bell.asleep).store(1);
        if (shared(bell.rung).load() == seen) {
            waitForChange(bell.rung, seen, until ? &*until : nullptr);
        }
        shared(bell.asleep).store(0);
    }
}

void NodeServer::serveRung(Time now) {
    opening_bell& bell = *m_bell;
    for (std::uint32_t i = 0; i < bell_words / 64; ++i) {
        if (shared(bell.words[i]).load() == 0) {
            continue;
        }
        for (std::uint64_t words = shared(bell.words[i]).exchange(0); words != 0; words &= words - 1) {
            const std::uint32_t word = i * 64 + static_cast<std::uint32_t>(std::countr_zero(words));
            for (std::uint64_t bits = shared(bell.openings[word]).exchange(0); bits != 0; bits &= bits - 1) {
                const std::uint32_t index = word * 64 + static_cast<std::uint32_t>(std::countr_zero(bits));
                if (index >= m_openings.size() || !m_openings[index]) {
                    continue;
                }
                UsbfsNode& node = m_openings[index]->node();
                // What other openings held is free as soon as their last descriptor is closed.
                if (node.openings().size() > 1) {
                    closeLeft(node);
                }
                if (m_openings[index]) {
                    m_openings[index]->serve(now);
                    schedule(node);
                }
            }
        }
    }
}

// Called whenever a node has been served.
void NodeServer::schedule(UsbfsNode& node) {
    if (node.device().connected() && node.device().model()->leaving() && !m_leaving.exchange(true)) {
        ::eventfd_write(m_leavingEvent.get(), 1);
    }
    const std::optional<Time> deadline = node.deadline();
    if (deadline == node.scheduled) {
        return;
    }
    if (node.scheduled) {
        m_deadlines.erase({*node.scheduled, &node});
    }
    node.scheduled = deadline;
    if (deadline) {
        m_deadlines.insert({*deadline, &node});
    }
}

// Whatever is due by the time that it is looked at.
void NodeServer::advance() {
    while (!m_deadlines.empty()) {
        UsbfsNode& node = *m_deadlines.begin()->second;
        const Time now = present();
        if (*node.scheduled > now) {
            break;
        }
        const std::optional<Time> before = node.scheduled;
        if (node.device().connected()) {
            node.device().model()->advance(now);
        }
        node.refresh();
        schedule(node);
        if (node.scheduled == before) {
            break; // a model that does not advance must not keep the thread
        }
    }
}

} // namespace emulator
