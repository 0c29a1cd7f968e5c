#include "process/text_process_handler.h"

#include <cerrno>

namespace kestrel
{
class Process_Run
{
};
} // namespace kestrel

Text_Process_Handler::Text_Process_Handler(unsigned int, int) {}
Text_Process_Handler::~Text_Process_Handler() {}
int Text_Process_Handler::handle_stdout_line(const char*, unsigned int) { return 0; }
int Text_Process_Handler::handle_stderr_line(const char*, unsigned int) { return 0; }
int Text_Process_Handler::handle_stdout_segment(const char*, unsigned int) { return 0; }
int Text_Process_Handler::handle_stdout_close() { return 0; }
int Text_Process_Handler::handle_stderr_close() { return 0; }
static int unavailable()
{
  errno = ENOSYS;
  return -1;
}
int Text_Process_Handler::call(ACE_Process_Ex*, ACE_Process_Options&) { return unavailable(); }
int Text_Process_Handler::call(unsigned int, ACE_Process_Options&) { return unavailable(); }
int Text_Process_Handler::spawn(ACE_Process_Ex*, ACE_Process_Options&, ACE_Event_Handler*) { return unavailable(); }
int Text_Process_Handler::wait(const ACE_Time_Value*) { return unavailable(); }
int Text_Process_Handler::terminate(unsigned int) { return 0; }
int64_t Text_Process_Handler::last_activity_msec() const { return 0; }
int Text_Process_Handler::log_line(ACE_Log_Priority, const char*, unsigned int) { return 0; }
