#pragma once

namespace oscar
{
}
