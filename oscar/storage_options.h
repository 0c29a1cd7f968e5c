#pragma once

#include <string>

#include "storage/client_io.h"

class Job_Definition;

/// The parts of a storage connection's options that do not come from the pool: what the job definition says,
/// and the access key of this host. Used by every executor; kept out of the module's visible symbols.
/// Threads: none of their own.
/// Errors:  only the first tells one; a connection without the header is still attempted, and the storage
///          side decides.
#pragma GCC visibility push(hidden)

/// Lets a numbered HTTP head travel as an extra option named by the head. False, with nothing changed, for an
/// unknown number; else what set_extra_option says.
[[nodiscard]] bool set_http_head_to_options(Client_IO_Base::Options& options, int head,
                                            const std::string& value);

/// Adds the access key's header. A failure is not reported.
void set_access_key_to_options(Client_IO_Base::Options& options, const std::string& key);

/// Adds the key by which this host is known: the node's key on the backup server's own machine, else the
/// host's.
void set_options_by_host(Client_IO_Base::Options& options);

/// Copies retry time, resumption buffer, rate limits and server-side deduplication from the definition; the
/// limits are narrowed to one of `channels` parallel channels.
void set_options_by_job_def(Client_IO_Base::Options& options, const Job_Definition& def, unsigned channels);

#pragma GCC visibility pop
