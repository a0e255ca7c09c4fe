#include "MofReader.h"
#include "Wql.h"

#include <gtest/gtest.h>

namespace wmi_host {
namespace {

Repository repository() {
  Repository result = systemRepository();
  readMof(result, R"(#pragma namespace("root\\cimv2")
      class Thing { [key] string Id; uint32 Count; uint64 Big; boolean Flag; uint8 List[]; };
      class Part : Thing { string Maker; };
      instance of Part { Id = "a\"b\\c"; Count = 7; Big = 18446744073709551615; Flag = TRUE;
                         Maker = "Acme"; };)",
          "test");
  return result;
}

TEST(Wql, ReadsTheQueriesThatClientsSend) {
  for (const wchar_t* text :
       {L"SELECT * FROM Thing", L"select*from Thing", L"SELECT Id,Count FROM Thing",
        L" SELECT Id , Count FROM Thing  ", L"SELECT * FROM Thing WHERE Id='x'",
        L"SELECT * FROM Thing WHERE Id = \"x\" AND Count=-1 and Flag=TRUE"}) {
    EXPECT_TRUE(parseQuery(text)) << std::string(text, text + std::wcslen(text));
  }
}

TEST(Wql, RefusesWhatItDoesNotAnswer) {
  for (const wchar_t* text :
       {L"", L"SELECT", L"SELECT FROM Thing", L"SELECT * FROM", L"SELECT * Thing",
        L"SELECT * FROM Thing WHERE", L"SELECT * FROM Thing WHERE Id", L"SELECT * FROM Thing x",
        L"SELECT * FROM Thing WHERE Id=", L"SELECT * FROM Thing WHERE Id='x",
        L"SELECT * FROM Thing WHERE Id='x' OR Count=1", L"SELECT * FROM Thing WHERE Count > 1",
        L"SELECT Id, FROM Thing", L"SELECT * FROM Thing WHERE Id='x' AND", L"DELETE FROM Thing"}) {
    EXPECT_FALSE(parseQuery(text)) << std::string(text, text + std::wcslen(text));
  }
}

struct MatchRow {
  const wchar_t* where;
  bool fits;
  bool matches;
};

TEST(Wql, ComparesByThePropertysType) {
  Repository all = repository();
  const Object& part = all.instances().at(0);
  const MatchRow rows[] = {
      {L"Maker = 'Acme'", true, true},
      {L"Maker = 'ACME'", true, true}, // WMI compares text without regard to case
      {L"Maker = 'Acm'", true, false},
      {L"Count = 7", true, true},
      {L"Count = '7'", true, true},
      {L"Count = 0x7", true, true},
      {L"Count = 8", true, false},
      {L"Big = '18446744073709551615'", true, true},
      {L"Flag = TRUE AND Count = 7", true, true},
      {L"Flag = TRUE AND Count = 8", true, false},
      {L"Id = 'a\"b\\\\c'", true, true},
      {L"Count = -1", false, false},
      {L"Count = 'x'", false, false},
      {L"Flag = 1", false, false},
      {L"Nothing = 1", false, false},
      {L"List = 1", false, false},
  };
  for (const MatchRow& row : rows) {
    SCOPED_TRACE(std::string(row.where, row.where + std::wcslen(row.where)));
    std::optional<Query> query = parseQuery(L"SELECT * FROM Part WHERE " + std::wstring(row.where));
    ASSERT_TRUE(query);
    EXPECT_EQ(query->fits(*part.type), row.fits);
    EXPECT_EQ(query->matches(part), row.matches);
  }
}

TEST(Wql, ANullMatchesNothing) {
  Repository all = repository();
  Object part = Object::instanceOf(all.findClass(L"Part"));
  EXPECT_FALSE(parseQuery(L"SELECT * FROM Part WHERE Maker=''")->matches(part));
}

TEST(Wql, ProjectsToTheSelectedProperties) {
  Repository all = repository();
  std::optional<Query> query = parseQuery(L"SELECT count, Maker FROM Part");
  ASSERT_TRUE(query);
  Object seen = query->project(all.instances().at(0));
  ASSERT_EQ(seen.type->properties.size(), 2u);
  EXPECT_EQ(seen.type->name, L"Part");
  EXPECT_EQ(*seen.find(L"Count"), Value(std::uint64_t{7}));
  EXPECT_EQ(seen.text(L"Maker"), L"Acme");
  EXPECT_EQ(seen.find(L"Id"), nullptr);
  EXPECT_FALSE(seen.relativePath()); // the key was not asked for
  EXPECT_FALSE(parseQuery(L"SELECT Nothing FROM Part")->fits(*all.findClass(L"Part")));
}

struct PathRow {
  const wchar_t* text;
  const wchar_t* relative; // null: no path
};

TEST(ObjectPath, IsReadAndWrittenBack) {
  const PathRow rows[] = {
      {L"Thing", L"Thing"},
      {L"Thing.Id=\"x\"", L"Thing.Id=\"x\""},
      {L"Thing.Id='x'", L"Thing.Id=\"x\""},
      {L"Thing=\"x\"", L"Thing=\"x\""},
      {L"Thing.Id=\"a\\\"b\\\\c\"", L"Thing.Id=\"a\\\"b\\\\c\""},
      {L"\\\\.\\root\\cimv2:Thing.Id=\"x:y\"", L"Thing.Id=\"x:y\""},
      {L"root\\cimv2:Thing", L"Thing"},
      {L"Thing.A=1,B=TRUE", L"Thing.A=1,B=TRUE"},
      {L"", nullptr},
      {L"Thing.", nullptr},
      {L"Thing.Id", nullptr},
      {L"Thing.Id=", nullptr},
      {L"Thing.Id=\"x", nullptr},
      {L"Thing.Id=\"x\"y", nullptr},
      {L"Thing=@", nullptr},
      {L"1Thing", nullptr},
  };
  for (const PathRow& row : rows) {
    SCOPED_TRACE(std::string(row.text, row.text + std::wcslen(row.text)));
    std::optional<ObjectPath> path = parsePath(row.text);
    ASSERT_EQ(path.has_value(), row.relative != nullptr);
    if (path) {
      EXPECT_EQ(path->relative(), row.relative);
    }
  }
}

TEST(ObjectPath, NamesTheInstanceWithItsKeys) {
  Repository all = repository();
  for (const wchar_t* text : {L"Part.Id=\"a\\\"b\\\\c\"", L"part.ID='A\"B\\\\C'",
                              L"Thing.Id=\"a\\\"b\\\\c\"", L"Part=\"a\\\"b\\\\c\""}) {
    EXPECT_NE(all.findInstance(*parsePath(text)), nullptr);
  }
  for (const wchar_t* text : {L"Part.Id=\"a\"", L"Part.Maker=\"Acme\"", L"Part",
                              L"Other.Id=\"a\\\"b\\\\c\"", L"Part.Id=\"a\\\"b\\\\c\",Count=7"}) {
    EXPECT_EQ(all.findInstance(*parsePath(text)), nullptr);
  }
}

TEST(ObjectPath, OnlyNamespacesThatAreUsedAreServed) {
  for (const wchar_t* text :
       {L"", L"root\\subscription", L"root\\StandardCimv2\\embedded", L"root\\cimv2",
        L"ROOT\\CIMV2", L"//./Root/cimv2", L"\\\\.\\root\\cimv2"}) {
    EXPECT_TRUE(isServedNamespace(text));
  }
  for (const wchar_t* text : {L"root\\default", L"root", L"\\\\other\\root\\cimv2", L"cimv2"}) {
    EXPECT_FALSE(isServedNamespace(text));
  }
}

} // namespace
} // namespace wmi_host
