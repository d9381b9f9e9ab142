#include "mqtt_outbox.h"

#include <utility>

namespace rtugw {

Outbox::Outbox(size_t capacity, ValueFormatter formatter) : formatter_(std::move(formatter)), capacity_(capacity) {}

void Outbox::replace(TopicState &topic, uint64_t seq)
{
    // The topic's previous message is no longer its latest: a value there may now go if
    // room is needed, since the broker will be given the newer one anyway. One that just
    // gave way to this reading is gone already.
    const Entry *previous = topic.held > 0 ? &at(topic.latest) : nullptr;
    if (previous != nullptr && previous->live && previous->kind == Kind::Value)
        superseded_.push_back(topic.latest);
    topic.latest = seq;
    ++topic.held;
}

void Outbox::append(Entry e)
{
    entries_.push_back(std::move(e));
    ++live_;
    if (live_ > capacity_)
        dropOneSuperseded();
}

void Outbox::push(Message m, Kind kind)
{
    const uint64_t seq = first_ + entries_.size();
    // The key is moved only when the topic is new to the outbox.
    auto topic = topics_.try_emplace(std::move(m.topic)).first;
    replace(topic->second, seq);
    Entry e;
    e.topic = &*topic;
    e.payload = std::move(m.payload);
    if (!m.responseTopic.empty() || !m.correlation.empty())
        e.extra.reset(new Extra{std::move(m.responseTopic), std::move(m.correlation)});
    e.qos = uint8_t(m.qos);
    e.retain = m.retain;
    e.kind = kind;
    append(std::move(e));
}

void Outbox::push(ValueUpdate v, bool conflate)
{
    const uint64_t seq = first_ + entries_.size();
    if (v.key >= values_.size())
        values_.resize(size_t(v.key) + 1);
    TopicState &topic = values_[v.key];
    if (conflate && topic.held > 0) {
        Entry &waiting = at(topic.latest);
        if (waiting.replaceable) {
            // The newer reading takes the waiting one's place in the line: a value that
            // changes at every read is still sent in its turn, never pushed back for ever.
            waiting.value = v.value;
            waiting.ms = v.ms;
            waiting.known = v.known;
            waiting.good = v.good;
            waiting.payload = std::move(v.error);
            ++dropped_;
            return;
        }
    }
    replace(topic, seq);
    Entry e;
    e.key = v.key;
    e.value = v.value;
    e.ms = v.ms;
    e.known = v.known;
    e.good = v.good;
    e.payload = std::move(v.error);
    e.replaceable = conflate;
    append(std::move(e));
}

void Outbox::dropOneSuperseded()
{
    // Nothing superseded left: the outbox grows rather than lose a topic's latest value
    // or an answer.
    while (!superseded_.empty()) {
        const uint64_t seq = superseded_.front();
        superseded_.pop_front();
        if (seq < first_)
            continue; // sent since it was replaced
        Entry &e = at(seq);
        if (!e.live)
            continue;
        drop(e);
        return;
    }
}

void Outbox::drop(Entry &e)
{
    release(e);
    e.live = false;
    std::string().swap(e.payload); // the memory goes now, not when the slot is taken
    e.extra.reset();
    --live_;
    ++dropped_;
}

void Outbox::release(Entry &e)
{
    if (e.topic == nullptr) {
        --values_[e.key].held;
        return;
    }
    if (--e.topic->second.held == 0)
        topics_.erase(e.topic->first);
}

std::optional<Outbox::Held> Outbox::take()
{
    while (!entries_.empty()) {
        Entry e = std::move(entries_.front());
        entries_.pop_front();
        ++first_;
        // Replaced values already sent are of no use to the dropping any more.
        while (!superseded_.empty() && superseded_.front() < first_)
            superseded_.pop_front();
        if (!e.live)
            continue; // dropped while the outbox was full
        Held h;
        if (e.topic == nullptr) {
            h.value = ValueUpdate{e.key, e.value, e.ms, e.known, e.good, std::move(e.payload)};
        } else {
            Message &m = h.message;
            m.topic = e.topic->first;
            m.payload = std::move(e.payload);
            m.qos = e.qos;
            m.retain = e.retain;
            if (e.extra) {
                m.responseTopic = std::move(e.extra->responseTopic);
                m.correlation = std::move(e.extra->correlation);
            }
        }
        release(e);
        --live_;
        if (entries_.empty())
            superseded_.clear();
        return h;
    }
    return std::nullopt;
}

Message Outbox::open(Held held) const
{
    return held.value ? formatter_(*held.value) : std::move(held.message);
}

std::optional<Message> Outbox::pop()
{
    std::optional<Held> h = take();
    if (!h)
        return std::nullopt;
    return open(std::move(*h));
}

} // namespace rtugw
