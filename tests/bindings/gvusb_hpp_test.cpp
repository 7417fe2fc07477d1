// What gvusb.hpp adds to the C interface: ownership, ranges, errors, watches. Runs on virtual readers, in C++17, C++20
// and C++23.
#include "allocation_failure.h"

extern "C" {
#include "bus.h"
}

#include <gvusb.hpp>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>

#if __has_include(<span>)
#include <span>
#endif

using namespace std::chrono_literals;
using support::allocationsAreWatched;

namespace {

// The readers as described in CMakeLists.txt, by number, and their device IDs. The watcher cannot identify itself, so
// every poll makes two requests to it, and no scan finds it.
constexpr int bulk = 1;
constexpr int watcher = 3;
constexpr long transfersPerPoll = 2;
constexpr gvusb::device_id bulkId = 0xB1;
constexpr gvusb::device_id controlId = 0xC1;

constexpr std::chrono::milliseconds longEnough = 60s;

bool isOpen(int handle) {
    return GVUSB_IsDevicePresent(handle) >= 0;
}

template <class Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + longEnough;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Return the code that a call throws.
template <class Call>
std::error_code codeOf(Call call) {
    try {
        call();
    } catch (const gvusb::error& failure) {
        return failure.code();
    }
    return {};
}

// Once the second poll from now has begun, every change before has been reported.
bool pollsReportEverything() {
    const long wanted = host_count(watcher, "transfers") + 2 * transfersPerPoll;
    return eventually([&] { return host_count(watcher, "transfers") >= wanted; });
}

// Unplugs the readers that a test has plugged in, and leaves nothing to report to the next test.
class GvusbHpp : public testing::Test {
protected:
    GvusbHpp() { EXPECT_EQ(gvusb::scan().size(), 2U); }

    ~GvusbHpp() override {
        for (const int reader : m_plugged) {
            bus("unplug %d", reader);
        }
        calm_bus();
        EXPECT_TRUE(eventually([] { return gvusb::scan().size() == 2; }));
        EXPECT_TRUE(pollsReportEverything());
        EXPECT_EQ(GVUSB_GetDeviceList(0), 0);
    }

    // Plug in a reader with an ID that no other one has had, and return this ID.
    gvusb::device_id plug() {
        static gvusb::device_id last = 0x1000;
        m_plugged.push_back(::plug_new(("id=" + hexadecimal(++last)).c_str()));
        return last;
    }

    static std::string hexadecimal(gvusb::device_id id) {
        std::ostringstream text;
        text << std::hex << std::uppercase << id;
        return text.str();
    }

private:
    std::vector<int> m_plugged;
};

// Counts the events of connected readers, and remembers the last ID.
class Counter {
public:
    void operator()(const gvusb::event& event) {
        m_last = event.id;
        ++m_count;
    }
    [[nodiscard]] int count() const { return m_count; }
    [[nodiscard]] bool reaches(int count) const {
        return eventually([&] { return m_count >= count; });
    }
    [[nodiscard]] bool sees(gvusb::device_id id) const {
        return eventually([&] { return m_last == id; });
    }

private:
    std::atomic<int> m_count = 0;
    std::atomic<gvusb::device_id> m_last = 0;
};

constexpr std::array<unsigned char, 5> frame{0x02, 0x00, 0x07, 0xFF, 0x01};

// Readers.

using Reader = GvusbHpp;

TEST_F(Reader, IsClosedByItsDestructor) {
    int handle = 0;
    {
        const gvusb::reader reader = gvusb::open(bulkId);
        handle = reader.handle();
        EXPECT_TRUE(reader);
        EXPECT_TRUE(isOpen(handle));
    }
    EXPECT_FALSE(isOpen(handle));
}

TEST_F(Reader, IsEmptyAfterItWasMoved) {
    gvusb::reader reader = gvusb::open(bulkId);
    const int handle = reader.handle();
    gvusb::reader other = std::move(reader);
    EXPECT_FALSE(
        reader); // NOLINT(bugprone-use-after-move, clang-analyzer-cplusplus.Move): that is the question
    EXPECT_EQ(other.handle(), handle);
    EXPECT_TRUE(isOpen(handle));
    gvusb::reader third = gvusb::open(controlId);
    const int thirdHandle = third.handle();
    third = std::move(other);
    EXPECT_FALSE(isOpen(thirdHandle));
    EXPECT_TRUE(isOpen(handle));
}

TEST_F(Reader, IsClosedByTheLastOfTwoObjects) {
    auto first = std::make_unique<gvusb::reader>(gvusb::open(bulkId));
    const int handle = first->handle();
    std::vector<gvusb::reader> all = gvusb::open_all();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[1].handle(), handle);
    first.reset();
    EXPECT_TRUE(isOpen(handle));
    all.clear();
    EXPECT_FALSE(isOpen(handle));
}

TEST_F(Reader, StaysOpenWhenReleased) {
    gvusb::reader reader = gvusb::open(bulkId);
    const int handle = reader.release();
    EXPECT_FALSE(reader);
    EXPECT_TRUE(isOpen(handle));
    gvusb::reader(handle).close();
    EXPECT_FALSE(isOpen(handle));
}

TEST_F(Reader, FailsIfItIsEmpty) {
    gvusb::reader reader;
    std::vector<unsigned char> answer(512);
    EXPECT_EQ(codeOf([&] { reader.transceive(frame, answer); }), gvusb::errc::null_handle);
    EXPECT_EQ(codeOf([&] { static_cast<void>(reader.id()); }), gvusb::errc::null_handle);
    EXPECT_EQ(codeOf([&] { static_cast<void>(reader.present()); }), gvusb::errc::null_handle);
    EXPECT_EQ(codeOf([&] { reader.set_timeout(1s); }), gvusb::errc::null_handle);
    reader.close();
    EXPECT_EQ(reader.release(), 0);
}

TEST_F(Reader, IsFoundWithoutAScan) {
    GVUSB_ClearScanList();
    EXPECT_TRUE(gvusb::open(bulkId).present());
    const gvusb::device_id id = plug();
    EXPECT_TRUE(eventually([&] {
        std::error_code ec;
        const gvusb::reader reader = gvusb::open(id, ec);
        return !ec && reader.present();
    }));
}

TEST_F(Reader, IsOpenedFromAScanEntry) {
    const std::vector<gvusb::scan_entry> entries = gvusb::scan(gvusb::by_id(controlId));
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].id(), controlId);
    EXPECT_EQ(entries[0].name(), "Control reader");
    EXPECT_EQ(entries[0].family(), "Gate");
    EXPECT_EQ(entries[0].interface_type(), "TESK-RCI2");
    std::error_code ec;
    EXPECT_EQ(entries[0].open().handle(), entries[0].open(ec).handle());
    EXPECT_EQ(entries[0].open().type_number(), "G-200");
}

TEST_F(Reader, KeepsTheOthersOpenIfOneCannotBeOpened) {
    bus("refuse 1 EACCES");
    std::error_code ec;
    EXPECT_EQ(gvusb::open_all({}, ec).size(), 1U);
    EXPECT_FALSE(ec) << "a reader that cannot be identified is not found";
    bus("refuse 1 off");
    const int failing = ::plug_new("id=E1,configuration=2+1");
    bus("fail-configuration %d on", failing);
    ASSERT_TRUE(eventually([] { return gvusb::scan().size() == 3; }));
    const std::vector<gvusb::reader> readers = gvusb::open_all({}, ec);
    EXPECT_EQ(readers.size(), 2U);
    EXPECT_EQ(ec, gvusb::errc::set_configuration);
    EXPECT_EQ(codeOf([] { static_cast<void>(gvusb::open_all()); }), gvusb::errc::set_configuration);
    bus("fail-configuration %d off", failing);
    bus("unplug %d", failing);
}

TEST_F(Reader, RefusesNumbersThatTheLibraryWouldChange) {
    gvusb::reader reader = gvusb::open(bulkId);
    reader.set_timeout(250ms);
    for (const std::chrono::milliseconds wrong : {-1ms, 0ms, std::chrono::milliseconds(4294967296)}) {
        EXPECT_EQ(codeOf([&] { reader.set_timeout(wrong); }), gvusb::errc::out_of_range);
    }
    EXPECT_EQ(reader.timeout(), 250ms);
    reader.set_timeout(std::chrono::milliseconds(4294967295));
    EXPECT_EQ(reader.timeout(), std::chrono::milliseconds(4294967295));
    EXPECT_EQ(codeOf([] { gvusb::driver::set_update_interval(-1us); }), gvusb::errc::out_of_range);
    EXPECT_EQ(codeOf([] { gvusb::driver::set_update_interval(4294967296us); }), gvusb::errc::out_of_range);
}

TEST_F(Reader, IsFoundByNamesThatFit) {
    EXPECT_TRUE(gvusb::scan(gvusb::by_family(std::string(25, 'x'))).empty());
    EXPECT_TRUE(gvusb::scan(gvusb::by_name(std::string(50, 'x'))).empty());
    EXPECT_TRUE(gvusb::scan(gvusb::by_name({})).empty());
    std::error_code ec;
    static_cast<void>(gvusb::by_family(std::string(26, 'x'), ec));
    EXPECT_EQ(ec, gvusb::errc::out_of_range);
    static_cast<void>(gvusb::by_name(std::string(51, 'x'), ec));
    EXPECT_EQ(ec, gvusb::errc::out_of_range);
    EXPECT_EQ(codeOf([] { static_cast<void>(gvusb::by_family({"a\0b", 3})); }), gvusb::errc::out_of_range);
    EXPECT_EQ(gvusb::scan(gvusb::by_family("Desk"), ec).size(), 1U);
    EXPECT_FALSE(ec);
}

TEST_F(Reader, HasTheVersionOfTheLibrary) {
    EXPECT_EQ(gvusb::version(), "07.01.00");
    EXPECT_EQ(gvusb::driver::mode(), gvusb::hotplug_mode::polling);
}

// Frames.

using Frames = GvusbHpp;

TEST_F(Frames, AreAnyRangeOfBytes) {
    gvusb::reader reader = gvusb::open(bulkId);
    std::array<std::byte, 512> answer{};
    const auto check = [&](std::size_t count) {
        EXPECT_EQ(count, frame.size());
        EXPECT_EQ(std::memcmp(answer.data(), frame.data(), frame.size()), 0);
        answer.fill(std::byte{0xAA});
    };
    const std::vector<std::byte> vector(reinterpret_cast<const std::byte*>(frame.data()),
                                        reinterpret_cast<const std::byte*>(frame.data()) + frame.size());
    const unsigned char array[] = {0x02, 0x00, 0x07, 0xFF, 0x01};
    check(reader.transceive(frame, answer));
    check(reader.transceive(vector, answer));
    check(reader.transceive(array, answer));
    check(reader.transceive(std::string_view("\x02\x00\x07\xFF\x01", 5), answer));
    check(reader.transceive({frame.data(), frame.size()}, {answer.data(), answer.size()}));
    check(reader.transceive(frame.data(), frame.size(), answer.data(), answer.size()));
    const void* const untyped = frame.data();
    reader.transmit(untyped, frame.size());
    check(reader.receive(static_cast<void*>(answer.data()), answer.size()));
    reader.transmit(vector);
    check(reader.receive(answer));
#ifdef __cpp_lib_span
    check(reader.transceive(std::span(frame), std::span(answer)));
    check(reader.transceive(std::as_bytes(std::span(frame)), std::as_writable_bytes(std::span(answer))));
#endif
    static_assert(!std::is_constructible_v<gvusb::const_bytes, decltype("text")>);
    static_assert(!std::is_constructible_v<gvusb::const_bytes, const std::vector<int>&>);
    static_assert(!std::is_constructible_v<gvusb::mutable_bytes, const std::vector<char>&>);
}

TEST_F(Frames, AreReturnedAsVectors) {
    gvusb::reader reader = gvusb::open(bulkId);
    std::error_code ec = make_error_code(gvusb::errc::internal);
    const std::vector<unsigned char> sent(700, 0xA5);
    EXPECT_EQ(reader.transceive(sent).size(), 700U);
    EXPECT_EQ(reader.transceive(sent, ec).size(), 700U);
    EXPECT_FALSE(ec);
    EXPECT_EQ(reader.transceive(sent, 512).size(), 512U);
    EXPECT_EQ(reader.receive(), std::vector<std::byte>(188, std::byte{0xA5}));
    EXPECT_TRUE(reader.transceive({sent.data(), 0}, ec).empty());
    EXPECT_EQ(ec, gvusb::errc::no_send_data);
    EXPECT_TRUE(reader.receive(0, ec).empty());
    EXPECT_EQ(ec, gvusb::errc::receive_buffer_too_small);
}

TEST_F(Frames, AreExchangedWithoutAllocation) {
    if (!allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    for (const gvusb::device_id id : {bulkId, controlId}) {
        gvusb::reader reader = gvusb::open(id);
        std::array<std::byte, 512> answer{};
        std::error_code ec;
        reader.transceive(frame, answer);
        const std::size_t before = support::allocations();
        for (int i = 0; i < 100; ++i) {
            reader.transceive(frame, answer);
            reader.transceive(frame, answer, ec);
            reader.transmit(frame);
            reader.receive(answer, ec);
        }
        EXPECT_EQ(support::allocations() - before, 0U);
    }
}

// Errors.

using Errors = GvusbHpp;

TEST_F(Errors, AreSystemErrors) {
    try {
        static_cast<void>(gvusb::open(0x77));
        FAIL() << "there is no such reader";
    } catch (const std::system_error& failure) {
        EXPECT_STREQ(failure.what(), "gvusb::open: GVUSB: (-1140) device not scanned");
        EXPECT_EQ(failure.code().value(), GVUSB_ERR_NOT_SCANNED);
        EXPECT_STREQ(failure.code().category().name(), "gvusb");
        EXPECT_TRUE(failure.code() == gvusb::errc::not_scanned);
        EXPECT_TRUE(failure.code() != gvusb::errc::timeout);
        EXPECT_NE(dynamic_cast<const gvusb::error*>(&failure), nullptr);
    }
}

TEST_F(Errors, CompareToPortableConditions) {
    const auto condition = [](gvusb::errc code) { return make_error_code(code).default_error_condition(); };
    EXPECT_EQ(condition(gvusb::errc::timeout), std::errc::timed_out);
    EXPECT_EQ(condition(gvusb::errc::not_present), std::errc::no_such_device);
    EXPECT_EQ(condition(gvusb::errc::cannot_claim), std::errc::device_or_resource_busy);
    EXPECT_EQ(condition(gvusb::errc::no_memory), std::errc::not_enough_memory);
    EXPECT_EQ(condition(gvusb::errc::out_of_range), std::errc::invalid_argument);
    EXPECT_EQ(condition(gvusb::errc::unsupported_method), std::errc::function_not_supported);
    EXPECT_EQ(condition(gvusb::errc::bulk_transfer).category(), gvusb::category());
}

TEST_F(Errors, ArePrintedByName) {
    std::ostringstream text;
    text << gvusb::errc::timeout << ' ' << gvusb::errc::no_scan_list_entry << ' '
         << static_cast<gvusb::errc>(-1);
    EXPECT_EQ(text.str(), "GVUSB_ERR_TIMEOUT GVUSB_NO_SCAN_LIST_ENTRY -1");
    EXPECT_EQ(to_string(gvusb::errc::bulk_transfer), "GVUSB_ERR_BULK_TRANSFER");
}

TEST_F(Errors, AreNotThrownByCallsWithAnErrorCode) {
    gvusb::reader reader;
    std::error_code ec;
    std::array<std::byte, 1> buffer{};
    static_assert(noexcept(gvusb::open(1, ec))&& noexcept(gvusb::open_first({}, ec))&& noexcept(
        gvusb::open_all({}, ec))&& noexcept(gvusb::scan(ec)));
    static_assert(noexcept(reader.transceive(buffer, buffer, ec))&& noexcept(reader.transmit(
        buffer, ec))&& noexcept(reader.receive(buffer, ec))&& noexcept(reader.transceive(buffer, ec)));
    static_assert(noexcept(reader.close(ec))&& noexcept(reader.id(ec))&& noexcept(
        reader.present(ec))&& noexcept(reader.timeout(ec))&& noexcept(reader.set_timeout({}, ec)));
    static_assert(!noexcept(reader.transceive(buffer, buffer)));
    EXPECT_EQ(reader.name(ec), "");
    EXPECT_EQ(ec, gvusb::errc::null_handle);
}

// Make each allocation of a call fail in turn, until none is left. The call must report this and leave no reader open.
template <class Call>
void failEachAllocation(Call call) {
    for (std::size_t n = 1;; ++n) {
        std::error_code ec;
        bool happened = false;
        {
            const support::AllocationFailure failure = support::failAllocation(n);
            call(ec);
            happened = failure.happened();
        }
        if (!happened) {
            EXPECT_FALSE(ec) << ec.message();
            return;
        }
        EXPECT_EQ(ec, gvusb::errc::no_memory);
    }
}

TEST_F(Errors, MeanThatMemoryRunsOut) {
    if (!allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    failEachAllocation([](std::error_code& ec) { static_cast<void>(gvusb::scan(ec)); });
    failEachAllocation([](std::error_code& ec) { static_cast<void>(gvusb::open_first({}, ec)); });
    EXPECT_EQ(GVUSB_GetDeviceList(0), 0);
    gvusb::reader reader = gvusb::open(bulkId);
    failEachAllocation([&](std::error_code& ec) { static_cast<void>(reader.transceive(frame, ec)); });
    failEachAllocation([&](std::error_code& ec) {
        const gvusb::watch watch([] {}, nullptr, ec);
        EXPECT_EQ(static_cast<bool>(watch), !ec);
    });
    failEachAllocation([](std::error_code& ec) { const gvusb::event_source source(ec); });
    std::error_code ec;
    reader.receive(std::vector<std::byte>().max_size() + 1, ec);
    EXPECT_EQ(ec, gvusb::errc::no_memory);
}

// Watches.

using Watch = GvusbHpp;

TEST_F(Watch, CallsAnyCallable) {
    Counter counter;
    int departures = 0;
    std::promise<void> departed;
    const auto owned = std::make_unique<int>(0);
    const gvusb::watch watch(std::ref(counter), [&, moved = std::make_shared<int>(5)] {
        departures = *moved;
        departed.set_value();
    });
    const gvusb::watch nothing(nullptr, nullptr);
    const gvusb::device_id id = plug();
    EXPECT_TRUE(counter.sees(id));
    bus("unplug %d", bulk);
    EXPECT_EQ(departed.get_future().wait_for(longEnough), std::future_status::ready);
    EXPECT_EQ(departures, 5);
    EXPECT_EQ(counter.count(), 1);
    bus("plug %d", bulk);
}

TEST_F(Watch, CallsWatchesInTheirOrder) {
    std::mutex mutex;
    std::string order;
    const auto note = [&](char name) {
        return [&, name] {
            const std::lock_guard<std::mutex> lock(mutex);
            order += name;
        };
    };
    gvusb::watch first(note('a'), nullptr);
    gvusb::watch second(note('b'), nullptr);
    const gvusb::watch third(note('c'), nullptr);
    Counter counter;
    const gvusb::watch last(std::ref(counter), nullptr);
    EXPECT_TRUE(counter.sees(plug()));
    first = std::move(second);
    EXPECT_FALSE(
        second); // NOLINT(bugprone-use-after-move, clang-analyzer-cplusplus.Move): that is the question
    EXPECT_TRUE(counter.sees(plug()));
    const std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(order, "abcbc");
}

TEST_F(Watch, CallsNothingAfterItsEnd) {
    Counter ended;
    Counter other;
    {
        const gvusb::watch watch(std::ref(ended), nullptr);
        EXPECT_TRUE(ended.sees(plug()));
    }
    const gvusb::watch watch(std::ref(other), nullptr);
    EXPECT_TRUE(other.sees(plug()));
    EXPECT_EQ(ended.count(), 1);
}

TEST_F(Watch, MayBeDestroyedInItsOwnCallable) {
    std::atomic<int> calls = 0;
    const auto alive = std::make_shared<int>(0);
    auto watch = std::make_unique<gvusb::watch>();
    *watch = gvusb::watch(
        [&, kept = alive] {
            watch.reset();
            EXPECT_EQ(kept.use_count(), 2) << "the callable was destroyed while it runs";
            ++calls;
        },
        nullptr);
    plug();
    EXPECT_TRUE(eventually([&] { return calls == 1 && alive.use_count() == 1; }));
    // The next watch works, and this one is not called any more.
    Counter counter;
    const gvusb::watch next(std::ref(counter), nullptr);
    EXPECT_TRUE(counter.sees(plug()));
    EXPECT_EQ(calls, 1);
}

TEST_F(Watch, MayBeCreatedAndDestroyedInCallables) {
    Counter counter;
    std::list<gvusb::watch> created;
    gvusb::watch victim([] { ADD_FAILURE() << "called although it was destroyed before"; }, nullptr);
    gvusb::watch last;
    std::atomic<bool> done = false;
    auto first = std::make_unique<gvusb::watch>();
    {
        gvusb::watch early([&] { victim = {}; }, nullptr);
        // Watches are called in order: move the victim behind the one that destroys it.
        victim = gvusb::watch([] { ADD_FAILURE() << "called although it was destroyed before"; }, nullptr);
        *first = gvusb::watch(
            [&] {
                if (!done) {
                    created.emplace_back(std::ref(counter), nullptr);
                    done = true;
                }
            },
            nullptr);
        plug();
        EXPECT_TRUE(eventually([&] { return done.load(); }));
    }
    EXPECT_EQ(counter.count(), 0) << "called for the event during which it was created";
    EXPECT_TRUE(counter.sees(plug()));
    first.reset();
    EXPECT_TRUE(counter.sees(plug()));
}

TEST_F(Watch, WaitsForACallInProgressWhenItIsDestroyed) {
    std::promise<void> started;
    std::atomic<bool> returned = false;
    auto watch = std::make_unique<gvusb::watch>(
        [&] {
            started.set_value();
            std::this_thread::sleep_for(100ms);
            returned = true;
        },
        nullptr);
    plug();
    ASSERT_EQ(started.get_future().wait_for(longEnough), std::future_status::ready);
    watch.reset();
    EXPECT_TRUE(returned);
}

TEST_F(Watch, LetsItsCallablesUseReaders) {
    std::promise<std::size_t> answered;
    const gvusb::watch watch(
        [&](const gvusb::event& event) {
            gvusb::reader reader = gvusb::open(event.id);
            answered.set_value(reader.transceive(frame).size() + gvusb::scan().size());
        },
        nullptr);
    plug();
    std::future<std::size_t> result = answered.get_future();
    ASSERT_EQ(result.wait_for(longEnough), std::future_status::ready);
    EXPECT_EQ(result.get(), frame.size() + 3);
}

TEST_F(Watch, EndsTheProgramIfACallableThrows) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const gvusb::watch watch([] { throw std::runtime_error("from a callable"); }, nullptr);
            plug();
            std::this_thread::sleep_for(longEnough);
        },
        testing::KilledBySignal(SIGABRT), "from a callable");
    bus("unplug %d", reader_count()); // the reader that the other process has plugged in
}

TEST_F(Watch, MayBeCreatedAndDestroyedByManyThreads) {
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                Counter counter;
                const gvusb::watch watch(std::ref(counter), [&] { static_cast<void>(gvusb::scan()); });
                const gvusb::event_source source;
                static_cast<void>(source.fd());
            }
        });
    }
    {
        gvusb::event_source source;
        for (int i = 0; i < 5; ++i) {
            const gvusb::device_id id = plug();
            ASSERT_TRUE(source.wait(longEnough));
            EXPECT_EQ(source.read().id, id);
        }
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Event sources.

using EventSource = GvusbHpp;

bool isReadable(const gvusb::event_source& source, std::chrono::milliseconds longest) {
    pollfd waiting{source.fd(), POLLIN, 0};
    return ::poll(&waiting, 1, static_cast<int>(longest.count())) == 1 && (waiting.revents & POLLIN) != 0;
}

TEST_F(EventSource, IsReadableWhileAnEventWaits) {
    gvusb::event_source source;
    EXPECT_FALSE(isReadable(source, 0ms));
    EXPECT_FALSE(source.wait(0ms));
    const gvusb::device_id first = plug();
    EXPECT_TRUE(isReadable(source, longEnough));
    const gvusb::device_id second = plug();
    gvusb::event event = source.read();
    EXPECT_EQ(event.id, first);
    EXPECT_EQ(event.kind, gvusb::event_kind::connect);
    EXPECT_TRUE(isReadable(source, longEnough));
    event = source.read();
    EXPECT_EQ(event.id, second);
    EXPECT_FALSE(isReadable(source, 0ms));
}

TEST_F(EventSource, WaitsForTheNextEvent) {
    gvusb::event_source source;
    auto event = std::async(std::launch::async, [&] { return source.read(); });
    EXPECT_EQ(event.wait_for(20ms), std::future_status::timeout);
    const gvusb::device_id id = plug();
    EXPECT_EQ(event.get().id, id);
}

TEST_F(EventSource, MayBeMoved) {
    gvusb::event_source source;
    gvusb::event_source other = std::move(source);
    EXPECT_EQ(source.fd(),
              -1); // NOLINT(bugprone-use-after-move, clang-analyzer-cplusplus.Move): that is the question
    gvusb::event_source third;
    third = std::move(other);
    const gvusb::device_id id = plug();
    EXPECT_EQ(third.read().id, id);
}

TEST_F(EventSource, DescribesEvents) {
    const gvusb::event connected{gvusb::event_kind::connect, 0x1A2B3C, 0};
    const gvusb::event disconnected{gvusb::event_kind::disconnect, 0x1A2B3C, 0x10000001};
    std::ostringstream text;
    text << connected << ", " << disconnected << ", " << gvusb::event_kind::connect;
    EXPECT_EQ(text.str(), "connect 1A2B3C, disconnect 1A2B3C 0x10000001, connect");
    EXPECT_EQ(to_string(disconnected), "disconnect 1A2B3C 0x10000001");
}

} // namespace
