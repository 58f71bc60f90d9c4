#include "core/zelojson.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(ZeloJson, VerifyAndPresence) {
  EXPECT_EQ(0, json_verify("{\"id\":1}"));
  EXPECT_EQ(-1, json_verify("{\"id\":"));
  EXPECT_EQ(-1, json_verify(""));
  EXPECT_EQ(-1, json_verify(nullptr));
  EXPECT_EQ(0, json_verify_method("{\"method\":\"x\"}", "method"));
  EXPECT_EQ(-1, json_verify_method("{\"method\":\"x\"}", "params"));
  EXPECT_EQ(-1, json_verify_method("[1,2]", "method"));  // not an object
}

TEST(ZeloJson, MethodValueComparesWholeText) {
  const char* msg = "{\"method\":\"rename\",\"id\":7}";
  EXPECT_EQ(0, json_verify_method_value(msg, "method", "rename", json_type_string));
  // A prefix or an extension of the value is not the value.
  EXPECT_EQ(-1, json_verify_method_value(msg, "method", "ren", json_type_string));
  EXPECT_EQ(-1, json_verify_method_value(msg, "method", "renamed", json_type_string));
  int seven = 7, eight = 8;
  EXPECT_EQ(0, json_verify_method_value(msg, "id", &seven, json_type_int));
  EXPECT_EQ(-1, json_verify_method_value(msg, "id", &eight, json_type_int));
  EXPECT_EQ(-1, json_verify_method_value(msg, "id", "7", json_type_string));
}

TEST(ZeloJson, IntegersAreExactly32BitJsonIntegers) {
  int v = 0;
  EXPECT_EQ(0, json_get_int_value("{\"id\":-2147483648}", "id", &v));
  EXPECT_EQ(INT32_MIN, v);
  EXPECT_EQ(0, json_verify_get_int("{\"id\":2147483647}", "id", &v));
  EXPECT_EQ(INT32_MAX, v);
  for (const char* bad :
       {"{\"id\":\"12\"}", "{\"id\":1.5}", "{\"id\":1e3}", "{\"id\":true}", "{\"id\":2147483648}",
        "{\"id\":99999999999999999999}", "{\"id\":null}", "{}"}) {
    v = 42;
    EXPECT_EQ(-1, json_get_int_value(bad, "id", &v)) << bad;
    EXPECT_EQ(-1, json_verify_get_int(bad, "id", &v)) << bad;
  }
  int64_t big = 0;
  zelojson::Doc doc("{\"t\":4102444800,\"u\":18446744073709551615}");
  EXPECT_TRUE(zelojson::GetInt64(doc.Get("t"), &big));
  EXPECT_EQ(4102444800LL, big);
  EXPECT_FALSE(zelojson::GetInt64(doc.Get("u"), &big));
}

TEST(ZeloJson, StringCopiesAreBounded) {
  const char* msg = "{\"params\":\"abcdef\"}";
  char buf[7];
  std::memset(buf, 'X', sizeof(buf));
  // Exactly fits: six bytes and the terminator.
  EXPECT_EQ(0, json_get_string_value(msg, "params", buf, sizeof(buf)));
  EXPECT_STREQ("abcdef", buf);
  // One byte short: the unbounded form of old refuses instead of cutting the value.
  char small[6];
  EXPECT_EQ(-1, json_get_string_value(msg, "params", small, sizeof(small)));
  EXPECT_STREQ("", small);
  // The verify form cuts to size - 1 as it always did.
  EXPECT_EQ(0, json_verify_get_string(msg, "params", small, sizeof(small)));
  EXPECT_STREQ("abcde", small);
  EXPECT_EQ(-1, json_get_string_value(msg, "params", buf, 0));
  // Not a string.
  EXPECT_EQ(-1, json_get_string_value("{\"params\":5}", "params", buf, sizeof(buf)));
  // A zero byte inside the value would cut it short downstream: refused whole.
  EXPECT_EQ(-1, json_get_string_value("{\"params\":\"ab\\u0000cd\"}", "params", buf, sizeof(buf)));
}

TEST(ZeloJson, ArrayOfStringsIsConcatenatedAndBounded) {
  char buf[8];
  EXPECT_EQ(0, json_verify_get_array("{\"params\":[\"1\"]}", "params", buf, sizeof(buf)));
  EXPECT_STREQ("1", buf);
  EXPECT_EQ(0, json_verify_get_array("{\"params\":[\"ab\",\"cd\",\"ef\",\"gh\"]}", "params", buf,
                                     sizeof(buf)));
  EXPECT_STREQ("abcdefg", buf);
  EXPECT_EQ(-1, json_verify_get_array("{\"params\":[\"ab\",3]}", "params", buf, sizeof(buf)));
  EXPECT_EQ(-1, json_verify_get_array("{\"params\":\"1\"}", "params", buf, sizeof(buf)));
}

TEST(ZeloJson, ObjectValueIsCompactTextAndBounded) {
  const char* msg = "{\"result\":{ \"mp4\" : {\"url\":\"http://h/a b\"} }}";
  char buf[128];
  ASSERT_EQ(0, json_get_object_value(msg, "result", buf, sizeof(buf)));
  EXPECT_STREQ("{\"mp4\":{\"url\":\"http://h/a b\"}}", buf);
  char small[10];
  EXPECT_EQ(-1, json_get_object_value(msg, "result", small, sizeof(small)));
  EXPECT_EQ(-1, json_get_object_value("{\"result\":\"ok\"}", "result", buf, sizeof(buf)));
}

TEST(ZeloJson, ParamStringFromObjectOrArrayOfObjects) {
  char buf[32];
  EXPECT_EQ(0, json_get_param_string_value("{\"params\":{\"app_url\":\"u\"}}", "app_url", buf,
                                           sizeof(buf)));
  EXPECT_STREQ("u", buf);
  // In an array the first object that holds the key wins.
  EXPECT_EQ(0, json_get_param_string_value(
                   "{\"params\":[1,{\"x\":\"y\"},{\"md5\":\"m1\"},{\"md5\":\"m2\"}]}", "md5", buf,
                   sizeof(buf)));
  EXPECT_STREQ("m1", buf);
  EXPECT_EQ(-1, json_get_param_string_value("{\"params\":[{\"md5\":5}]}", "md5", buf, sizeof(buf)));
  EXPECT_EQ(-1, json_get_param_string_value("{\"id\":1}", "md5", buf, sizeof(buf)));
  EXPECT_EQ(-1, json_get_param_string_value("{\"params\":\"md5\"}", "md5", buf, sizeof(buf)));
  char small[3];
  EXPECT_EQ(-1,
            json_get_param_string_value("{\"params\":{\"k\":\"abc\"}}", "k", small, sizeof(small)));
}

TEST(ZeloJson, QuoteProducesParsableJson) {
  const std::string nasty = std::string("a\"b\\c\nd\x01/\xc3\xa9", 11);
  std::string quoted = zelojson::Quote(nasty);
  std::string doc_text = "{\"v\":" + quoted + "}";
  zelojson::Doc doc(doc_text.c_str());
  std::string back;
  ASSERT_TRUE(zelojson::GetString(doc.Get("v"), &back));
  EXPECT_EQ(nasty, back);
  EXPECT_EQ("\"a/b\"", zelojson::Quote("a/b"));  // no needless escaping
}

}  // namespace
