#pragma once

#include "rpc/json_rpc.h"

namespace oscar
{
typedef int (*Node_Service)(JSON_RPC_Channel*, const JSON_RPC_Request*);

/// What the services of cluster nodes have in common: hands a request whose params are an object to
/// `service`, and refuses anything else.
int handle_node_request(const ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex>& channel,
                        const JSON_RPC_Object_Ptr& object, Node_Service service);
} // namespace oscar
