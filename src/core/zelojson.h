// Access to the cloud's JSON messages. Every function parses the whole text afresh and releases
// it before returning; results are 0 (found) or -1 (absent, wrong type, or does not fit).
// Every copy is bounded by the destination's size and always terminated.
//
// Integers are JSON integers that fit in 32 bits; "12", 1.5 or 1e3 are not integers.
#pragma once

#include <json-c/json.h>

#include <cstddef>
#include <string>

// 0 when the text parses as JSON.
int json_verify(const char* text);

// 0 when the text parses and its top level holds the key. Logs "Not in json format: " otherwise.
int json_verify_method(const char* text, const char* key);

// 0 when the top-level key holds a value of the given json-c type equal to *expected: an int for
// json_type_int, a terminated text (same length, same bytes) for json_type_string. Other types
// compare only the type.
int json_verify_method_value(const char* text, const char* key, const void* expected,
                             json_type type);

// Top-level string, truncated to size - 1 bytes.
int json_verify_get_string(const char* text, const char* key, char* dst, size_t size);

// Top-level integer.
int json_verify_get_int(const char* text, const char* key, int* out);

// Top-level array of strings: the texts concatenated without separators, truncated to size - 1
// bytes. -1 when an element is not a string.
int json_verify_get_array(const char* text, const char* key, char* dst, size_t size);

// Top-level string. -1 (logged) when it does not fit in size - 1 bytes: nothing is truncated.
int json_get_string_value(const char* text, const char* key, char* dst, size_t size);

// Top-level integer.
int json_get_int_value(const char* text, const char* key, int* out);

// Top-level object, as its compact serialised text. -1 when it does not fit.
int json_get_object_value(const char* text, const char* key, char* dst, size_t size);

// A string of "params": when "params" is an array, the key of its first object element that
// holds that string key; when it is an object, its own key. -1 when it does not fit.
int json_get_param_string_value(const char* text, const char* key, char* dst, size_t size);

namespace zelojson {

// A parsed message, released when the object goes. Empty when the text does not parse.
class Doc {
 public:
  explicit Doc(const char* text);
  ~Doc();
  Doc(const Doc&) = delete;
  Doc& operator=(const Doc&) = delete;

  json_object* root() const { return root_; }
  // The top-level member, or nullptr (also when the root is not an object).
  json_object* Get(const char* key) const;

 private:
  json_object* root_ = nullptr;
};

// A value as a 32-bit integer: true only for a JSON integer within range.
bool GetInt(json_object* value, int* out);
// A value as a 64-bit integer: true only for a JSON integer.
bool GetInt64(json_object* value, int64_t* out);
// A value as a string: true only for a JSON string.
bool GetString(json_object* value, std::string* out);

// The text quoted as a JSON string (with the quotes), escaping what JSON requires.
std::string Quote(const std::string& text);

// Compact serialisation of a value (no blanks, "/" not escaped).
std::string ToText(json_object* value);

}  // namespace zelojson
