// What the broker client has to send, and how much of it may fly: the poll loop stages
// what it publishes and hands it over once a turn; the connection's own thread takes it
// from here as fast as the broker acknowledges, in batches, so that the poll loop never
// waits for the library and the library writes many messages at once.
#ifndef RTUPLC_GATEWAY_MQTT_SENDER_H
#define RTUPLC_GATEWAY_MQTT_SENDER_H

#include "mqtt_outbox.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
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
    MqttSender(const MqttSender &) = delete;
    MqttSender &operator=(const MqttSender &) = delete;

    void setFormatter(ValueFormatter formatter);

    // The poll loop's side: staged in order, handed over by flush(), which says whether
    // the connection's thread waits for work and must be woken.
    void publish(Message m, Outbox::Kind kind);
    void publishValue(ValueUpdate v);
    bool flush();

    // The connection's side. A new connection: `receiveMaximum` is what the broker
    // grants (0: it did not say), `birth` goes ahead of everything held (none when its
    // topic is empty).
    void connected(long receiveMaximum, const Message &birth);
    // Hands the library the next batch of what waits, in order, as far as the window
    // lets; what it handed.
    struct Round {
        size_t sent = 0;
        bool more = false;    // a whole batch went: more may wait
        bool full = false;    // the window is full: wait for acknowledgements
        bool refused = false; // the library took no more: try again shortly
    };
    Round handOver();
    // Before the connection's thread waits: true when nothing waits, and the next
    // flush() then asks for it to be woken.
    bool waitForWork();
    // A message the connection handed over itself, counted in flight like the sender's.
    void handedOver() { inFlight_.fetch_add(1); }
    // A message handed over is done with: acknowledged (`delivered`) or given up.
    void done(bool delivered);
    // Nothing waits, nothing is in flight.
    bool idle();
    // Messages that may await their PUBACK at once, as the broker granted.
    long window() const { return window_.load(); }

    uint64_t published() const { return published_.load(std::memory_order_relaxed); }
    size_t held();
    uint64_t dropped();

private:
    bool roomInLibrary();

    const std::atomic<bool> &up_;
    const Send send_;
    const Pending pending_;

    // The poll loop's own: what it published since it last handed messages over, in
    // order. Values (the bulk) and messages apart; each message knows how many values
    // came before it.
    std::vector<ValueUpdate> stagedValues_;
    std::vector<std::pair<size_t, std::pair<Message, Outbox::Kind>>> stagedMessages_;

    // The loop meets the connection's thread here.
    std::mutex mu_;
    Outbox outbox_;                    // under mu_
    std::deque<Message> unsent_;       // taken from the outbox but refused by the library: go first; under mu_
    std::atomic<bool> waiting_{false}; // the connection's thread waits for work

    // The connection's thread's own.
    std::vector<Outbox::Held> taken_;
    std::vector<Message> batch_;
    std::chrono::steady_clock::time_point windowFullSince_{};

    std::atomic<uint64_t> published_{0}; // acknowledged by the broker (QoS 1) or written (QoS 0)
    std::atomic<long> inFlight_{0};      // handed over, not yet acknowledged or written
    std::atomic<long> window_{kMaxInflight};
};

} // namespace rtugw

#endif
