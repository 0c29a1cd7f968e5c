#pragma once

#include "instances/instance_handler.h"
#include "jobs/job_creator.h"
#include "rpc/json_rpc.h"
#include "json/object_creator.h"
#include "json/yajl_handler.h"

/// The entry points of the module, found by their plain names; nothing else is visible outside. Each _make_
/// function makes one service object and, when `gobbler` is not null, stores there the function that must be
/// given the object at the end, as the pointer that _make_ returned. Null is accepted by every _gobble_
/// function.
/// Threads:   any.
/// Ownership: the caller owns the object. Only the parser creators get fini() before they are deleted.
/// Errors:    null with errno ENOMEM, not logged.
extern "C" {
Job_Creator* _make_Oscar_Job_Creator(void (**gobbler)(void*));
void _gobble_Oscar_Job_Creator(void* object);

/// Their creators make oscar::Backup_Job_Source_Parser and so on.
Object_Creator_T<YAJL_Handler>* _make_Oscar_Backup_Job_Source_Parser_Creator(void (**gobbler)(void*));
void _gobble_Oscar_Backup_Job_Source_Parser_Creator(void* object);
Object_Creator_T<YAJL_Handler>* _make_Oscar_Backup_Job_Options_Parser_Creator(void (**gobbler)(void*));
void _gobble_Oscar_Backup_Job_Options_Parser_Creator(void* object);
Object_Creator_T<YAJL_Handler>* _make_Oscar_Restore_Job_Source_Parser_Creator(void (**gobbler)(void*));
void _gobble_Oscar_Restore_Job_Source_Parser_Creator(void* object);
Object_Creator_T<YAJL_Handler>* _make_Oscar_Restore_Job_Options_Parser_Creator(void (**gobbler)(void*));
void _gobble_Oscar_Restore_Job_Options_Parser_Creator(void* object);

JSON_RPC_Handler* _make_JSON_RPC_Oscar_List_Handler(void (**gobbler)(void*));
void _gobble_JSON_RPC_Oscar_List_Handler(void* object);
JSON_RPC_Handler* _make_JSON_RPC_Oscar_Node_Handler(void (**gobbler)(void*));
void _gobble_JSON_RPC_Oscar_Node_Handler(void* object);
JSON_RPC_Handler* _make_JSON_RPC_Oscar_Notify_Node_Handler(void (**gobbler)(void*));
void _gobble_JSON_RPC_Oscar_Notify_Node_Handler(void* object);

Instance_Handler* _make_Oscar_Instance_Handler(void (**gobbler)(void*));
void _gobble_Oscar_Instance_Handler(void* object);
}
