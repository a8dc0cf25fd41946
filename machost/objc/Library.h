#pragma once

#include "machost/Imports.h"

namespace machost::objc {

Library library();

} // namespace machost::objc
