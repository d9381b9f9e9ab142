// How the gateway speaks on the broker: plain JSON topics or a Sparkplug B node, chosen
// once from the configuration. A dialect shapes the connection (its will, its birth),
// says what to subscribe to, turns the model's changes into messages, understands what
// arrives (writes, commands), and says goodbye on a clean stop. Nothing else in the
// gateway asks which one runs.
#ifndef RTUPLC_GATEWAY_DIALECT_H
#define RTUPLC_GATEWAY_DIALECT_H

#include <memory>
#include <string>
#include <vector>

#include "broker.h"
#include "model.h"

namespace rtugw {

class Dialect : public Sink, public BrokerListener {
public:
    // The will, the birth and how long the broker keeps the session; before the client is made.
    virtual void shapeSession(MqttSettings *settings) const = 0;
    // Takes the broker: subscriptions, how a value becomes its message, a will that
    // changes per connection, what is published first; before the client starts, after
    // the model knows its points.
    virtual void bind(Broker &broker) = 0;
    // A clean stop: what says the gateway and its stations are gone.
    virtual std::vector<Message> farewell() const = 0;
    // Where the values go, for people: "topics under rtuplc/line1/".
    virtual std::string where() const = 0;
    // Where one value goes, a line of --check's plan.
    virtual std::string planLine(const PlannedValue &value) const = 0;
};

std::unique_ptr<Dialect> makeDialect(Model &model);

} // namespace rtugw

#endif
