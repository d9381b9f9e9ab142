#include "outbox.h"

#include <utility>

namespace rtugw {

Outbox::Outbox(size_t capacity) : capacity_(capacity) {}

void Outbox::push(Message m, Kind kind) {
    const uint64_t seq = first_ + entries_.size();
    // The key is moved only when the topic is new to the outbox.
    auto [topic, fresh] = topics_.try_emplace(std::move(m.topic));
    if (!fresh) {
        // The topic's previous message is no longer its latest: a value there may now go
        // if room is needed, since the broker will be given the newer one anyway.
        Entry &previous = at(topic->second.latest);
        if (previous.kind == Kind::Value)
            superseded_.push_back(topic->second.latest);
    }
    topic->second.latest = seq;
    ++topic->second.held;

    Entry e;
    e.topic = &*topic;
    e.payload = std::move(m.payload);
    if (!m.responseTopic.empty() || !m.correlation.empty())
        e.extra.reset(new Extra{std::move(m.responseTopic), std::move(m.correlation)});
    e.qos = uint8_t(m.qos);
    e.retain = m.retain;
    e.kind = kind;
    entries_.push_back(std::move(e));
    ++live_;
    if (live_ > capacity_)
        dropOneSuperseded();
}

void Outbox::dropOneSuperseded() {
    // Nothing superseded left: the outbox grows rather than lose a topic's latest value
    // or an answer.
    while (!superseded_.empty()) {
        const uint64_t seq = superseded_.front();
        superseded_.pop_front();
        if (seq < first_)
            continue; // sent since it was replaced
        Entry &e = at(seq);
        if (!e.topic)
            continue;
        release(e.topic);
        e.topic = nullptr;
        std::string().swap(e.payload); // the memory goes now, not when the slot is popped
        e.extra.reset();
        --live_;
        ++dropped_;
        return;
    }
}

void Outbox::release(Topics::value_type *topic) {
    if (--topic->second.held == 0)
        topics_.erase(topic->first);
}

std::optional<Message> Outbox::pop() {
    while (!entries_.empty()) {
        Entry e = std::move(entries_.front());
        entries_.pop_front();
        ++first_;
        // Replaced values already sent are of no use to the dropping any more.
        while (!superseded_.empty() && superseded_.front() < first_)
            superseded_.pop_front();
        if (!e.topic)
            continue; // dropped while the outbox was full
        Message m;
        m.topic = e.topic->first;
        m.payload = std::move(e.payload);
        m.qos = e.qos;
        m.retain = e.retain;
        if (e.extra) {
            m.responseTopic = std::move(e.extra->responseTopic);
            m.correlation = std::move(e.extra->correlation);
        }
        release(e.topic);
        --live_;
        if (entries_.empty())
            superseded_.clear();
        return m;
    }
    return std::nullopt;
}

} // namespace rtugw
