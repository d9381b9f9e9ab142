// Messages held on their way to the broker: while it is away, and while it takes them
// slower than the line changes. Values supersede each other per topic: when the outbox
// is full, the value that a newer one on the same topic replaced longest ago is dropped
// first, so the latest value of every topic is always kept and the broker's retained
// state comes out right once the messages are sent. Events (answers to writes) are never
// dropped: each is somebody's only answer.
//
// A value read from the line is held compact (ValueUpdate, no strings) and made into
// its message only when it is sent: on a churning line most of them are replaced before.
#ifndef RTUPLC_GATEWAY_MQTT_OUTBOX_H
#define RTUPLC_GATEWAY_MQTT_OUTBOX_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

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

// A value as read, or found bad, at `ms` (since the epoch); `key` names its topic, as
// the publisher numbers its values.
struct ValueUpdate {
    uint32_t key = 0;
    uint32_t value = 0;
    int64_t ms = 0;
    bool known = false; // read at least once
    bool good = false;
    std::string error; // why it is bad; a string value's registers come first, two bytes each
};
// Makes a value's message; called on whatever thread sends, so it reads nothing that changes.
using ValueFormatter = std::function<Message(const ValueUpdate &)>;

class Outbox {
public:
    enum class Kind { Value, Event };
    explicit Outbox(size_t capacity, ValueFormatter formatter = {});
    void setFormatter(ValueFormatter formatter) { formatter_ = std::move(formatter); }

    // Holds the message; when over capacity, drops the value replaced longest ago. The
    // latest message of each topic and every event are kept even past the capacity.
    void push(Message m, Kind kind);
    // With `conflate`, a reading of the same value that came in with `conflate` too and is
    // still waiting gives way at once, the newer taking its place in the line: while the
    // broker is there but slower than the line, it gets each value's latest reading
    // rather than a backlog of stale ones. Readings held while it was away are kept in
    // order, dropped only when over capacity.
    void push(ValueUpdate v, bool conflate = false);

    // What take() hands out: a message, or a value still to be formatted (by open(),
    // which needs no lock on the outbox).
    struct Held {
        Message message;
        std::optional<ValueUpdate> value;
    };
    std::optional<Held> take();
    Message open(Held held) const;
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
        Topics::value_type *topic = nullptr; // a message's; nullptr for a value update
        std::string payload;                 // a message's, or a bad value's error
        std::unique_ptr<Extra> extra;
        int64_t ms = 0;
        uint32_t key = 0;
        uint32_t value = 0;
        uint8_t qos = 1;
        bool retain = false;
        bool known = false;
        bool good = false;
        bool live = true;         // false once dropped
        bool replaceable = false; // a newer reading may take its place
        Kind kind = Kind::Value;
    };
    Entry &at(uint64_t seq) { return entries_[size_t(seq - first_)]; }
    // The topic's latest entry is now `seq`: the one before it may go when room is needed.
    void replace(TopicState &topic, uint64_t seq);
    void append(Entry e);
    void dropOneSuperseded();
    void drop(Entry &e);
    void release(Entry &e);

    std::deque<Entry> entries_; // entries_[i] has sequence number first_ + i
    uint64_t first_ = 0;
    Topics topics_;
    std::vector<TopicState> values_; // by ValueUpdate::key
    // Values replaced by a newer message on their topic, in the order they were replaced:
    // the ones a full outbox may drop. Some may have been sent since; skipped then.
    std::deque<uint64_t> superseded_;
    ValueFormatter formatter_;
    size_t capacity_;
    size_t live_ = 0;
    uint64_t dropped_ = 0;
};

} // namespace rtugw

#endif
