// A bus that nobody can reach: only commands change it. It has room for a few readers, so that plugging can fail.
#pragma once

#include "control/bus.h"

#include <memory>
#include <set>

namespace emulator {

class PlainBus final : public Bus {
public:
    explicit PlainBus(std::size_t room = 1000)
        : m_room(room) {}

    std::size_t size() const override { return m_readers.size(); }
    const ReaderDescription& description(std::size_t number) const override {
        return reader(number).model.description();
    }
    bool hostIsElsewhere() const override { return elsewhere; }

    std::size_t add(ReaderDescription description) override {
        m_readers.push_back(std::make_unique<Reader>(std::move(description)));
        return m_readers.size();
    }
    void removeLast() override { m_readers.pop_back(); }
    bool plugged(std::size_t number) const override { return reader(number).plugged; }
    void checkRoom(const std::vector<std::size_t>& numbers) const override {
        std::size_t taken = numbers.size();
        for (const auto& each : m_readers) {
            taken += each->plugged ? 1 : 0;
        }
        if (taken > m_room) {
            throw TextError("the bus is full");
        }
    }

    void plug(std::size_t number) override {
        if (plugged(number) || unpluggable.contains(number)) {
            throw TextError("reader " + std::to_string(number) + " cannot be plugged");
        }
        reader(number).plugged = true;
        ++plugs;
    }
    void unplug(std::size_t number) override {
        if (!plugged(number)) {
            throw TextError("reader " + std::to_string(number) + " is not plugged");
        }
        reader(number).plugged = false;
    }
    std::string place(std::size_t number) const override { return "at " + std::to_string(number); }

    NamedCounts counts(std::size_t) override { return {{"opens", 0}}; }
    void setBusy(std::size_t number, bool busy) override { note(number, busy ? "busy" : "free"); }
    void bindDriver(std::size_t number, const std::string& name) override { note(number, "driver " + name); }
    void refuseOpening(std::size_t number, int error) override {
        note(number, "refuse " + std::to_string(error));
    }
    void failReset(std::size_t number, bool fails) override { note(number, fails ? "fails" : "resets"); }

    void addPolled(std::vector<pollfd>&) override {}
    void serve(const std::vector<pollfd>&, std::size_t) override {}
    std::optional<Time> nextDeadline() override { return std::nullopt; }

    ReaderModel& model(std::size_t number) { return reader(number).model; }

    bool elsewhere = false;
    std::set<std::size_t> unpluggable; // readers that cannot be plugged, for no reason that is known before
    std::size_t plugs = 0;
    std::string host; // what happened to the host

protected:
    void onModel(std::size_t number, const std::function<void(ReaderModel&)>& action) override {
        action(reader(number).model);
        while (reader(number).model.takeCompletion()) {
        }
    }

private:
    struct Reader {
        explicit Reader(ReaderDescription description)
            : model(std::move(description)) {}
        ReaderModel model;
        bool plugged = false;
    };

    Reader& reader(std::size_t number) const { return *m_readers.at(number - 1); }
    void note(std::size_t number, const std::string& what) {
        host += (host.empty() ? "" : "; ") + std::to_string(number) + " " + what;
    }

    std::size_t m_room;
    std::vector<std::unique_ptr<Reader>> m_readers;
};

} // namespace emulator
