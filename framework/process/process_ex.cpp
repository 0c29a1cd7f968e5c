#include "process/process_ex.h"

#include <cerrno>

ACE_Process_Ex::ACE_Process_Ex(unsigned int flags, const char* name, std::shared_ptr<ACE_Log_Msg_Callback> cb)
    : flags_(flags), name_(name ? name : ""), name_given_(name != nullptr), callback_(std::move(cb))
{
}
ACE_Process_Ex::~ACE_Process_Ex() {}
pid_t ACE_Process_Ex::spawn(ACE_Process_Options&)
{
  errno = name_given_ ? ENOSYS : ENOENT;
  return -1;
}
