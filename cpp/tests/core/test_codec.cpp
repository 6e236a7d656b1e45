#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "quorvex/core/codec.hpp"
#include "quorvex/core/value.hpp"

using namespace quorvex::core;

namespace {

std::string hex_bytes(std::initializer_list<int> bytes) {
  std::string out;
  for (int b : bytes) out.push_back(static_cast<char>(b));
  return out;
}

// Random trees over every kind, for round-trip properties.
class RandomValues {
 public:
  explicit RandomValues(std::uint32_t seed) : rng_(seed) {}

  Value next(int depth = 0) {
    const int kinds = depth >= 4 ? 8 : 10;
    switch (pick(0, kinds - 1)) {
      case 0: return Value();
      case 1: return Value(pick(0, 1) == 1);
      case 2: {
        const auto magnitude = static_cast<std::int64_t>(static_cast<std::uint64_t>(rng_()) << pick(0, 31));
        return Value(pick(0, 1) ? magnitude : -magnitude);
      }
      case 3: return Value(std::numeric_limits<std::uint64_t>::max() - pick(0, 1000));
      case 4:
        return Value(pick(0, 1) ? std::uniform_real_distribution<double>(-1e12, 1e12)(rng_)
                                : pick(-5, 5) * 1.0);
      case 5: return Value(text());
      case 6: return Value::binary(text());
      case 7: return Value(Extension{static_cast<std::int8_t>(pick(-128, 127)), Bytes(pick(0, 20), 7)});
      case 8: {
        Value v = Value::array({});
        for (int i = pick(0, 5); i > 0; --i) v.push_back(next(depth + 1));
        return v;
      }
      default: {
        Value v = Value::map({});
        for (int i = pick(0, 20); i > 0; --i) v.set(text() + std::to_string(i), next(depth + 1));
        return v;
      }
    }
  }

 private:
  int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
  std::string text() {
    std::string s(pick(0, 40), ' ');
    for (auto& c : s) c = static_cast<char>(pick(32, 126));
    return s;
  }
  std::mt19937 rng_;
};

}  // namespace

struct EncodingCase {
  const char* name;
  Value value;
  std::string bytes;
};

class KnownEncodings : public ::testing::TestWithParam<EncodingCase> {};

TEST_P(KnownEncodings, EncodesCompactlyAndDecodesBack) {
  EXPECT_EQ(encode(GetParam().value), GetParam().bytes);
  EXPECT_EQ(decode(GetParam().bytes), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Codec, KnownEncodings,
    ::testing::Values(
        EncodingCase{"nil", Value(), hex_bytes({0xc0})},
        EncodingCase{"small_int", Value(1), hex_bytes({0x01})},
        EncodingCase{"negative_fixint", Value(-1), hex_bytes({0xff})},
        EncodingCase{"uint8", Value(200), hex_bytes({0xcc, 0xc8})},
        EncodingCase{"int16", Value(-300), hex_bytes({0xd1, 0xfe, 0xd4})},
        EncodingCase{"uint64_max", Value(std::numeric_limits<std::uint64_t>::max()),
                     hex_bytes({0xcf, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff})},
        EncodingCase{"double", Value(1.5), hex_bytes({0xcb, 0x3f, 0xf8, 0, 0, 0, 0, 0, 0})},
        EncodingCase{"whole_double_stays_double", Value(2.0), hex_bytes({0xcb, 0x40, 0, 0, 0, 0, 0, 0, 0})},
        EncodingCase{"string", Value("ok"), hex_bytes({0xa2, 'o', 'k'})},
        EncodingCase{"binary", Value::binary("\x01"), hex_bytes({0xc4, 0x01, 0x01})},
        EncodingCase{"ext", Value(Extension{5, Bytes{9}}), hex_bytes({0xd4, 0x05, 0x09})},
        EncodingCase{"map_keeps_order", Value::map({{"b", 1}, {"a", true}}),
                     hex_bytes({0x82, 0xa1, 'b', 0x01, 0xa1, 'a', 0xc3})},
        EncodingCase{"nested", Value::map({{"s", Value::map({{"c", 200}})}, {"r", Value::array({nullptr})}}),
                     hex_bytes({0x82, 0xa1, 's', 0x81, 0xa1, 'c', 0xcc, 0xc8, 0xa1, 'r', 0x91, 0xc0})}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Codec, RandomTreesRoundTrip) {
  RandomValues values(12345);
  for (int i = 0; i < 2000; ++i) {
    const Value v = values.next();
    const std::string bytes = encode(v);
    ASSERT_EQ(decode(bytes), v) << to_display_string(v);
  }
}

TEST(Codec, Float32DecodesAsDouble) { EXPECT_EQ(decode(hex_bytes({0xca, 0x3f, 0xc0, 0, 0})), Value(1.5)); }

TEST(Codec, NonNegativeIntegersDecodeAsSignedWhenTheyFit) {
  // msgpack sends non-negative numbers in unsigned forms; they must read back as ordinary ints.
  const Value v = decode(encode(Value(std::int64_t{42})));
  EXPECT_EQ(v.kind(), Value::Kind::Int);
  EXPECT_EQ(decode(encode(Value(std::numeric_limits<std::int64_t>::min()))).as_int(),
            std::numeric_limits<std::int64_t>::min());
}

struct MalformedCase {
  const char* name;
  std::string bytes;
  const char* message;
};

class MalformedInput : public ::testing::TestWithParam<MalformedCase> {};

TEST_P(MalformedInput, IsRefusedWithAClearError) {
  try {
    decode(GetParam().bytes);
    FAIL() << "decoded malformed input";
  } catch (const CodecError& e) {
    EXPECT_NE(std::string(e.what()).find(GetParam().message), std::string::npos) << e.what();
  }
}

INSTANTIATE_TEST_SUITE_P(
    Codec, MalformedInput,
    ::testing::Values(
        MalformedCase{"empty", "", "empty input"},
        MalformedCase{"truncated_string", hex_bytes({0xa5, 'a', 'b'}), "truncated"},
        MalformedCase{"truncated_map", hex_bytes({0x82, 0xa1, 'a', 0x01}), "truncated"},
        MalformedCase{"reserved_byte", hex_bytes({0xc1}), "malformed msgpack at byte 0"},
        MalformedCase{"trailing", hex_bytes({0x01, 0x02}), "1 trailing bytes"},
        MalformedCase{"int_key", hex_bytes({0x81, 0x01, 0x02}), "map key must be a string, found int"},
        MalformedCase{"array_key", hex_bytes({0x81, 0x90, 0x02}), "map key must be a string, found array"},
        MalformedCase{"duplicate_key", hex_bytes({0x82, 0xa1, 'k', 0x01, 0xa1, 'k', 0x02}),
                      "duplicate map key 'k'"},
        MalformedCase{"huge_array_header", hex_bytes({0xdd, 0x7f, 0xff, 0xff, 0xff, 0x01}), "cannot fit"},
        MalformedCase{"huge_string_header", hex_bytes({0xdb, 0x7f, 0xff, 0xff, 0xff, 'a'}), "truncated"},
        MalformedCase{"huge_map_header", hex_bytes({0xdf, 0x7f, 0xff, 0xff, 0xff, 0xa1, 'a'}), "cannot fit"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Codec, NestedHugeHeadersAreRefusedBeforeReserving) {
  // Each level claims as many elements as the input has bytes; together they cannot fit.
  std::string bytes;
  for (int i = 0; i < 50; ++i) bytes += hex_bytes({0xdc, 0x00, 0x64});
  bytes.resize(100, '\x01');
  EXPECT_THROW(decode(bytes), CodecError);
}

TEST(Codec, DuplicateKeysInLargeMapsAreRefused) {
  Value v = Value::map({});
  for (int i = 0; i < 40; ++i) v.set("k" + std::to_string(i), i);
  std::string bytes = encode(v);
  // Rename key "k39" to "k38".
  const auto pos = bytes.rfind("k39");
  bytes[pos + 2] = '8';
  EXPECT_THROW(decode(bytes), CodecError);
}

TEST(Codec, NestingLimitAppliesToDecodeAndEncode) {
  std::string deep(150, '\x91');
  deep.push_back('\xc0');
  EXPECT_THROW(decode(deep), CodecError);
  EXPECT_NO_THROW(decode(deep, DecodeLimits{200}));

  Value v;
  for (int i = 0; i < 150; ++i) v = Value::array({std::move(v)});
  EXPECT_THROW(encode(v), CodecError);
}

TEST(Codec, EveryPrefixOfAValidMessageIsRefused) {
  RandomValues values(7);
  for (int round = 0; round < 50; ++round) {
    Value v = Value::map({{"payload", values.next()}, {"n", round}});
    const std::string bytes = encode(v);
    for (std::size_t n = 0; n < bytes.size(); ++n) {
      EXPECT_THROW(decode(std::string_view(bytes.data(), n)), CodecError);
    }
  }
}

TEST(Codec, RandomBytesNeverCrash) {
  std::mt19937 rng(99);
  RandomValues values(3);
  int decoded = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string bytes;
    if (i % 2 == 0) {
      bytes.resize(rng() % 64);
      for (auto& c : bytes) c = static_cast<char>(rng());
    } else {
      // Mutations of valid messages reach deeper into the parser than pure noise.
      bytes = encode(values.next());
      for (int flips = 1 + rng() % 3; flips > 0; --flips)
        bytes[rng() % bytes.size()] = static_cast<char>(rng());
    }
    try {
      decode(bytes);
      ++decoded;
    } catch (const CodecError&) {
    }
  }
  EXPECT_GT(decoded, 0);
}

// ---- Value readers and builders ----

TEST(Value, LenientLookupsChainThroughAbsentEntries) {
  const Value reply = Value::map(
      {{"status", Value::map({{"status_code", 200}, {"detail", "ok"}})}, {"response", Value::array({1, 2})}});
  EXPECT_EQ(reply.get("status").get_int("status_code", 0), 200);
  EXPECT_EQ(reply.get("status").get_string("detail"), "ok");
  EXPECT_EQ(reply.get("missing").get("deeper").get_int("status_code", -1), -1);
  EXPECT_EQ(reply.get("response").at(1).as_int(), 2);
  EXPECT_TRUE(reply.get("response").at(5).is_nil());
  EXPECT_TRUE(Value(3).get("x").is_nil());
  EXPECT_EQ(reply.get_array("response").size(), 2u);
  EXPECT_TRUE(reply.get_array("nothing").empty());
}

TEST(Value, TypedReadersGiveDefaultsForNilAndNameTheKeyOnMismatch) {
  const Value v = Value::map({{"qty", "5"}, {"price", 10}, {"none", nullptr}, {"neg", -1}});
  EXPECT_EQ(v.get_int("none", 7), 7);
  EXPECT_DOUBLE_EQ(v.get_double("price"), 10.0);  // integers read as doubles
  EXPECT_EQ(v.get_bool("absent", true), true);
  try {
    v.get_int("qty");
    FAIL();
  } catch (const ValueError& e) {
    EXPECT_STREQ(e.what(), "entry 'qty': expected int, found string");
  }
  EXPECT_THROW(v.get_uint("neg"), ValueError);
  EXPECT_THROW(v.get_string("price"), ValueError);
  EXPECT_THROW(Value(std::numeric_limits<std::uint64_t>::max()).as_int(), ValueError);
  EXPECT_THROW(Value("x").as_map(), ValueError);
}

TEST(Value, WritersBuildMapsAndArraysFromNil) {
  Value reply;
  reply["status"]["status_code"] = 200;
  reply.set("response", Value::array({}));
  reply["response"].push_back(Value::map({{"id", "A1"}}));
  reply.set("status", Value::map({{"status_code", 404}}));  // replaces in place, keeps position
  EXPECT_EQ(reply, Value::map({{"status", Value::map({{"status_code", 404}})},
                               {"response", Value::array({Value::map({{"id", "A1"}})})}}));
  EXPECT_EQ(reply.as_map().begin()->key, "status");
  Value text("x");
  EXPECT_THROW(text.set("k", 1), ValueError);
  EXPECT_TRUE(reply.as_map().erase("status"));
  EXPECT_FALSE(reply.contains("status"));
}

TEST(Value, EqualityTreatsNanAsEqualAndKindsAsDistinct) {
  EXPECT_EQ(Value(std::nan("")), Value(std::nan("")));
  EXPECT_NE(Value(1), Value(1.0));
  EXPECT_EQ(Value(1u), Value(1));
  EXPECT_NE(Value::map({{"a", 1}, {"b", 2}}), Value::map({{"b", 2}, {"a", 1}}));  // order is part of a map
}

TEST(Value, DisplayTextIsReadable) {
  EXPECT_EQ(to_display_string(
                Value::map({{"a", Value::array({1, "x\"y", nullptr, true})}, {"b", Value::binary("\x0f")}})),
            "{\"a\": [1, \"x\\\"y\", null, true], \"b\": b'0f'}");
}
