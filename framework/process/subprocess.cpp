#include "process/subprocess.h"

int subprocess::call(ACE_Process_Options&, std::shared_ptr<ACE_Log_Msg_Callback>) { return -1; }
