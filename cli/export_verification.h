#pragma once

#include "agent/chain_verifier.h"
#include "agent/export_catalog.h"
#include "cli/session.h"

#include <string>
#include <vector>

namespace kestrel
{
/// The exports that a verify command means: those among its names, or all (of --instance) without names. The
/// other names come back in `others`. False after Session::fail().
[[nodiscard]] bool choose_exports(Session& session, std::vector<Export_Entry>& exports,
                                  std::vector<std::string>& others);
/// Verifies one with progress on the standard error output. The result is in the form of those of chains: an
/// export is one of its own, of level "export".
Chain_Verification verify_one_export(Session& session, const Export_Entry& entry);
} // namespace kestrel
