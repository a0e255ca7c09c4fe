#include "Cim.h"
#include "MofReader.h"
#include "Wire.h"

#include <gtest/gtest.h>

namespace wmi_host {
namespace {

Repository repository() {
  Repository result = systemRepository();
  readMof(result, R"(#pragma namespace("root\\cimv2")
      [abstract] class Top { [key] string Id; [key] uint32 Number; };
      class Leaf : Top { uint8 Bytes[]; boolean Flag = TRUE; sint64 Low; };)",
          "test");
  return result;
}

struct FitRow {
  CimType type;
  Scalar value;
  bool fits;
};

TEST(Cim, ANumberFitsWithinTheRangeOfItsType) {
  const FitRow rows[] = {
      {CimType::uint8, std::int64_t{255}, true},
      {CimType::uint8, std::int64_t{256}, false},
      {CimType::uint8, std::int64_t{-1}, false},
      {CimType::sint8, std::int64_t{-128}, true},
      {CimType::sint8, std::uint64_t{128}, false},
      {CimType::sint16, std::int64_t{-32769}, false},
      {CimType::uint16, std::uint64_t{65536}, false},
      {CimType::uint32, std::uint64_t{4294967295}, true},
      {CimType::uint32, std::uint64_t{4294967296}, false},
      {CimType::sint32, std::int64_t{-2147483648LL}, true},
      {CimType::sint64, std::uint64_t{UINT64_MAX}, false},
      {CimType::uint64, std::uint64_t{UINT64_MAX}, true},
      {CimType::uint32, true, false},
      {CimType::uint32, std::wstring(L"3"), false},
      {CimType::boolean, std::int64_t{1}, false},
      {CimType::string, std::int64_t{1}, false},
      {CimType::datetime, std::wstring(L"20240131120000.000000+060"), true},
      {CimType::datetime, std::wstring(L"2024013112****.******+***"), true},
      {CimType::datetime, std::wstring(L"00000001000000.000000:000"), true},
      {CimType::datetime, std::wstring(L"2024-01-31"), false},
      {CimType::datetime, std::wstring(), false},
  };
  for (const FitRow& row : rows) {
    EXPECT_EQ(fit(row.type, row.value).has_value(), row.fits) << &row - rows;
  }
}

TEST(Cim, IntegersAreReadWhole) {
  EXPECT_EQ(parseInteger(L"18446744073709551615"), Scalar(std::uint64_t{UINT64_MAX}));
  EXPECT_EQ(parseInteger(L"-9223372036854775808"), Scalar(std::int64_t{INT64_MIN}));
  EXPECT_EQ(parseInteger(L"0xfF"), Scalar(std::uint64_t{255}));
  for (const wchar_t* text :
       {L"", L"-", L"0x", L"1a", L"18446744073709551616", L"-9223372036854775809", L" 1", L"1 "}) {
    EXPECT_FALSE(parseInteger(text));
  }
}

TEST(Cim, AnObjectsPathHasAllItsKeys) {
  Repository all = repository();
  Object leaf = Object::instanceOf(all.findClass(L"Leaf"));
  EXPECT_FALSE(leaf.relativePath());
  leaf.values[0] = Value(std::wstring(L"a\"b"));
  EXPECT_FALSE(leaf.relativePath());
  leaf.values[1] = Value(std::uint64_t{4});
  EXPECT_EQ(leaf.relativePath(), L"Leaf.Id=\"a\\\"b\",Number=4");
  EXPECT_EQ(Object::ofClass(all.findClass(L"Leaf")).relativePath(), L"Leaf");
  EXPECT_FALSE(Object::instanceOf(all.findClass(L"__ExtrinsicEvent")).relativePath()); // no key
}

TEST(Cim, SystemPropertiesDescribeTheObject) {
  Repository all = repository();
  Object leaf = Object::instanceOf(all.findClass(L"Leaf"));
  EXPECT_TRUE(systemProperty(leaf, L"__PATH")->isNull());
  leaf.values[0] = Value(std::wstring(L"x"));
  leaf.values[1] = Value(std::uint64_t{1});
  EXPECT_EQ(systemProperty(leaf, L"__class"), Value(std::wstring(L"Leaf")));
  EXPECT_EQ(systemProperty(leaf, L"__RELPATH"), Value(std::wstring(L"Leaf.Id=\"x\",Number=1")));
  EXPECT_EQ(systemProperty(leaf, L"__PATH"),
            Value(std::wstring(L"\\\\.\\root\\cimv2:Leaf.Id=\"x\",Number=1")));
  EXPECT_FALSE(systemProperty(leaf, L"__NOTHING"));
}

TEST(Wire, AnObjectArrivesAsItWas) {
  Repository all = repository();
  Object leaf = Object::instanceOf(all.findClass(L"Leaf"));
  leaf.values[0] = Value(std::wstring(L"\u00e4\u20ac"));
  leaf.values[1] = Value(std::uint64_t{UINT32_MAX});
  leaf.values[2].isArray = true;
  leaf.values[2].items = {std::uint64_t{0}, std::uint64_t{255}};
  leaf.values[4] = Value(std::int64_t{-1});
  Object arrived = wire::toObject(wire::fromObject(leaf), all);
  EXPECT_EQ(arrived.type, leaf.type);
  EXPECT_TRUE(arrived.isInstance);
  EXPECT_EQ(arrived.values, leaf.values);
}

} // namespace
} // namespace wmi_host
