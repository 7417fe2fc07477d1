#include "fleet/service/request_memory.h"

#include "fleet/service/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fleet {
namespace {

using Json = nlohmann::json;

constexpr const char* currentName = "requests";
constexpr const char* olderName = "requests.older";
constexpr const char* nextName = "requests.next"; // while it is written
constexpr std::uint64_t mostBytes = std::uint64_t{1} << 26U;
constexpr const char* stateName = "state.json";
constexpr mode_t onlyOwner = 0600;

// A record: its size without this number, its kind, the key, and for an answer the answer.
constexpr char begun = 'B';
constexpr char answered = 'A';
constexpr char delivered = 'D';

template <class Number>
void put(std::string& bytes, Number number) {
    std::array<char, sizeof number> raw{};
    std::memcpy(raw.data(), &number, sizeof number);
    bytes.append(raw.data(), raw.size());
}

void putText(std::string& bytes, std::string_view text) {
    put(bytes, static_cast<std::uint32_t>(text.size()));
    bytes.append(text);
}

// Takes values off the front of a record. Once a value is missing, all others are empty and ok() is false.
class Taker {
public:
    explicit Taker(std::string_view bytes)
        : m_bytes(bytes) {}

    template <class Number>
    Number take() {
        Number number = 0;
        if (m_bytes.size() < sizeof number) {
            m_ok = false;
            m_bytes = {};
            return number;
        }
        std::memcpy(&number, m_bytes.data(), sizeof number);
        m_bytes.remove_prefix(sizeof number);
        return number;
    }

    std::string takeText() {
        const auto size = take<std::uint32_t>();
        if (m_bytes.size() < size) {
            m_ok = false;
            m_bytes = {};
            return {};
        }
        std::string text(m_bytes.substr(0, size));
        m_bytes.remove_prefix(size);
        return text;
    }

    bool ok() const { return m_ok; }
    std::string_view rest() const { return m_bytes; }

private:
    std::string_view m_bytes;
    bool m_ok = true;
};

std::string answerBytes(const Answer& answer) {
    std::string bytes;
    put(bytes, static_cast<std::uint8_t>(answer.status));
    put(bytes, static_cast<std::uint8_t>(answer.code.has_value()));
    put(bytes, static_cast<std::int32_t>(answer.code.value_or(0)));
    put(bytes, static_cast<std::uint8_t>(answer.microseconds.has_value()));
    put(bytes, answer.microseconds.value_or(0));
    putText(bytes, answer.text);
    putText(bytes, answer.payload);
    return bytes;
}

std::optional<Answer> parseAnswer(std::string_view bytes) {
    Taker taker(bytes);
    Answer answer;
    const auto status = taker.take<std::uint8_t>();
    const bool hasCode = taker.take<std::uint8_t>() != 0;
    const auto code = taker.take<std::int32_t>();
    const bool hasDuration = taker.take<std::uint8_t>() != 0;
    const auto microseconds = taker.take<std::uint64_t>();
    answer.text = taker.takeText();
    answer.payload = taker.takeText();
    if (!taker.ok() || status > static_cast<std::uint8_t>(Status::unknown)) {
        return std::nullopt;
    }
    answer.status = static_cast<Status>(status);
    answer.code = hasCode ? std::optional(code) : std::nullopt;
    answer.microseconds = hasDuration ? std::optional(microseconds) : std::nullopt;
    return answer;
}

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

// Write all or nothing. Returns 0 or the system's error.
int writeAt(int descriptor, std::string_view bytes, std::uint64_t offset) {
    const std::uint64_t before = offset;
    while (!bytes.empty()) {
        const ssize_t written = ::pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            const int error = written == 0 ? ENOSPC : errno;
            [[maybe_unused]] const int restored = ::ftruncate(descriptor, static_cast<off_t>(before));
            return error;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
        offset += static_cast<std::uint64_t>(written);
    }
    return 0;
}

std::string readAll(int descriptor, std::uint64_t size) {
    std::string bytes(size, '\0');
    std::size_t count = 0;
    while (count < bytes.size()) {
        const ssize_t got =
            ::pread(descriptor, bytes.data() + count, bytes.size() - count, static_cast<off_t>(count));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        count += static_cast<std::size_t>(got);
    }
    bytes.resize(count);
    return bytes;
}

std::string bootId() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string id;
    std::getline(file, id);
    return id;
}

} // namespace

RequestMemory::RequestMemory(std::string folder, std::size_t requests)
    : m_folder(std::move(folder))
    , m_requests(requests) {
    lock();
    m_machineCrashed = !readState();
    // The process may have been killed in rotate().
    if (std::filesystem::exists(path(currentName)) || !std::filesystem::exists(path(nextName))) {
        std::filesystem::remove(path(nextName));
    } else {
        std::filesystem::rename(path(nextName), path(currentName));
    }
    m_files[0] = openFile(olderName, 0);
    m_files[1] = openFile(currentName, 0);
    load(0);
    load(1);
    writeState(false);
    answerRunning();
}

RequestMemory::~RequestMemory() {
    for (const File& file : m_files) {
        ::close(file.descriptor);
    }
    ::close(m_lock);
}

void RequestMemory::lock() {
    constexpr mode_t onlyOwnersFolder = 0700;
    if (::mkdir(m_folder.c_str(), onlyOwnersFolder) != 0 && errno != EEXIST) {
        fail(m_folder);
    }
    const std::string name = path("lock");
    m_lock = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, onlyOwner);
    if (m_lock < 0) {
        fail(name);
    }
    if (::flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            throw std::system_error(EBUSY, std::generic_category(),
                                    m_folder + ": another gvusb-mqtt uses this folder");
        }
        fail(name);
    }
}

RequestMemory::File RequestMemory::openFile(const char* name, int flags) const {
    const std::string full = path(name);
    File file;
    file.descriptor = ::open(full.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | flags, onlyOwner);
    struct stat facts = {};
    if (file.descriptor < 0 || ::fstat(file.descriptor, &facts) != 0) {
        fail(full);
    }
    file.size = static_cast<std::uint64_t>(facts.st_size);
    return file;
}

// A crash of the machine may have cut the file off or filled its end with zeros: keep what is whole.
void RequestMemory::load(std::uint8_t number) {
    File& file = m_files[number];
    const std::string bytes = readAll(file.descriptor, file.size);
    std::uint64_t offset = 0;
    for (;;) {
        Taker taker(std::string_view(bytes).substr(offset));
        const auto size = taker.take<std::uint32_t>();
        if (!taker.ok() || size == 0 || taker.rest().size() < size) {
            break;
        }
        apply(number, taker.rest().substr(0, size), offset + sizeof size);
        offset += sizeof size + size;
    }
    if (offset != file.size) {
        service_log::warning(m_folder + ": dropped " + std::to_string(file.size - offset) +
                             " damaged bytes at the end of a file");
        [[maybe_unused]] const int cut = ::ftruncate(file.descriptor, static_cast<off_t>(offset));
        file.size = offset;
    }
}

void RequestMemory::apply(std::uint8_t number, std::string_view record, std::uint64_t offset) {
    Taker taker(record);
    const auto kind = taker.take<char>();
    RequestKey key;
    key.responseTopic = taker.takeText();
    key.correlationData = taker.takeText();
    if (!taker.ok()) {
        return;
    }
    const auto [entry, isNew] = m_entries.try_emplace(std::move(key));
    if (isNew) {
        m_files[number].keys.push_back(&entry->first);
    }
    if (kind == answered) {
        entry->second.answered = true;
        entry->second.file = number;
        entry->second.offset = offset + (record.size() - taker.rest().size());
        entry->second.size = static_cast<std::uint32_t>(taker.rest().size());
    } else if (kind == delivered) {
        entry->second.delivered = true;
    }
}

// The earlier process has ended while they ran, or before it could note their answers.
void RequestMemory::answerRunning() {
    const Answer unknown{.status = Status::unknown,
                         .text = "the service ended before it could answer; the request may have run"};
    std::vector<RequestKey> keys;
    for (const auto& [key, entry] : m_entries) {
        if (!entry.answered) {
            keys.push_back(key);
        }
    }
    for (const RequestKey& key : keys) {
        setAnswer(key, unknown);
    }
    if (const int error = write(); error != 0) {
        throw std::system_error(error, std::generic_category(), m_folder);
    }
}

RequestMemory::State RequestMemory::state(const RequestKey& key) const {
    const auto found = m_entries.find(key);
    if (found == m_entries.end()) {
        return State::unknownRequest;
    }
    return found->second.answered ? State::answered : State::running;
}

std::optional<Answer> RequestMemory::answer(const RequestKey& key) const {
    const auto found = m_entries.find(key);
    if (found == m_entries.end() || !found->second.answered || found->second.size == 0) {
        return std::nullopt;
    }
    const Entry& entry = found->second;
    const File& file = m_files[entry.file];
    if (entry.offset >= file.size) {
        // It is not written yet, or could not be written.
        const std::uint64_t position = entry.offset - file.size;
        return position < m_unwritten.size()
                   ? parseAnswer(std::string_view(m_unwritten).substr(position, entry.size))
                   : std::nullopt;
    }
    std::string bytes(entry.size, '\0');
    const ssize_t got =
        ::pread(file.descriptor, bytes.data(), bytes.size(), static_cast<off_t>(entry.offset));
    return got == static_cast<ssize_t>(bytes.size()) ? parseAnswer(bytes) : std::nullopt;
}

void RequestMemory::append(char kind, const RequestKey& key, std::string_view rest) {
    const std::size_t size =
        1 + sizeof(std::uint32_t) * 2 + key.responseTopic.size() + key.correlationData.size() + rest.size();
    put(m_unwritten, static_cast<std::uint32_t>(size));
    put(m_unwritten, kind);
    putText(m_unwritten, key.responseTopic);
    putText(m_unwritten, key.correlationData);
    m_unwritten.append(rest);
}

void RequestMemory::begin(const RequestKey& key) {
    const auto [entry, isNew] = m_entries.try_emplace(key);
    if (isNew) {
        m_files[m_current].keys.push_back(&entry->first);
    }
    append(begun, key, {});
}

void RequestMemory::setAnswer(const RequestKey& key, const Answer& answer) {
    const auto found = m_entries.find(key);
    if (found == m_entries.end()) {
        return;
    }
    const std::string bytes = answerBytes(answer);
    append(answered, key, bytes);
    Entry& entry = found->second;
    entry.answered = true;
    entry.file = m_current;
    entry.size = static_cast<std::uint32_t>(bytes.size());
    entry.offset = m_files[m_current].size + m_unwritten.size() - bytes.size();
}

void RequestMemory::setDelivered(const RequestKey& key) {
    if (const auto found = m_entries.find(key); found != m_entries.end() && !found->second.delivered) {
        found->second.delivered = true;
        append(delivered, key, {});
    }
}

void RequestMemory::forget(const RequestKey& key) {
    for (File& file : m_files) {
        std::erase_if(file.keys, [&](const RequestKey* known) { return *known == key; });
    }
    m_entries.erase(key);
}

int RequestMemory::flush() {
    const int error = write();
    const File& file = m_files[m_current];
    if (error == 0 &&
        (file.keys.size() >= m_requests + m_keptRequests || file.size >= mostBytes + m_keptBytes)) {
        rotate();
    }
    return error;
}

int RequestMemory::write() {
    File& file = m_files[m_current];
    const int error = writeAt(file.descriptor, m_unwritten, file.size);
    if (error == 0) {
        file.size += m_unwritten.size();
    } else {
        for (auto& [key, entry] : m_entries) {
            if (entry.answered && entry.file == m_current && entry.offset >= file.size) {
                entry.size = 0;
            }
        }
    }
    m_unwritten.clear();
    return error;
}

// The current file becomes the older one. What the older one has is forgotten, except requests without a delivered answer:
// they are written to the next file before it takes its place.
void RequestMemory::rotate() {
    const std::uint8_t next = 1 - m_current;
    std::vector<std::pair<RequestKey, std::optional<Answer>>> kept;
    for (const RequestKey* const key : m_files[next].keys) {
        const Entry& entry = m_entries.find(*key)->second;
        if (!entry.answered || !entry.delivered) {
            auto known = answer(*key);
            if (entry.answered && !known) {
                known = Answer{.status = Status::unknown, .text = "the request has run; its answer is lost"};
            }
            kept.emplace_back(*key, std::move(known));
        }
    }
    File fresh;
    try {
        fresh = openFile(nextName, O_TRUNC);
    } catch (const std::system_error& error) {
        service_log::error(error.what()); // the current file goes on
        return;
    }
    for (const RequestKey* const key : m_files[next].keys) {
        m_entries.erase(m_entries.find(*key));
    }
    ::close(m_files[next].descriptor);
    m_files[next] = std::move(fresh);
    m_current = next;
    for (const auto& [key, known] : kept) {
        begin(key);
        if (known) {
            setAnswer(key, *known);
        }
    }
    int error = write();
    if (::rename(path(currentName).c_str(), path(olderName).c_str()) != 0 ||
        ::rename(path(nextName).c_str(), path(currentName).c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        service_log::error(m_folder + ": " + std::generic_category().message(error));
    }
    m_keptRequests = kept.size();
    m_keptBytes = m_files[m_current].size;
}

std::vector<RequestKey> RequestMemory::undelivered() const {
    std::vector<RequestKey> keys;
    for (const auto& [key, entry] : m_entries) {
        if (entry.answered && !entry.delivered) {
            keys.push_back(key);
        }
    }
    return keys;
}

// Whether all records of the last use must be there.
bool RequestMemory::readState() const {
    std::ifstream file(path(stateName));
    if (!file) {
        return !std::filesystem::exists(path(currentName));
    }
    const Json state = Json::parse(file, nullptr, false);
    if (!state.is_object()) {
        return false;
    }
    const std::string boot = bootId();
    return state.value("complete", false) || (!boot.empty() && state.value("boot", std::string{}) == boot);
}

void RequestMemory::setSessionDiscarded() {
    m_machineCrashed = false;
    writeState(false);
}

void RequestMemory::writeState(bool isComplete) const {
    const std::string name = path(stateName);
    const std::string fresh = name + ".new";
    const std::string boot = m_machineCrashed ? std::string{} : bootId();
    const std::string text =
        Json{{"boot", boot}, {"complete", isComplete && !m_machineCrashed}}.dump() + '\n';
    const int descriptor = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, onlyOwner);
    if (descriptor < 0) {
        fail(fresh);
    }
    const int error = writeAt(descriptor, text, 0);
    const bool synchronized = ::fsync(descriptor) == 0;
    ::close(descriptor);
    if (error != 0 || !synchronized) {
        throw std::system_error(error == 0 ? EIO : error, std::generic_category(), fresh);
    }
    if (::rename(fresh.c_str(), name.c_str()) != 0) {
        fail(name);
    }
}

void RequestMemory::close() {
    int error = flush();
    for (const File& file : m_files) {
        if (::fdatasync(file.descriptor) != 0) {
            error = errno;
        }
    }
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), m_folder);
    }
    writeState(true);
}

} // namespace fleet
