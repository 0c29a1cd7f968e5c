#include "oscar/module_entry.h"

#include "base/ignore_result.h"
#include "oscar/backup_job_options_parser.h"
#include "oscar/backup_job_source_parser.h"
#include "oscar/instance/oscar_instance_handler.h"
#include "oscar/oscar_job_creator.h"
#include "oscar/restore_job_options_parser.h"
#include "oscar/restore_job_source_parser.h"
#include "oscar/websvcs/list_handler.h"
#include "oscar/websvcs/oscar_node_handler.h"
#include "oscar/websvcs/oscar_notify_node_handler.h"

#include <cerrno>
#include <new>

namespace
{
typedef void (*Gobbler)(void*);
typedef Object_Creator_T<YAJL_Handler> Parser_Creator;

/// Makes a T and returns it as Base; no exception leaves the module.
template <class Base, class T> Base* make(Gobbler* gobbler, Gobbler gobble)
{
  if (gobbler)
    *gobbler = gobble;
  T* object = nullptr;
  try {
    object = new (std::nothrow) T;
  } catch (const std::bad_alloc&) {
    // A member's memory: the same to the caller.
  }
  if (!object)
    errno = ENOMEM;
  return object;
}

template <class Parser> Parser_Creator* make_parser_creator(Gobbler* gobbler, Gobbler gobble)
{
  return make<Parser_Creator, Object_Creator_Impl_T<Parser_Creator, Parser>>(gobbler, gobble);
}

/// `object` is what make() returned, so it must be seen as the same base again.
template <class Base> void gobble(void* object)
{
  delete static_cast<Base*>(object);
}

void gobble_parser_creator(void* object)
{
  if (!object)
    return;
  Parser_Creator* creator = static_cast<Parser_Creator*>(object);
  kestrel::ignore_result(creator->fini(), "the creator goes away in any case");
  delete creator;
}
} // namespace

Job_Creator* _make_Oscar_Job_Creator(Gobbler* gobbler)
{
  return make<Job_Creator, oscar::Oscar_Job_Creator>(gobbler, &_gobble_Oscar_Job_Creator);
}

void _gobble_Oscar_Job_Creator(void* object)
{
  gobble<Job_Creator>(object);
}

Parser_Creator* _make_Oscar_Backup_Job_Source_Parser_Creator(Gobbler* gobbler)
{
  return make_parser_creator<oscar::Backup_Job_Source_Parser>(
      gobbler, &_gobble_Oscar_Backup_Job_Source_Parser_Creator);
}

void _gobble_Oscar_Backup_Job_Source_Parser_Creator(void* object)
{
  gobble_parser_creator(object);
}

Parser_Creator* _make_Oscar_Backup_Job_Options_Parser_Creator(Gobbler* gobbler)
{
  return make_parser_creator<oscar::Backup_Job_Options_Parser>(
      gobbler, &_gobble_Oscar_Backup_Job_Options_Parser_Creator);
}

void _gobble_Oscar_Backup_Job_Options_Parser_Creator(void* object)
{
  gobble_parser_creator(object);
}

Parser_Creator* _make_Oscar_Restore_Job_Source_Parser_Creator(Gobbler* gobbler)
{
  return make_parser_creator<oscar::Restore_Job_Source_Parser>(
      gobbler, &_gobble_Oscar_Restore_Job_Source_Parser_Creator);
}

void _gobble_Oscar_Restore_Job_Source_Parser_Creator(void* object)
{
  gobble_parser_creator(object);
}

Parser_Creator* _make_Oscar_Restore_Job_Options_Parser_Creator(Gobbler* gobbler)
{
  return make_parser_creator<oscar::Restore_Job_Options_Parser>(
      gobbler, &_gobble_Oscar_Restore_Job_Options_Parser_Creator);
}

void _gobble_Oscar_Restore_Job_Options_Parser_Creator(void* object)
{
  gobble_parser_creator(object);
}

JSON_RPC_Handler* _make_JSON_RPC_Oscar_List_Handler(Gobbler* gobbler)
{
  return make<JSON_RPC_Handler, JSON_RPC_Oscar_List_Handler>(gobbler, &_gobble_JSON_RPC_Oscar_List_Handler);
}

void _gobble_JSON_RPC_Oscar_List_Handler(void* object)
{
  gobble<JSON_RPC_Handler>(object);
}

JSON_RPC_Handler* _make_JSON_RPC_Oscar_Node_Handler(Gobbler* gobbler)
{
  return make<JSON_RPC_Handler, JSON_RPC_Oscar_Node_Handler>(gobbler, &_gobble_JSON_RPC_Oscar_Node_Handler);
}

void _gobble_JSON_RPC_Oscar_Node_Handler(void* object)
{
  gobble<JSON_RPC_Handler>(object);
}

JSON_RPC_Handler* _make_JSON_RPC_Oscar_Notify_Node_Handler(Gobbler* gobbler)
{
  return make<JSON_RPC_Handler, JSON_RPC_Oscar_Notify_Node_Handler>(
      gobbler, &_gobble_JSON_RPC_Oscar_Notify_Node_Handler);
}

void _gobble_JSON_RPC_Oscar_Notify_Node_Handler(void* object)
{
  gobble<JSON_RPC_Handler>(object);
}

Instance_Handler* _make_Oscar_Instance_Handler(Gobbler* gobbler)
{
  return make<Instance_Handler, Oscar_Instance_Handler>(gobbler, &_gobble_Oscar_Instance_Handler);
}

void _gobble_Oscar_Instance_Handler(void* object)
{
  gobble<Instance_Handler>(object);
}
