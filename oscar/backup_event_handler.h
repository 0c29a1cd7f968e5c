#pragma once

#include "oscar/archive_event_handler.h"

namespace oscar
{
/// That of a logical backup.
class Backup_Event_Handler : public Archive_Event_Handler
{
public:
  using Archive_Event_Handler::Archive_Event_Handler;
};
} // namespace oscar
