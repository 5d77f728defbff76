#pragma once

#include <locale>
#include <string>

namespace quillstone {
namespace utilities {

class StringUtils {
 public:
  // Full Unicode lower case of a UTF-8 text; a text that cannot be converted
  // comes back unchanged. A zero byte inside ends the text.
  static std::string ToLower(std::string text);
};

}  // namespace utilities
}  // namespace quillstone

std::string narrow(const std::wstring& text, const std::locale& locale);
std::wstring widen(const std::string& text, const std::locale& locale);
