#include "machost/objc/Runtime.h"

namespace machost::objc {

void registerImage(const Image&) {}

} // namespace machost::objc
