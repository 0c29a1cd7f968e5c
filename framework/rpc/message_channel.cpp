#include "rpc/message_channel.h"

namespace kestrel
{
Message_Receiver::~Message_Receiver() = default;
Message_Channel::~Message_Channel() = default;
} // namespace kestrel
