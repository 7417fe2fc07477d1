// Readers that other machines, or this one, attach by USB/IP.
//
// The machine that attaches a reader is its host, so faults on the host's side cannot be made here.

#pragma once

#include "control/bus.h"
#include "usbip/server.h"

#include <utility>

namespace emulator {

class UsbipBus final : public Bus {
public:
    // Throws std::system_error.
    UsbipBus(const SocketAddress& address, usbip::Server::Report report)
        : server_(readers_, address, std::move(report)) {}

    // Where it listens.
    std::string address() const { return server_.address(); }

    std::size_t add(ReaderDescription description) override;
    std::size_t size() const override { return readers_.size(); }
    bool plugged(std::size_t number) const override { return readers_.at(number).plugged; }
    void plug(std::size_t number) override;
    void unplug(std::size_t number) override;

    // What clients call the bus ID.
    std::string place(std::size_t number) const override { return readers_.at(number).busId; }

    // Importing a reader counts as opening it.
    NamedCounts counts(std::size_t number) override;
    void setBusy(std::size_t number, bool busy) override;
    void bindDriver(std::size_t number, const std::string& name) override;
    void refuseOpening(std::size_t number, int error) override;
    void failReset(std::size_t number, bool fails) override;

    void addPolled(std::vector<pollfd>& descriptors) override { server_.addPolled(descriptors); }
    void serve(const std::vector<pollfd>& polled, std::size_t first) override;
    std::optional<Time> nextDeadline() override;

protected:
    void onModel(std::size_t number, const std::function<void(ReaderModel&)>& action) override;

private:
    usbip::Readers readers_;
    usbip::Server server_;
};

} // namespace emulator
