#include "process/script.h"

bool execute_script(const std::string& script, bool, std::shared_ptr<ACE_Log_Msg_Callback>) { return script.empty(); }
