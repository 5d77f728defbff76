#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace quillstone {
namespace utilities {

class SerializationUtils {
 public:
  // Standard base64 with padding and no line breaks.
  static std::string ToBase64(const std::vector<unsigned char>& data);

  // Byte forms of one value on a stream, read back by the same build on the
  // same machine only: native byte order, and a pointer travels as its bare
  // value. 0 on success; non-zero when the stream fails or ends within the
  // value (nothing is stored in *value then).
  static int SerializeInt32(int value, std::ostream& stream);
  static int DeserializeInt32(std::istream& stream, int* value);
  static int SerializePointer(void* value, std::ostream& stream);
  static int DeserializePointer(std::istream& stream, void** value);
};

}  // namespace utilities
}  // namespace quillstone
