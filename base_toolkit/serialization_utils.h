#pragma once

#include <string>
#include <vector>

namespace quillstone {
namespace utilities {

class SerializationUtils {
 public:
  // Standard base64 with padding and no line breaks.
  static std::string ToBase64(const std::vector<unsigned char>& data);
};

}  // namespace utilities
}  // namespace quillstone
