// The client's two small records: a request to do something, and the report
// of how it ended. Both are plain copyable values that own nothing their
// pointers point to. Their stream forms have no header or terminator, records
// simply follow one another; pointers travel as bare values, so a stream means
// something only to a reader in the writer's address space.
#pragma once

#include <stdint.h>

#include <istream>
#include <ostream>

namespace quillstone {
namespace dropbox {

struct Action {
  int32_t type;
  void* argument;  // the action's data
  void* context;   // the caller's token, handed back in the result

  // 0, or QS_FAILED at the first field that cannot be written (the fields
  // before it stay on the stream).
  int WriteToStream(std::ostream& stream) const;
  // 0, QS_NOT_FOUND at a clean end of the stream, or QS_FAILED on a record
  // cut short (fields read before the cut are already stored).
  int ReadFromStream(std::istream& stream);
};

struct ActionResult {
  int32_t type;   // DropboxClient writes 2 for every worker
  int32_t code;   // the worker's exit status, 0 to 255
  void* context;  // the user_data of the call that started the worker
  void* payload;

  int WriteToStream(std::ostream& stream) const;
  int ReadFromStream(std::istream& stream);
};

}  // namespace dropbox
}  // namespace quillstone
