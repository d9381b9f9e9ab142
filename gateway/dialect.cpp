#include "dialect.h"

#include "dialect_plain.h"
#include "dialect_sparkplug.h"

namespace rtugw {

std::unique_ptr<Dialect> makeDialect(Model &model)
{
    // One dialect per connection: a Sparkplug host expects nothing else from a node.
    if (model.config().mqtt.mode == MqttConfig::Mode::Sparkplug)
        return std::make_unique<SparkplugNode>(model);
    return std::make_unique<PlainTopics>(model);
}

} // namespace rtugw
