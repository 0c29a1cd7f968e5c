#pragma once

#include "rpc/json_rpc.h"

/// Tells what this host is within the cluster of an instance. Params, all texts and all required: "instance",
/// "uid" (whose account is used) and "virtual_address" (where the cluster is asked).
///
/// Threads: no state; any number of requests at once. A request blocks its thread while a tool runs.
/// Errors:  -32602 for the params, -32603 for everything else; see JSON_RPC_Handler for the result.
class JSON_RPC_Oscar_Node_Handler : public JSON_RPC_Handler
{
public:
  int handle_object(ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                    ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> object) override;
};

/// Answers with "instance", "node_id", "is_master" and "online". The request's params are an object.
int check_node_state(JSON_RPC_Channel* channel, const JSON_RPC_Request* request);
