#pragma once

#include <ctime>
#include <map>
#include <string>

#include "catalog/backup_set.h"
#include "json/value.h"

namespace oscar
{
/// Fills the catalog's record of a physical backup from the values that the run has gathered, by key.
/// resource_id: the job source's id, for the minor resource id; the record does without it when none can be
/// computed (logged). The times are those of the job, in seconds since the epoch; the text times among the
/// values are not read.
/// Errors: false, logged once at LM_ERROR, when a key is missing or has another type; the set may then be
///         filled in part and must not be committed.
[[nodiscard]] bool fill_brcmd_backup_set(const std::map<std::string, json_spirit::Value>& values,
                                         const std::string& resource_id, time_t start_time, time_t end_time,
                                         Oscar_Brcmd_Backup_Set& set);
} // namespace oscar
