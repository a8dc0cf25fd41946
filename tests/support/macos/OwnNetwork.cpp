#include "support/OwnNetwork.h"

namespace testsupport {

bool enterOwnNetwork() { return false; }

} // namespace testsupport
