#include "core/Runtime.h"

namespace lumora {

Runtime runtime;

}  // namespace lumora
