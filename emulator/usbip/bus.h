// Readers that this machine or others attach by USB/IP.
//
// The machine that attaches a reader is its host, so faults of the host are not supported.
#pragma once

#include "control/bus.h"
#include "usbip/server.h"

#include <utility>

namespace emulator {

class UsbipBus final : public Bus {
public:
    // Throws std::system_error.
    UsbipBus(const SocketAddress& address, usbip::Server::Report report, const usbip::Limits& limits = {})
        : m_readers(limits.memory)
        , m_server(m_readers, address, std::move(report), limits) {}

    // Where the server listens.
    std::string address() const { return m_server.address(); }

    std::size_t size() const override { return m_readers.size(); }
    const ReaderDescription& description(std::size_t number) const override {
        return m_readers.at(number).model.description();
    }
    bool hostIsElsewhere() const override { return true; }

    std::size_t add(ReaderDescription description) override;
    void removeLast() override { m_readers.removeLast(); }
    void checkRoom(const std::vector<std::size_t>&) const override {} // there is always room
    bool plugged(std::size_t number) const override { return m_readers.at(number).plugged; }
    void plug(std::size_t number) override;
    void unplug(std::size_t number) override;

    // The bus ID for clients.
    std::string place(std::size_t number) const override { return m_readers.at(number).busId; }

    // Counts an import as an opening.
    NamedCounts counts(std::size_t number) override;
    void setBusy(std::size_t number, bool busy) override;
    void bindDriver(std::size_t number, const std::string& name) override;
    void refuseOpening(std::size_t number, int error) override;
    void failReset(std::size_t number, bool fails) override;

    void addPolled(std::vector<pollfd>& descriptors) override { m_server.addPolled(descriptors); }
    void serve(const std::vector<pollfd>& polled, std::size_t first) override;
    std::optional<Time> nextDeadline() override;

protected:
    void onModel(std::size_t number, const std::function<void(ReaderModel&)>& action) override;

private:
    void unplugLeaving();

    usbip::Readers m_readers;
    usbip::Server m_server;
};

} // namespace emulator
