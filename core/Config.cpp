#include "core/Config.h"

namespace lumora {

Config config;
std::map<std::string, std::string> parent_interfaces;
std::map<std::string, MacAddress> system_interfaces;

}  // namespace lumora
