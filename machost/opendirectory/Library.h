#pragma once

#include "machost/Imports.h"

namespace machost::opendirectory {

Library library();

} // namespace machost::opendirectory
