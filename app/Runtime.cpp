#include "app/Runtime.h"

namespace lumora {

Runtime runtime;

}  // namespace lumora
