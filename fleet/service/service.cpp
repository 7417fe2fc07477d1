#include "fleet/service/service.h"

#include "fleet/service/log.h"

#include <algorithm>
#include <array>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <gvusb.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <strings.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>

namespace fleet {
namespace {

constexpr std::chrono::milliseconds firstConnectPause(100);
constexpr std::chrono::milliseconds longestConnectPause(5000);
constexpr std::chrono::seconds shortConnection(2);
constexpr int suspiciousConnections = 3;
constexpr std::chrono::seconds longestEnd(5);
constexpr std::size_t keptEvents = 1000; // while there is no connection
constexpr std::size_t longestResponseTopic = 256;
constexpr std::size_t longestCorrelationData = 128;

RequestKey keyOf(const Request& request) {
    return {.responseTopic = request.responseTopic, .correlationData = request.correlationData};
}

bool canPublishTo(const std::string& topic) {
    return mosquitto_pub_topic_check2(topic.c_str(), topic.size()) == MOSQ_ERR_SUCCESS &&
           !topic.starts_with('$');
}

// Machines that lose their broker together do not come back in the same moment.
std::chrono::milliseconds spread(std::chrono::milliseconds pause) {
    static std::minstd_rand random(std::random_device{}());
    return std::chrono::milliseconds(
        std::uniform_int_distribution<std::int64_t>(pause.count() / 2, pause.count())(random));
}

void warnIfOthersCanRead(const std::string& file) {
    const std::string path = file.empty() ? file : credentialPath(file);
    struct stat facts = {};
    if (!path.empty() && ::stat(path.c_str(), &facts) == 0 && (facts.st_mode & S_IROTH) != 0) {
        service_log::warning("everybody on this machine can read '" + path + "'");
    }
}

} // namespace

Service::Service(Configuration configuration)
    : m_configuration(std::move(configuration))
    , m_memory(m_configuration.stateDirectory, m_configuration.remember)
    , m_mustDiscardSession(m_memory.machineCrashed())
    , m_connectPause(firstConnectPause) {
    makeClient(m_mustDiscardSession);
    const BrokerAddress& address = m_client->address();
    if (!address.tls && !isLoopback(address.host)) {
        service_log::warning("the connection to " + address.host + " is not encrypted (--insecure)");
    }
    warnIfOthersCanRead(m_configuration.broker.passwordFile);
    warnIfOthersCanRead(m_configuration.broker.key);
    m_readers = std::make_unique<MachineReaders>(m_configuration.queue, m_reports);
    handleReports(); // of the readers that are present; they are published with the first connection
    m_events.clear();
    for (const RequestKey& key : m_memory.undelivered()) {
        if (auto answer = m_memory.answer(key)) {
            m_unsent.emplace_back(key, std::move(*answer));
        }
    }
    std::uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) > 0) {
        m_watchdog = std::chrono::microseconds(microseconds);
    }
}

Service::~Service() = default;

void Service::makeClient(bool cleanStart) {
    m_client.reset();
    m_client = std::make_unique<mqtt::Client>(
        mqtt::Client::Options{
            .id = m_configuration.prefix + '-' + m_configuration.machine,
            .cleanStart = cleanStart,
            .sessionExpirySeconds = m_configuration.sessionExpirySeconds,
            .keepAliveSeconds = m_configuration.keepAliveSeconds,
            .broker = m_configuration.broker,
            .will = mqtt::Publication{.topic = statusTopic(m_configuration.prefix, m_configuration.machine),
                                      .payload = offline,
                                      .qos = 1,
                                      .retained = true}},
        *this);
}

void Service::run(int signals) {
    sd_notify(0, "READY=1\nSTATUS=Connecting to the broker");
    while (!m_isOver) {
        connectWhenDue();
        waitAndProcess(signals);
        sendAnswers();
        notifySystemd();
    }
    end();
}

void Service::connectWhenDue() {
    if (!m_isConnected && !m_client->isConnecting() && m_client->descriptor() < 0 &&
        m_nextConnection <= Clock::now()) {
        m_client->beginToConnect();
    }
}

void Service::waitAndProcess(int signals) {
    std::array<pollfd, 3> waited = {
        {{.fd = m_client->descriptor(), .events = m_client->pollEvents(), .revents = 0},
         {.fd = m_reports.descriptor(), .events = POLLIN, .revents = 0},
         {.fd = signals, .events = POLLIN, .revents = 0}}};
    std::chrono::milliseconds longest(1000); // for the keep-alive
    if (!m_isConnected && waited[0].fd < 0) {
        longest = std::clamp(std::chrono::ceil<std::chrono::milliseconds>(m_nextConnection - Clock::now()),
                             std::chrono::milliseconds(0), longest);
    }
    const int count = ::poll(waited.data(), waited.size(), static_cast<int>(longest.count()));
    if (count == 0) {
        m_memory.flush(); // what the broker has taken over
    }
    if (waited[2].revents != 0) {
        m_isOver = true;
    }
    if (waited[1].revents != 0) {
        handleReports();
    }
    m_client->process(waited[0].revents);
    startRequests();
    if (m_isConnected && m_mustDiscardSession) {
        // The session that the broker kept is gone. The next one is to be kept.
        m_mustDiscardSession = false;
        m_memory.setSessionDiscarded();
        m_isConnected = false;
        m_client->disconnect();
        makeClient(false);
        m_nextConnection = Clock::now();
    }
}

void Service::connected(bool sessionPresent) {
    m_isConnected = true;
    m_connectedAt = Clock::now();
    if (m_mustDiscardSession) {
        return;
    }
    const BrokerAddress& address = m_client->address();
    service_log::notice("connected to " + hostAndPort(address) + (address.tls ? " with TLS" : "") + " as " +
                        m_configuration.machine + (sessionPresent ? ", to the session of before" : ""));
    const std::string& prefix = m_configuration.prefix;
    const std::string& machine = m_configuration.machine;
    // A retained request would run again at each connection.
    constexpr int options = MQTT_SUB_OPT_SEND_RETAIN_NEVER;
    m_client->subscribe(readerTopic(prefix, machine, "+") + "/+", 1, options);
    m_client->subscribe(scanTopic(prefix, machine), 1, options);
    m_client->subscribe(readerTopic(prefix, machine, "+"), 1); // documents of readers that are gone
    publishAll();
}

void Service::refused(int reason) {
    disconnected(std::string("the broker refuses the connection: ") + mosquitto_reason_string(reason),
                 reason);
}

void Service::disconnected(const std::string& why, int reason) {
    if (m_isConnected) {
        m_isConnected = false;
        m_lastLoss.clear();
        const bool wasShort = Clock::now() - m_connectedAt < shortConnection;
        m_shortConnections = wasShort ? m_shortConnections + 1 : 0;
        if (!wasShort) {
            m_connectPause = firstConnectPause;
        }
        if (m_shortConnections == suspiciousConnections || reason == MQTT_RC_SESSION_TAKEN_OVER) {
            service_log::error("the broker ends the connections of " + m_configuration.machine +
                               " at once: another client may use this name (--machine)");
        }
    }
    m_nextConnection = Clock::now() + spread(m_connectPause);
    m_connectPause = std::min(2 * m_connectPause, longestConnectPause);
    if (why != m_lastLoss) {
        service_log::warning("no connection to " + m_client->address().host + ": " + why);
        m_lastLoss = why;
    }
}

void Service::received(const mqtt::Message& message) {
    const auto topic = parseTopic(m_configuration.prefix, message.topic);
    if (!topic || topic->machine != m_configuration.machine) {
        return;
    }
    if (topic->kind == Topic::Kind::reader) {
        if (message.retained) {
            correctDocument(*topic, message.payload);
        }
    } else if (topic->kind == Topic::Kind::request && !message.retained) {
        receiveRequest(*topic, message);
    }
}

// Why a request can be neither run nor answered.
std::optional<std::string> Service::whyInvalid(const mqtt::Message& message) const {
    const auto& [responseTopic, correlationData, expiry, userProperties] = message.properties;
    if (responseTopic.empty() || correlationData.empty()) {
        return "it has no response topic or no correlation data";
    }
    if (responseTopic.size() > longestResponseTopic || correlationData.size() > longestCorrelationData) {
        return "its response topic or correlation data is too long";
    }
    // Otherwise a client could have requests and documents published with the rights of this service.
    if (!canPublishTo(responseTopic) || responseTopic.starts_with(m_configuration.prefix + '/')) {
        return "no answer may be published on its response topic";
    }
    return std::nullopt;
}

void Service::receiveRequest(const Topic& topic, const mqtt::Message& message) {
    if (const auto why = whyInvalid(message)) {
        const std::string text =
            "a request '" + std::string(operationName(topic.operation)) + "' was not run: " + *why;
        service_log::warning(text);
        publishEvent(
            {.what = "error",
             .reader = topic.reader.empty() ? std::nullopt : std::optional(std::string(topic.reader)),
             .text = text});
        return;
    }
    Request request{.operation = topic.operation,
                    .reader = std::string(topic.reader),
                    .payload = std::string(message.payload.substr(0, m_configuration.maxPayload)),
                    .responseTopic = message.properties.responseTopic,
                    .correlationData = message.properties.correlationData};
    const RequestKey key = keyOf(request);
    switch (m_memory.state(key)) {
    case RequestMemory::State::answered:
        answerAgain(key);
        return;
    case RequestMemory::State::running:
        return; // its answer is still to come
    case RequestMemory::State::unknownRequest:
        break;
    }
    if (message.properties.expirySeconds) {
        request.expiry = Clock::now() + std::chrono::seconds(*message.properties.expirySeconds);
    }
    m_memory.begin(key);
    if (m_isOver) {
        // libmosquitto has acknowledged it already, so the broker does not keep it for the next start.
        finish(request, {.status = Status::busy, .text = "the service is ending"});
    } else if (message.payload.size() > m_configuration.maxPayload) {
        finish(request, {.status = Status::refused,
                         .text = "the payload is longer than " + std::to_string(m_configuration.maxPayload) +
                                 " bytes"});
    } else {
        m_begun.push_back(std::move(request));
    }
}

// Run what has been received, once the memory is written.
void Service::startRequests() {
    if (m_begun.empty()) {
        return;
    }
    std::vector<Request> begun = std::exchange(m_begun, {});
    if (const int error = m_memory.flush(); error != 0) {
        const std::string why = std::generic_category().message(error);
        service_log::error(m_configuration.stateDirectory + ": " + why);
        for (const Request& request : begun) {
            m_memory.forget(keyOf(request));
            sendAnswer(keyOf(request),
                       {.status = Status::refused, .text = "it cannot be remembered: " + why});
        }
        return;
    }
    for (Request& request : begun) {
        start(std::move(request));
    }
}

void Service::start(Request request) {
    if (request.operation == Operation::scan) {
        if (!m_readers->scan(request)) {
            finish(request, {.status = Status::busy,
                             .text = std::to_string(m_configuration.queue) + " scans wait already"});
        }
        return;
    }
    const auto reader = m_readers->find(request.reader);
    if (reader == nullptr) {
        finish(
            request,
            {.status = Status::absent, .code = GVUSB_ERR_NO_DEVICE_FOUND, .text = "there is no such reader"});
        return;
    }
    if (request.operation == Operation::set && ::strcasecmp(request.payload.c_str(), "CANCEL") == 0) {
        const int code = reader->cancel();
        finish(request, {.status = code < 0 ? Status::failed : Status::ok,
                         .code = code,
                         .text = code < 0 ? gvusb::category().message(code) : "ok",
                         .microseconds = 0});
        return;
    }
    if (!reader->add(request)) {
        finish(request,
               {.status = Status::busy,
                .text = std::to_string(m_configuration.queue) + " requests wait for the reader already"});
    }
}

void Service::answerAgain(const RequestKey& key) {
    auto answer = m_memory.answer(key);
    sendAnswer(key,
               answer ? *answer
                      : Answer{.status = Status::unknown, .text = "the request has run; its answer is lost"});
}

void Service::handleReports() {
    std::vector<Report> reports = m_reports.take();
    for (Report& report : reports) {
        std::visit([this](auto& each) { handle(std::move(each)); }, report);
    }
}

void Service::handle(AnsweredRequest answered) {
    if (answered.request.operation == Operation::scan && answered.answer.status == Status::ok) {
        Json list = Json::array();
        auto readers = m_readers->all();
        std::ranges::sort(readers, {}, [](const auto& reader) { return reader->facts().name; });
        for (const auto& reader : readers) {
            list.push_back(readerDocument(reader->facts(), true, reader->since()));
        }
        answered.answer.code = static_cast<int>(list.size());
        answered.answer.payload = jsonText(list);
    } else {
        noteOutcome(answered.request, answered.answer);
    }
    finish(answered.request, std::move(answered.answer));
}

// Publish the first failure after a success: a reader that fails a thousand times a second is one piece of news.
void Service::noteOutcome(const Request& request, const Answer& answer) {
    if (answer.status == Status::ok) {
        if (const auto found = m_failing.find(request.reader); found != m_failing.end()) {
            m_failing.erase(found);
        }
    } else if (answer.status == Status::failed && m_failing.insert(request.reader).second) {
        service_log::info("reader " + request.reader + ": " + answer.text);
        publishEvent({.what = "error", .reader = request.reader, .code = answer.code, .text = answer.text});
    }
}

void Service::finish(const Request& request, Answer answer) {
    const RequestKey key = keyOf(request);
    m_memory.setAnswer(key, answer);
    m_unsent.emplace_back(key, std::move(answer));
}

void Service::handle(const ReaderChange& change) {
    m_failing.erase(change.facts.name);
    service_log::info("reader " + change.facts.name +
                      (change.connected ? " connected at " : " disconnected from ") + change.facts.path);
    publishReader(change.facts, change.connected, change.time);
    publishEvent({.what = change.connected ? "connect" : "disconnect", .reader = change.facts.name});
}

void Service::handle(const ReaderProblem& problem) {
    service_log::warning(problem.text);
    publishEvent({.what = "error", .text = problem.text});
}

void Service::correctDocument(const Topic& topic, std::string_view document) {
    if (m_readers->find(topic.reader) != nullptr) {
        return;
    }
    // It may be anybody's.
    constexpr std::size_t longestDocument = 4096;
    if (document.size() > longestDocument) {
        return;
    }
    Json known = Json::parse(document, nullptr, false);
    if (known.is_object() && known.contains("connected") && known["connected"] == true) {
        known["connected"] = false;
        known["since"] = utcText(std::chrono::system_clock::now());
        publish({.topic = readerTopic(m_configuration.prefix, m_configuration.machine, topic.reader),
                 .payload = jsonText(known),
                 .qos = 1,
                 .retained = true},
                {});
    }
}

void Service::publishAll() {
    for (const auto& reader : m_readers->all()) {
        publishReader(reader->facts(), true, reader->since());
    }
    publishStatus(online);
    for (const std::string& event : std::exchange(m_events, {})) {
        publish({.topic = eventsTopic(m_configuration.prefix, m_configuration.machine), .payload = event},
                {});
    }
}

void Service::publishReader(const ReaderFacts& facts, bool connected,
                            std::chrono::system_clock::time_point since) {
    if (m_isConnected) {
        publish({.topic = readerTopic(m_configuration.prefix, m_configuration.machine, facts.name),
                 .payload = jsonText(readerDocument(facts, connected, since)),
                 .qos = 1,
                 .retained = true},
                {});
    }
}

void Service::publishStatus(const char* status) {
    publish({.topic = statusTopic(m_configuration.prefix, m_configuration.machine),
             .payload = status,
             .qos = 1,
             .retained = true},
            {});
}

void Service::publishEvent(const Event& event) {
    const std::string text = jsonText(eventDocument(event, std::chrono::system_clock::now()));
    if (m_isConnected) {
        publish({.topic = eventsTopic(m_configuration.prefix, m_configuration.machine), .payload = text}, {});
        return;
    }
    m_events.push_back(text);
    if (m_events.size() > keptEvents) {
        m_events.pop_front();
    }
}

void Service::sendAnswer(const RequestKey& key, const Answer& answer) {
    mqtt::Properties properties;
    properties.addBytes(MQTT_PROP_CORRELATION_DATA, key.correlationData);
    addAnswer(properties, answer);
    if (const int number = publish({.topic = key.responseTopic, .payload = answer.payload}, properties);
        number != 0) {
        m_answers.insert_or_assign(number, key);
    } else {
        m_memory.setDelivered(key); // it never will be
    }
}

// Returns the message's number; 0 if it cannot be sent, such as one that is longer than the broker permits.
int Service::publish(const mqtt::Publication& what, const mqtt::Properties& properties) {
    try {
        const int number = m_client->publish(what, properties);
        m_unacknowledged.insert(number);
        return number;
    } catch (const std::runtime_error& error) {
        service_log::error(error.what());
        return 0;
    }
}

void Service::acknowledged(int number, int reason) {
    m_unacknowledged.erase(number);
    const auto found = m_answers.find(number);
    if (reason >= MQTT_RC_UNSPECIFIED) {
        service_log::warning("the broker refuses " +
                             (found == m_answers.end()
                                  ? std::string("a message")
                                  : "an answer on '" + found->second.responseTopic + '\'') +
                             ": " + mosquitto_reason_string(reason));
    }
    if (found != m_answers.end()) {
        m_memory.setDelivered(found->second);
        m_answers.erase(found);
    }
}

void Service::subscribed(int, int reason) {
    if (reason >= MQTT_RC_UNSPECIFIED) {
        service_log::error(
            std::string("the broker refuses a subscription, so no requests can be received: ") +
            mosquitto_reason_string(reason));
    }
}

void Service::sendAnswers() {
    if (!m_isConnected || m_unsent.empty()) {
        return;
    }
    if (const int error = m_memory.flush(); error != 0) {
        service_log::error(m_configuration.stateDirectory + ": " + std::generic_category().message(error));
    }
    for (const auto& [key, answer] : std::exchange(m_unsent, {})) {
        sendAnswer(key, answer);
    }
}

void Service::notifySystemd() {
    if (m_nextNotice > Clock::now()) {
        return;
    }
    std::string state = m_isConnected ? "STATUS=Connected, " : "STATUS=Not connected, ";
    const std::size_t readers = m_readers->all().size();
    state += std::to_string(readers) + (readers == 1 ? " reader" : " readers");
    if (m_watchdog) {
        state += "\nWATCHDOG=1";
    }
    sd_notify(0, state.c_str());
    constexpr std::chrono::seconds interval(1);
    m_nextNotice =
        Clock::now() + (m_watchdog ? std::min<Clock::duration>(interval, *m_watchdog / 2) : interval);
}

// End in order: answer every request, and let the broker have all that is to be published.
void Service::end() {
    sd_notify(0, "STOPPING=1");
    m_readers->stop();
    const auto last = Clock::now() + longestEnd;
    std::vector<Report> reports = m_reports.take();
    for (Report& report : reports) {
        if (auto* const answered = std::get_if<AnsweredRequest>(&report)) {
            handle(std::move(*answered));
        }
    }
    if (m_isConnected) {
        sendAnswers();
        publishStatus(offline);
    }
    while (m_isConnected && !m_unacknowledged.empty() && Clock::now() < last) {
        constexpr int interval = 100; // milliseconds
        pollfd waited = {.fd = m_client->descriptor(), .events = m_client->pollEvents(), .revents = 0};
        ::poll(&waited, 1, interval);
        m_client->process(waited.revents);
        sendAnswers();
    }
    if (m_isConnected) {
        // If "offline" has not gone out, the broker is to publish it.
        m_client->disconnect(m_unacknowledged.empty() ? MQTT_RC_NORMAL_DISCONNECTION
                                                      : MQTT_RC_DISCONNECT_WITH_WILL_MSG);
    }
    m_memory.close();
}

} // namespace fleet
