// The broker client's sender thread: it hands the outbox's messages to the library as
// fast as the broker takes them, so that the poll loop never waits for the library,
// whose every hand-over takes the locks its network thread holds while it reads and writes.
// The poll loop stages what it publishes and hands it over once a turn; the connection
// tells the sender when the broker is there and how many messages it lets fly.
#ifndef RTUPLC_GATEWAY_MQTT_SENDER_H
#define RTUPLC_GATEWAY_MQTT_SENDER_H

#include "mqtt_outbox.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace rtugw {

class MqttSender {
public:
    // QoS 1 messages awaiting their PUBACK, at most, and never more than the broker
    // grants. Too small a window caps a remote broker 20 ms away at window / 20 ms: 256
    // allows over 10,000 messages a second at that distance, and keeps the library's
    // own list of messages in flight, which it walks at each acknowledgement, short.
    static constexpr long kMaxInflight = 256;

    // Hands one message to the library; false when it refuses (full, or closing).
    using Send = std::function<bool(const Message &)>;
    // How many messages the library holds still unacknowledged, by its own count.
    using Pending = std::function<long()>;

    // `brokerUp` is the connection's: whether the broker is there now.
    MqttSender(size_t capacity, const std::atomic<bool> &brokerUp, Send send, Pending pending);
    ~MqttSender();
    MqttSender(const MqttSender &) = delete;
    MqttSender &operator=(const MqttSender &) = delete;

    void start();
    void stop(); // returns once the thread has ended
    void setFormatter(ValueFormatter formatter);

    // The poll loop's side: staged in order, handed over by flush().
    void publish(Message m, Outbox::Kind kind);
    void publishValue(ValueUpdate v);
    void flush();

    // The connection's side. A new connection: `receiveMaximum` is what the broker
    // grants (0: it did not say), `birth` goes ahead of everything held (none when its
    // topic is empty). The sender starts when woken after the broker is up.
    void connected(long receiveMaximum, const Message &birth);
    void wake() { cv_.notify_one(); }
    // A message the connection handed over itself, counted in flight like the sender's.
    void handedOver() { inFlight_.fetch_add(1); }
    // A message handed over is done with: acknowledged (`delivered`) or given up.
    void done(bool delivered);
    // Nothing waits, nothing is in flight.
    bool idle();

    uint64_t published() const { return published_.load(std::memory_order_relaxed); }
    size_t held();
    uint64_t dropped();

private:
    void loop();
    bool roomInLibrary();

    const std::atomic<bool> &up_;
    const Send send_;
    const Pending pending_;

    // The poll loop's own: what it published since it last handed messages over, in
    // order. Values (the bulk) and messages apart; each message knows how many values
    // came before it.
    std::vector<ValueUpdate> stagedValues_;
    std::vector<std::pair<size_t, std::pair<Message, Outbox::Kind>>> stagedMessages_;

    // The loop meets the sender here.
    std::mutex mu_;
    std::condition_variable cv_;
    Outbox outbox_;              // under mu_
    std::deque<Message> unsent_; // taken from the outbox but refused by the library: go first; under mu_
    bool quit_ = false;          // under mu_
    std::thread thread_;

    std::atomic<uint64_t> published_{0}; // acknowledged by the broker (QoS 1) or written (QoS 0)
    std::atomic<long> inFlight_{0};      // handed over, not yet acknowledged or written
    std::atomic<long> window_{kMaxInflight};
    std::chrono::steady_clock::time_point windowFullSince_{}; // the sender thread's
};

} // namespace rtugw

#endif
