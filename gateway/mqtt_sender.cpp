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
// Held messages the sender takes out of the outbox at once: the poll loop waits for
// the outbox's lock no longer than this many take a moment.
constexpr long kSendBatch = 64;
// How long the sender sleeps when nothing wakes it: it is woken when the loop hands
// over messages and when the broker connects; an acknowledgement that frees room in a
// full window may come unannounced, and is noticed this soon.
constexpr auto kSenderNap = std::chrono::milliseconds(50);
constexpr auto kWindowNap = std::chrono::milliseconds(1);
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

MqttSender::~MqttSender()
{
    stop();
}

void MqttSender::start()
{
    thread_ = std::thread([this] { loop(); });
}

void MqttSender::stop()
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        quit_ = true;
    }
    cv_.notify_one();
    if (thread_.joinable())
        thread_.join();
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

void MqttSender::flush()
{
    if (stagedValues_.empty() && stagedMessages_.empty())
        return;
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
    cv_.notify_one();
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
    // No lock here: the library may hold its own while it tells us, and the sender calls it.
    if (inFlight_.fetch_sub(1) >= window_.load())
        cv_.notify_one();
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

void MqttSender::loop()
{
    std::vector<Outbox::Held> taken;
    std::vector<Message> batch;
    std::unique_lock<std::mutex> lock(mu_);
    while (!quit_) {
        if (!up_ || (unsent_.empty() && outbox_.size() == 0)) {
            cv_.wait_for(lock, kSenderNap);
            continue;
        }
        // The library is called without our lock: its callbacks run under its own.
        lock.unlock();
        const long room = roomInLibrary() ? std::min(window_.load() - inFlight_.load(), kSendBatch) : 0;
        lock.lock();
        if (room <= 0) {
            cv_.wait_for(lock, kWindowNap);
            continue;
        }
        for (; long(batch.size()) < room && !unsent_.empty(); unsent_.pop_front())
            batch.push_back(std::move(unsent_.front()));
        while (long(batch.size() + taken.size()) < room) {
            std::optional<Outbox::Held> h = outbox_.take();
            if (!h)
                break;
            taken.push_back(std::move(*h));
        }
        lock.unlock();
        for (Outbox::Held &h : taken)
            batch.push_back(outbox_.open(std::move(h)));
        taken.clear();
        size_t sent = 0;
        for (; sent < batch.size(); ++sent) {
            inFlight_.fetch_add(1);
            if (!send_(batch[sent])) {
                inFlight_.fetch_sub(1);
                break;
            }
        }
        lock.lock();
        const bool refused = sent < batch.size();
        // Refused by the library (full, or closing): they go first next time, in their order.
        for (size_t i = batch.size(); i-- > sent;)
            unsent_.push_front(std::move(batch[i]));
        batch.clear();
        if (refused)
            cv_.wait_for(lock, kWindowNap);
    }
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
