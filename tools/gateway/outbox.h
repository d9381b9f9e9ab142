// Messages held while the broker is away. Values supersede each other per topic: when
// the outbox is full, the value that a newer one on the same topic replaced longest ago
// is dropped first, so the latest value of every topic is always kept and the broker's
// retained state comes out right once the messages are sent. Events (answers to writes)
// are never dropped: each is somebody's only answer.
#ifndef RTUPLC_GATEWAY_OUTBOX_H
#define RTUPLC_GATEWAY_OUTBOX_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

namespace rtugw {

struct Message {
    std::string topic;
    std::string payload;
    int qos = 1;
    bool retain = false;
    // MQTT 5: where a request wants its answer, and the data to echo with it.
    std::string responseTopic;
    std::string correlation;
};

class Outbox {
public:
    enum class Kind { Value, Event };
    explicit Outbox(size_t capacity);

    // Holds the message; when over capacity, drops the value replaced longest ago. The
    // latest message of each topic and every event are kept even past the capacity.
    void push(Message m, Kind kind);
    // The oldest message still held, removed; nullopt when empty.
    std::optional<Message> pop();
    size_t size() const { return live_; }
    uint64_t dropped() const { return dropped_; }
    size_t capacity() const { return capacity_; }

private:
    // How a topic's messages stand in the outbox; the entries point at its name, so a
    // topic's string is stored once however many of its values are held.
    struct TopicState {
        uint64_t latest = 0; // sequence number of its newest held message
        size_t held = 0;     // its messages held; the topic is forgotten at zero
    };
    using Topics = std::unordered_map<std::string, TopicState>;
    // What an event carries besides a value's fields; values (the bulk) do without.
    struct Extra {
        std::string responseTopic;
        std::string correlation;
    };
    struct Entry {
        Topics::value_type *topic = nullptr; // nullptr once dropped
        std::string payload;
        std::unique_ptr<Extra> extra;
        uint8_t qos = 1;
        bool retain = false;
        Kind kind = Kind::Value;
    };
    Entry &at(uint64_t seq) { return entries_[size_t(seq - first_)]; }
    void dropOneSuperseded();
    void release(Topics::value_type *topic);

    std::deque<Entry> entries_; // entries_[i] has sequence number first_ + i
    uint64_t first_ = 0;
    Topics topics_;
    // Values replaced by a newer message on their topic, in the order they were replaced:
    // the ones a full outbox may drop. Some may have been sent since; skipped then.
    std::deque<uint64_t> superseded_;
    size_t capacity_;
    size_t live_ = 0;
    uint64_t dropped_ = 0;
};

} // namespace rtugw

#endif
