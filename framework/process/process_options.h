#pragma once

#include <ace/Process.h>

/// Adds a directory at the end of a path-list variable of a child's environment: `old:value`, where old is
/// what the options already set, else what this process's environment holds; just `value` when there is
/// neither. A directory that the list already contains is not added again, so the call may be repeated on
/// options that are used many times. 0, or -1 when an argument is null or empty or the options' environment
/// buffer is full.
int append_process_options_env(ACE_Process_Options& opts, const char* name, const char* value);
