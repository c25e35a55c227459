#include "app/Version.h"

#include <sstream>

namespace lumora {

namespace {
constexpr const char* kVersion = "1.35";
constexpr const char* kBuildDate = "2025-09-05 15:00:31";
constexpr const char* kBuildTag = "";
constexpr const char* kBuildHost = "";
}  // namespace

std::string versionString() {
    std::ostringstream text;
    text << kVersion << " [" << kBuildDate << "]"
         << " [" << kBuildTag << " (" << kBuildHost << ")]";
    return text.str();
}

}  // namespace lumora
