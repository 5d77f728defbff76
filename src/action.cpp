#define QS_SOURCE_NAME "src/action"

#include "action.h"

#include "qs_codes.h"
#include "qs_log.h"
#include "serialization_utils.h"

using quillstone::utilities::SerializationUtils;

namespace quillstone {
namespace dropbox {

namespace {

// A clean end between two records reads as QS_NOT_FOUND; only a record that
// starts and then breaks off is a failure.
bool AtCleanEnd(std::istream& stream) {
  if (stream.eof()) return true;
  int c = stream.get();
  if (stream.eof()) return true;
  stream.putback(static_cast<char>(c));
  return false;
}

int Failed() {
  QS_LOG_CONDITION("0 == err", "QS_FAILED");
  return QS_FAILED;
}

static_assert(sizeof(int) == sizeof(int32_t), "fields are read straight into the record");

}  // namespace

int Action::WriteToStream(std::ostream& stream) const {
  if (SerializationUtils::SerializeInt32(type, stream) != 0) return Failed();
  if (SerializationUtils::SerializePointer(argument, stream) != 0) return Failed();
  if (SerializationUtils::SerializePointer(context, stream) != 0) return Failed();
  return 0;
}

int Action::ReadFromStream(std::istream& stream) {
  if (AtCleanEnd(stream)) return QS_NOT_FOUND;
  if (SerializationUtils::DeserializeInt32(stream, &type) != 0) return Failed();
  if (SerializationUtils::DeserializePointer(stream, &argument) != 0) return Failed();
  if (SerializationUtils::DeserializePointer(stream, &context) != 0) return Failed();
  return 0;
}

int ActionResult::WriteToStream(std::ostream& stream) const {
  if (SerializationUtils::SerializeInt32(type, stream) != 0) return Failed();
  if (SerializationUtils::SerializeInt32(code, stream) != 0) return Failed();
  if (SerializationUtils::SerializePointer(context, stream) != 0) return Failed();
  if (SerializationUtils::SerializePointer(payload, stream) != 0) return Failed();
  return 0;
}

int ActionResult::ReadFromStream(std::istream& stream) {
  if (AtCleanEnd(stream)) return QS_NOT_FOUND;
  if (SerializationUtils::DeserializeInt32(stream, &type) != 0) return Failed();
  if (SerializationUtils::DeserializeInt32(stream, &code) != 0) return Failed();
  if (SerializationUtils::DeserializePointer(stream, &context) != 0) return Failed();
  if (SerializationUtils::DeserializePointer(stream, &payload) != 0) return Failed();
  return 0;
}

}  // namespace dropbox
}  // namespace quillstone
