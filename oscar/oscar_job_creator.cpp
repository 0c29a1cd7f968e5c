#include "oscar/oscar_job_creator.h"
