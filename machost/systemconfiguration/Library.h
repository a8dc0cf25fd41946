#pragma once

#include "machost/Imports.h"

namespace machost::systemconfiguration {

Library library();

} // namespace machost::systemconfiguration
