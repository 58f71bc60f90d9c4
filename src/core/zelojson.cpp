#include "core/zelojson.h"

#include <climits>
#include <cstdint>
#include <cstring>

#include "base/log.h"

namespace zelojson {

Doc::Doc(const char* text) {
  if (text != nullptr) root_ = json_tokener_parse(text);
}

Doc::~Doc() {
  if (root_ != nullptr) json_object_put(root_);
}

json_object* Doc::Get(const char* key) const {
  json_object* value = nullptr;
  if (root_ == nullptr || key == nullptr || !json_object_is_type(root_, json_type_object)) {
    return nullptr;
  }
  if (!json_object_object_get_ex(root_, key, &value)) return nullptr;
  return value;
}

bool GetInt64(json_object* value, int64_t* out) {
  if (value == nullptr || !json_object_is_type(value, json_type_int)) return false;
  int64_t v = json_object_get_int64(value);
  // json-c keeps integers above INT64_MAX as unsigned and clamps them here: not ours to take.
  if (v == INT64_MAX && json_object_get_uint64(value) > static_cast<uint64_t>(INT64_MAX)) {
    return false;
  }
  *out = v;
  return true;
}

bool GetInt(json_object* value, int* out) {
  int64_t v = 0;
  if (!GetInt64(value, &v) || v < INT_MIN || v > INT_MAX) return false;
  *out = static_cast<int>(v);
  return true;
}

bool GetString(json_object* value, std::string* out) {
  if (value == nullptr || !json_object_is_type(value, json_type_string)) return false;
  const char* s = json_object_get_string(value);
  int len = json_object_get_string_len(value);
  if (s == nullptr || len < 0) return false;
  out->assign(s, static_cast<size_t>(len));
  // A zero byte inside a string would cut it short in every C consumer: refuse it whole.
  return out->find('\0') == std::string::npos;
}

std::string Quote(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 2);
  out.push_back('"');
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          static const char kHex[] = "0123456789abcdef";
          out += "\\u00";
          out.push_back(kHex[c >> 4]);
          out.push_back(kHex[c & 15]);
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  out.push_back('"');
  return out;
}

std::string ToText(json_object* value) {
  const char* s = json_object_to_json_string_ext(
      value, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
  return s != nullptr ? std::string(s) : std::string("null");
}

}  // namespace zelojson

namespace {

using zelojson::Doc;

// Copies text into dst when it fits in size - 1 bytes. Otherwise logs and returns -1.
int CopyWhole(const std::string& text, const char* key, char* dst, size_t size) {
  if (dst == nullptr || size == 0) return -1;
  if (text.size() >= size) {
    TLOG(LOG_DEBUG) << "Value of \"" << key << "\" too long: " << text.size() << " bytes, room for "
                    << size - 1;
    dst[0] = '\0';
    return -1;
  }
  std::memcpy(dst, text.data(), text.size());
  dst[text.size()] = '\0';
  return 0;
}

// Copies at most size - 1 bytes of text into dst.
void CopyCut(const std::string& text, char* dst, size_t size) {
  size_t n = text.size() < size - 1 ? text.size() : size - 1;
  std::memcpy(dst, text.data(), n);
  dst[n] = '\0';
}

bool Parsed(const Doc& doc, const char* text) {
  if (doc.root() != nullptr) return true;
  TLOG(LOG_DEBUG) << "Not in json format: " << (text != nullptr ? text : "(null)");
  return false;
}

}  // namespace

int json_verify(const char* text) {
  Doc doc(text);
  return doc.root() != nullptr ? 0 : -1;
}

int json_verify_method(const char* text, const char* key) {
  Doc doc(text);
  if (!Parsed(doc, text)) return -1;
  return doc.Get(key) != nullptr ? 0 : -1;
}

int json_verify_method_value(const char* text, const char* key, const void* expected,
                             json_type type) {
  Doc doc(text);
  if (!Parsed(doc, text)) return -1;
  json_object* value = doc.Get(key);
  if (value == nullptr || !json_object_is_type(value, type)) return -1;
  if (type == json_type_int) {
    int v = 0;
    if (expected == nullptr || !zelojson::GetInt(value, &v)) return -1;
    return v == *static_cast<const int*>(expected) ? 0 : -1;
  }
  if (type == json_type_string) {
    std::string v;
    if (expected == nullptr || !zelojson::GetString(value, &v)) return -1;
    const char* want = static_cast<const char*>(expected);
    size_t want_len = std::strlen(want);
    return v.size() == want_len && std::memcmp(v.data(), want, want_len) == 0 ? 0 : -1;
  }
  return 0;
}

int json_verify_get_string(const char* text, const char* key, char* dst, size_t size) {
  if (dst == nullptr || size == 0) return -1;
  dst[0] = '\0';
  Doc doc(text);
  if (!Parsed(doc, text)) return -1;
  std::string v;
  if (!zelojson::GetString(doc.Get(key), &v)) return -1;
  CopyCut(v, dst, size);
  return 0;
}

int json_verify_get_int(const char* text, const char* key, int* out) {
  Doc doc(text);
  if (!Parsed(doc, text) || out == nullptr) return -1;
  return zelojson::GetInt(doc.Get(key), out) ? 0 : -1;
}

int json_verify_get_array(const char* text, const char* key, char* dst, size_t size) {
  if (dst == nullptr || size == 0) return -1;
  dst[0] = '\0';
  Doc doc(text);
  if (!Parsed(doc, text)) return -1;
  json_object* array = doc.Get(key);
  if (array == nullptr || !json_object_is_type(array, json_type_array)) return -1;
  std::string joined;
  size_t n = json_object_array_length(array);
  for (size_t i = 0; i < n; i++) {
    std::string element;
    if (!zelojson::GetString(json_object_array_get_idx(array, i), &element)) return -1;
    joined += element;
    if (joined.size() >= size) break;
  }
  CopyCut(joined, dst, size);
  return 0;
}

int json_get_string_value(const char* text, const char* key, char* dst, size_t size) {
  if (dst == nullptr || size == 0) return -1;
  dst[0] = '\0';
  Doc doc(text);
  std::string v;
  if (!zelojson::GetString(doc.Get(key), &v)) return -1;
  return CopyWhole(v, key, dst, size);
}

int json_get_int_value(const char* text, const char* key, int* out) {
  Doc doc(text);
  if (out == nullptr) return -1;
  return zelojson::GetInt(doc.Get(key), out) ? 0 : -1;
}

int json_get_object_value(const char* text, const char* key, char* dst, size_t size) {
  if (dst == nullptr || size == 0) return -1;
  dst[0] = '\0';
  Doc doc(text);
  json_object* value = doc.Get(key);
  if (value == nullptr || !json_object_is_type(value, json_type_object)) return -1;
  return CopyWhole(zelojson::ToText(value), key, dst, size);
}

int json_get_param_string_value(const char* text, const char* key, char* dst, size_t size) {
  if (dst == nullptr || size == 0) return -1;
  dst[0] = '\0';
  Doc doc(text);
  json_object* params = doc.Get("params");
  if (params == nullptr) {
    TLOG(LOG_DEBUG) << "json_get_param_string_value json_object_object_get_ex error";
    return -1;
  }
  std::string v;
  if (json_object_is_type(params, json_type_array)) {
    size_t n = json_object_array_length(params);
    for (size_t i = 0; i < n; i++) {
      json_object* element = json_object_array_get_idx(params, i);
      if (element == nullptr || !json_object_is_type(element, json_type_object)) continue;
      json_object* value = nullptr;
      if (json_object_object_get_ex(element, key, &value) && zelojson::GetString(value, &v)) {
        return CopyWhole(v, key, dst, size);
      }
    }
    return -1;
  }
  if (json_object_is_type(params, json_type_object)) {
    json_object* value = nullptr;
    if (!json_object_object_get_ex(params, key, &value) || !zelojson::GetString(value, &v)) {
      return -1;
    }
    return CopyWhole(v, key, dst, size);
  }
  TLOG(LOG_DEBUG) << "error format";
  return -1;
}
