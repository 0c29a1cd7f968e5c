#pragma once

#include "agent/backup_verifier.h"
#include "agent/export_catalog.h"

namespace kestrel
{
/// Reads every stored byte of a logical backup as a restore does and checks: the storage's checksums, the
/// archive's metadata record and index, the checksum of every file, and that the catalog says the same of all
/// of them. Needs no database server, writes nothing and changes nothing. One whose deletion has begun is not
/// read. Threads and callbacks: as verify_backup().
Verification verify_export(const Export_Entry& backup,
                           const std::function<void(uint64_t done_bytes, uint64_t total_bytes)>& progress,
                           const std::function<bool()>& cancel_requested);
} // namespace kestrel
