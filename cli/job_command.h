#pragma once

#include "cli/session.h"

namespace kestrel
{
/// Runs one job in this process, as Command_Context::run_document() says.
Job_Report run_job(Session& session, const Job_Definition_Ptr& definition, const Job_Words& words);

/// What the process ends with after a run that ended so.
int exit_code_of(Job_State state);
/// Tells the user of a run that did not succeed, with fail(). Nothing for one that did.
void report_job(Command_Output& output, const Job_Words& words, const Job_Report& report);
} // namespace kestrel
