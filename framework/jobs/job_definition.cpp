#include "jobs/job_definition.h"

#include <utility>

Job_Source::~Job_Source() = default;

Job_Options::~Job_Options() = default;

Job_Definition::Job_Definition(kestrel::Job_Definition_Fields fields) : fields_(std::move(fields)) {}

Job_Definition::~Job_Definition() = default;
