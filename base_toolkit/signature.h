#pragma once

#include <string>

namespace quillstone {
namespace utilities {

class Signature {
 public:
  // A random text that differs from call to call (hexadecimal, from the
  // system's random source).
  static std::string GenerateNonce();
};

}  // namespace utilities
}  // namespace quillstone
