#include "mqtt_sender.h"

#include <algorithm>
#include <optional>

namespace rtugw {

namespace {

using Clock = std::chrono::steady_clock;

// The library walks its list of messages waiting for a PUBACK slot at every
// acknowledgement, under the lock a hand-over needs: a burst of thousands handed over at
// once would make each acknowledgement cost thousands of steps. So no more is handed to
// the library than the broker's receive maximum lets fly; the rest wait in the outbox,
// which costs nothing per message and decides what gives way.
constexpr long kNoReceiveMaximum = 65535; // the broker did not say: MQTT's default
// A completion the library never reports must not stop the flow for ever: after this
// long with the window full, the connection's own count is taken instead.
constexpr auto kWindowResync = std::chrono::seconds(1);
// Messages handed to the library at a time, then written: the poll loop waits for the
// outbox's lock no longer than this many take a moment, and the broker starts on the
// first of a reply's values while the next are made.
constexpr long kSendBatch = 32;
// Messages waiting, with the broker there, before a waiting reading gives way to the
// same value's next one: eight full replies' values go out whole, a tenth of a second
// of what a broker on the same machine takes. Behind by more, every value's latest
// reading keeps the backlog at one message a value, never a growing queue of stale ones.
constexpr size_t kWholeBurst = 1000;

} // namespace

MqttSender::MqttSender(size_t capacity, const std::atomic<bool> &brokerUp, Send send, Pending pending)
    : up_(brokerUp), send_(std::move(send)), pending_(std::move(pending)), outbox_(capacity)
{
}

void MqttSender::setFormatter(ValueFormatter formatter)
{
    std::lock_guard<std::mutex> lock(mu_);
    outbox_.setFormatter(std::move(formatter));
}

void MqttSender::publish(Message m, Outbox::Kind kind)
{
    stagedMessages_.emplace_back(stagedValues_.size(), std::make_pair(std::move(m), kind));
}

void MqttSender::publishValue(ValueUpdate v)
{
    stagedValues_.push_back(std::move(v));
}

bool MqttSender::flush()
{
    if (stagedValues_.empty() && stagedMessages_.empty())
        return false;
    {
        std::lock_guard<std::mutex> lock(mu_);
        // A broker that is there but has fallen behind the line by more than a burst
        // is given each value's latest reading: a reading still waiting when the next
        // one comes is stale then, and the newer takes its place. Readings held while
        // the broker is away all go.
        const bool conflate = up_.load() && outbox_.size() >= kWholeBurst;
        size_t v = 0;
        for (auto &[before, message] : stagedMessages_) {
            for (; v < before; ++v)
                outbox_.push(std::move(stagedValues_[v]), conflate);
            outbox_.push(std::move(message.first), message.second);
        }
        for (; v < stagedValues_.size(); ++v)
            outbox_.push(std::move(stagedValues_[v]), conflate);
    }
    stagedValues_.clear();
    stagedMessages_.clear();
    return waiting_.exchange(false);
}

void MqttSender::connected(long receiveMaximum, const Message &birth)
{
    // One slot of the broker's window is kept free: after a reconnect the library sends
    // again what was in flight when the connection dropped, and the birth published on
    // connecting must find a slot to go ahead of them rather than queue behind them.
    const long allowed = std::min(receiveMaximum > 0 ? receiveMaximum : kNoReceiveMaximum, kMaxInflight);
    window_ = std::max(1L, allowed - 1);
    // The birth goes ahead of what was held meanwhile, before the sender can start on it:
    // the will's "offline" must not stand while current values arrive.
    if (!birth.topic.empty()) {
        std::lock_guard<std::mutex> lock(mu_);
        unsent_.push_front(birth);
    }
}

void MqttSender::done(bool delivered)
{
    inFlight_.fetch_sub(1);
    if (delivered)
        published_.fetch_add(1, std::memory_order_relaxed);
}

bool MqttSender::idle()
{
    std::lock_guard<std::mutex> lock(mu_);
    return unsent_.empty() && outbox_.size() == 0 && inFlight_ == 0;
}

size_t MqttSender::held()
{
    std::lock_guard<std::mutex> lock(mu_);
    return outbox_.size() + unsent_.size() + stagedValues_.size() + stagedMessages_.size();
}

uint64_t MqttSender::dropped()
{
    std::lock_guard<std::mutex> lock(mu_);
    return outbox_.dropped();
}

MqttSender::Round MqttSender::handOver()
{
    Round r;
    waiting_.store(false);
    if (up_.load()) {
        const long room = roomInLibrary() ? std::min(window_.load() - inFlight_.load(), kSendBatch) : 0;
        if (room <= 0) {
            r.full = true;
            return r;
        }
        {
            std::lock_guard<std::mutex> lock(mu_);
            for (; long(batch_.size()) < room && !unsent_.empty(); unsent_.pop_front())
                batch_.push_back(std::move(unsent_.front()));
            while (long(batch_.size() + taken_.size()) < room) {
                std::optional<Outbox::Held> h = outbox_.take();
                if (!h)
                    break;
                taken_.push_back(std::move(*h));
            }
        }
        if (batch_.empty() && taken_.empty())
            return r;
        // Made into messages without the lock: the poll loop may hand over meanwhile.
        for (Outbox::Held &h : taken_)
            batch_.push_back(outbox_.open(std::move(h)));
        taken_.clear();
        size_t sent = 0;
        for (; sent < batch_.size(); ++sent) {
            inFlight_.fetch_add(1);
            if (!send_(batch_[sent])) {
                inFlight_.fetch_sub(1);
                break;
            }
        }
        r.sent += sent;
        if (sent < batch_.size()) {
            // Refused by the library (full, or closing): they go first next time, in their order.
            std::lock_guard<std::mutex> lock(mu_);
            for (size_t i = batch_.size(); i-- > sent;)
                unsent_.push_front(std::move(batch_[i]));
            batch_.clear();
            r.refused = true;
            return r;
        }
        r.more = long(sent) == room;
        batch_.clear();
    }
    return r;
}

bool MqttSender::waitForWork()
{
    std::lock_guard<std::mutex> lock(mu_);
    const bool nothing = unsent_.empty() && outbox_.size() == 0;
    waiting_.store(nothing);
    return nothing;
}

bool MqttSender::roomInLibrary()
{
    if (inFlight_.load() < window_.load()) {
        windowFullSince_ = {};
        return true;
    }
    const Clock::time_point now = Clock::now();
    if (windowFullSince_ == Clock::time_point{}) {
        windowFullSince_ = now;
    } else if (now - windowFullSince_ >= kWindowResync) {
        inFlight_ = pending_();
        windowFullSince_ = {};
    }
    return false;
}

} // namespace rtugw
