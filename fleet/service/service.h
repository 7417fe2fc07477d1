// The service: takes requests from the broker, has them run, and publishes answers, readers and events.
#pragma once

#include "fleet/mqtt/client.h"
#include "fleet/service/configuration.h"
#include "fleet/service/documents.h"
#include "fleet/service/machine_readers.h"
#include "fleet/service/mailbox.h"
#include "fleet/service/request_memory.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace fleet {

// Everything but running requests and watching the bus happens in one thread.
class Service final : public mqtt::Listener {
public:
    // Finds the readers. Throws if the configuration or the state cannot be used.
    explicit Service(Configuration configuration);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service();

    // Serve until the descriptor, a signalfd, is readable.
    void run(int signals);

    // Whether a connection is being made: then destroying the service may take minutes.
    bool isConnecting() const { return m_client->isConnecting(); }

private:
    using Clock = std::chrono::steady_clock;

    // mqtt::Listener
    void connected(bool sessionPresent) override;
    void refused(int reason) override;
    void disconnected(const std::string& why, int reason) override;
    void received(const mqtt::Message& message) override;
    void acknowledged(int number, int reason) override;
    void subscribed(int number, int reason) override;

    void makeClient(bool cleanStart);
    void connectWhenDue();
    void waitAndProcess(int signals);
    void handleReports();
    void handle(AnsweredRequest answered);
    void handle(const ReaderChange& change);
    void handle(const ReaderProblem& problem);

    void receiveRequest(const Topic& topic, const mqtt::Message& message);
    std::optional<std::string> whyInvalid(const mqtt::Message& message) const;
    void correctDocument(const Topic& topic, std::string_view document);
    void answerAgain(const RequestKey& key);
    void startRequests();
    void start(Request request);
    void finish(const Request& request, Answer answer);
    void noteOutcome(const Request& request, const Answer& answer);

    void publishAll();
    void publishReader(const ReaderFacts& facts, bool connected, std::chrono::system_clock::time_point since);
    void publishStatus(const char* status);
    void publishEvent(const Event& event);
    void sendAnswer(const RequestKey& key, const Answer& answer);
    int publish(const mqtt::Publication& what, const mqtt::Properties& properties);
    void sendAnswers();
    void notifySystemd();
    void end();

    const Configuration m_configuration;
    Mailbox<Report> m_reports;
    RequestMemory m_memory;
    std::unique_ptr<MachineReaders> m_readers;
    std::unique_ptr<mqtt::Client> m_client;

    bool m_isConnected = false;
    bool m_mustDiscardSession = false;
    bool m_isOver = false;
    Clock::time_point m_connectedAt;
    int m_shortConnections = 0; // in a row
    Clock::time_point m_nextConnection;
    std::chrono::milliseconds m_connectPause;
    std::string m_lastLoss; // logged once

    std::vector<Request> m_begun;                       // remembered, but not yet written
    std::unordered_map<int, RequestKey> m_answers;      // sent, by the number of the message
    std::set<int> m_unacknowledged;                     // the numbers of all messages
    std::deque<std::pair<RequestKey, Answer>> m_unsent; // while there is no connection
    std::deque<std::string> m_events;                   // the same
    std::set<std::string, std::less<>> m_failing;       // readers whose last request failed
    std::optional<std::chrono::microseconds> m_watchdog;
    Clock::time_point m_nextNotice;
};

} // namespace fleet
