#include "middleware/interface_name.h"

#include <string_view>

namespace VARO_UTIL_API {

void parse_interface(const char* interface_name, ACE_String_Base<char>& first,
                     ACE_String_Base<char>& second) {
  const std::string_view name = interface_name ? interface_name : "";
  const auto separator = name.rfind('/');
  const std::string_view group =
      separator == std::string_view::npos ? std::string_view() : name.substr(0, separator);
  const std::string_view own =
      separator == std::string_view::npos ? name : name.substr(separator + 1);
  first.set(group.data(), group.size(), true);
  second.set(own.data(), own.size(), true);
}

}  // namespace VARO_UTIL_API
