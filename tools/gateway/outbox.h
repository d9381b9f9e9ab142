// Messages held while the broker is away. Values supersede each other per topic: when
// the outbox is full, the oldest value that a newer one on the same topic replaces is
// dropped first, so the latest value of every topic is always kept and the broker's
// retained state comes out right once the messages are sent. Events (answers to writes)
// are never dropped: each is somebody's only answer.
#ifndef RTUPLC_GATEWAY_OUTBOX_H
#define RTUPLC_GATEWAY_OUTBOX_H

#include <cstddef>
#include <cstdint>
#include <deque>
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

    // Holds the message; when over capacity, drops the oldest superseded value. The
    // latest message of each topic and every event are kept even past the capacity.
    void push(Message m, Kind kind);
    // The oldest message still held, removed; nullopt when empty.
    std::optional<Message> pop();
    size_t size() const { return live_; }
    uint64_t dropped() const { return dropped_; }
    size_t capacity() const { return capacity_; }

private:
    struct Entry {
        Message message;
        Kind kind;
        bool live = true;
        uint64_t seq = 0;
    };
    // ... implementation's choice
    size_t capacity_;
    size_t live_ = 0;
    uint64_t dropped_ = 0;
};

} // namespace rtugw

#endif
