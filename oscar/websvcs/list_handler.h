#pragma once

#include "rpc/json_rpc.h"

/// Lists the OSCAR instances of this host (params null), and browses what one of them holds (params an object
/// with "uid", "instance" and, optional, "database" and "schema").
///
/// Threads: no state; any number of requests at once. A request blocks its thread while tools run.
/// Errors:  -32602 for the params, -32603 for everything else; see JSON_RPC_Handler for the result.
class JSON_RPC_Oscar_List_Handler : public JSON_RPC_Handler
{
public:
  int handle_object(ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                    ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> object) override;
};

/// Answers with the instances that run, in order of name.
int get_oscar_instance_info(JSON_RPC_Channel* channel, const JSON_RPC_Request* request);
/// Answers with the database, the schemas or the tables of one instance.
int get_oscar_info(JSON_RPC_Channel* channel, const JSON_RPC_Request* request);
