/// The commands of kestrel-lab. Each takes the checked command line and returns the exit status.
/// Errors: Usage_Failure for a wrong command line, Failure otherwise.
#pragma once

#include "lab/common/arguments.h"
#include "lab/common/instance_files.h"

#include <cstdint>

namespace oscar_lab
{

int create_command(const Arguments& arguments);
int destroy_command(const Arguments& arguments);
int cluster_command(const Arguments& arguments);
int load_command(const Arguments& arguments);
int change_command(const Arguments& arguments);
int check_command(const Arguments& arguments);

/// HOME and INSTANCE, the first two operands after the command's name, with HOME made absolute.
Instance_Files instance_operands(const Arguments& arguments);

/// The value of a required option, a number up to maximum.
std::uint64_t number_option(const Arguments& arguments, const char* name, std::uint64_t maximum);
/// --seed, 1 when it was not given.
std::uint64_t seed_option(const Arguments& arguments);

} // namespace oscar_lab
