// A small reader of one JSON document on json-c, for replies whose only use
// is a member or two (the reply to an upload chunk).
//
// The parser owns its root; EnterObject walks into nested objects and reads
// act on the innermost one entered. Not for use from several threads at once.
#pragma once

#include <json-c/json.h>

#include <string>
#include <vector>

#include "qs_log.h"

namespace quillstone {
namespace utilities {

class JsonParser {
 public:
  JsonParser() : root_obj_(nullptr) {}
  ~JsonParser() {
    if (root_obj_ != nullptr) json_object_put(root_obj_);
  }
  JsonParser(const JsonParser&) = delete;
  JsonParser& operator=(const JsonParser&) = delete;

  // Parses `data` (a trailing zero byte is allowed). 0 with a root; -1
  // (QS_FAILED) for text that is not JSON, silently, and for the document
  // "null", which has no root, with a log line.
  int Init(const std::vector<char>& data) {
    Reset();
    json_tokener* tokener = json_tokener_new();
    if (tokener == nullptr) return -1;
    // json-c reads a zero byte as the end of the text.
    json_object* root = json_tokener_parse_ex(tokener, data.data(), static_cast<int>(data.size()));
    const json_tokener_error error = json_tokener_get_error(tokener);
    json_tokener_free(tokener);
    if (error != json_tokener_success) {
      if (root != nullptr) json_object_put(root);
      return -1;
    }
    root_obj_ = root;
    if (root_obj_ == nullptr) {
      qs_print_log2(kLogError, "base_toolkit/json_parser_utils", __LINE__, __PRETTY_FUNCTION__,
                    "[pid:%d]Condition: \"is_error(root_obj_)\", return(\"QS_FAILED\")]",
                    g_process_pid);
      return -1;
    }
    return 0;
  }

  bool HasRoot() const { return root_obj_ != nullptr; }

  // The text of member `key` of the current object. "" when there is no
  // object or no such member; a member that is not a string gives its JSON
  // text ("12", "true").
  std::string GetString(const char* key) const {
    json_object* object = Current();
    json_object* value = nullptr;
    if (object == nullptr || json_object_get_type(object) != json_type_object) return "";
    if (!json_object_object_get_ex(object, key, &value) || value == nullptr) return "";
    const char* text = json_object_get_string(value);
    return text != nullptr ? text : "";
  }

  // Makes member `key`, an object, the current one. False, and no change,
  // when it is absent or no object.
  bool EnterObject(const char* key) {
    json_object* object = Current();
    json_object* value = nullptr;
    if (object == nullptr || json_object_get_type(object) != json_type_object) return false;
    if (!json_object_object_get_ex(object, key, &value) ||
        json_object_get_type(value) != json_type_object) {
      return false;
    }
    stack_.push_back(value);
    return true;
  }
  // Back to the object that was current before the last EnterObject.
  void LeaveObject() {
    if (!stack_.empty()) stack_.pop_back();
  }

 private:
  json_object* Current() const { return stack_.empty() ? root_obj_ : stack_.back(); }
  void Reset() {
    stack_.clear();
    if (root_obj_ != nullptr) json_object_put(root_obj_);
    root_obj_ = nullptr;
  }

  json_object* root_obj_;            // owned
  std::vector<json_object*> stack_;  // borrowed from the root
};

}  // namespace utilities
}  // namespace quillstone
