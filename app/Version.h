#pragma once

#include <string>

namespace lumora {

// "1.35 [<build date>] [ ()]": the two empty fields are part of the text
// that deployment tooling parses, so they stay.
std::string versionString();

}  // namespace lumora
