#pragma once

#include "machost/Imports.h"

namespace machost::security {

Library library();

} // namespace machost::security
