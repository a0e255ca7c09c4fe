#include "MofReader.h"
#include "Wql.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace wmi_host {
namespace {

constexpr char kNamespace[] = "#pragma namespace(\"\\\\\\\\.\\\\root\\\\cimv2\")\n";

Repository read(const std::string& text) {
  Repository repository = systemRepository();
  readMof(repository, kNamespace + text, "test.mof");
  return repository;
}

TEST(MofReader, ReadsClassesWithQualifiersTypesAndDefaults) {
  Repository repository = read(R"(
    [abstract, Description("two words") : ToInstance] class Base {
      [key, read] string Id; // the key
      uint8 Bytes[]; sint16 Small = -3; uint32 Sizes[] = {1, 16}; Base ref Other; datetime When;
    };
    [dynamic, provider("P")] class Derived : base { string Name = "x\"y\\z"; boolean On = TRUE; };
    class Third : Derived { string Id; };)");
  ClassPointer derived = repository.findClass(L"DERIVED");
  ASSERT_TRUE(derived);
  EXPECT_EQ(derived->superclass->name, L"Base");
  EXPECT_EQ(derived->superclass->text(L"description"), L"two words");
  EXPECT_FALSE(derived->isAbstract()); // not propagated
  EXPECT_TRUE(derived->isDynamic());
  EXPECT_EQ(derived->text(L"provider"), L"P");
  ASSERT_EQ(derived->properties.size(), 8u);
  EXPECT_TRUE(derived->properties[0].isKey()); // a key stays one in every derived class
  EXPECT_TRUE(repository.findClass(L"Third")->properties[0].isKey());
  EXPECT_EQ(derived->properties[0].qualifiers.size(), 1u);
  EXPECT_EQ(derived->properties[2].defaultValue, Value(std::int64_t{-3}));
  EXPECT_EQ(derived->properties[3].defaultValue.items,
            (std::vector<Scalar>{std::uint64_t{1}, std::uint64_t{16}}));
  EXPECT_EQ(derived->properties[4].type, CimType::reference);
  EXPECT_EQ(derived->properties[4].cimType, L"ref:Base");
  EXPECT_EQ(derived->properties[6].defaultValue, Value(std::wstring(L"x\"y\\z")));
  EXPECT_EQ(derived->properties[6].origin, L"Derived");
  EXPECT_EQ(derived->properties[0].origin, L"Base");
}

TEST(MofReader, AnAliasIsThePathOfItsInstance) {
  Repository repository = read(R"(
    instance of __Win32Provider as $P { Name = "One"; };
    instance of __InstanceProviderRegistration { Provider = $p; SupportsGet = TRUE; };)");
  ASSERT_EQ(repository.instances().size(), 2u);
  EXPECT_EQ(repository.instances()[1].text(L"provider"), L"__Win32Provider.Name=\"One\"");
  EXPECT_EQ(*repository.instances()[1].relativePath(),
            L"__InstanceProviderRegistration.provider=\"__Win32Provider.Name=\\\"One\\\"\"");
}

TEST(MofReader, AnInstanceIsReplacedAndDeletedByItsPath) {
  Repository repository = read(R"(
    instance of __Win32Provider { Name = "One"; Version = 1; };
    instance of __Win32Provider { Name = "ONE"; Version = 2; };)");
  ASSERT_EQ(repository.instances().size(), 1u);
  EXPECT_EQ(*repository.instances()[0].find(L"Version"), Value(std::uint64_t{2}));
  readMof(repository,
          std::string(kNamespace) +
              "#pragma deleteinstance(\"__Win32Provider.Name='one'\", NOFAIL)",
          "test.mof");
  EXPECT_TRUE(repository.instances().empty());
}

TEST(MofReader, AClassIsDeletedWithWhatDerivesFromIt) {
  Repository repository = read(R"(
    class A { [key] string Id; }; class B : A {}; class C { [key] string Id; };
    instance of B { Id = "x"; }; instance of C { Id = "y"; };
    #pragma deleteclass("A", NOFAIL)
    #pragma deleteclass("Never", NOFAIL))");
  EXPECT_FALSE(repository.findClass(L"A"));
  EXPECT_FALSE(repository.findClass(L"B"));
  EXPECT_TRUE(repository.findClass(L"C"));
  EXPECT_EQ(repository.instances().size(), 1u);
}

TEST(MofReader, ASafeUpdateHandsANewPropertyDown) {
  const std::string before = "class A { [key] string Id; }; class B : A {}; class C : B {};";
  const std::string after = "class A { [key] string Id; uint32 New; };";
  Repository repository = read(before);
  EXPECT_THROW(readMof(repository, kNamespace + after, "test.mof"), std::runtime_error);
  EXPECT_FALSE(repository.findClass(L"A")->find(L"New"));
  readMof(repository, "#pragma classflags(\"safeupdate\")\n" + (kNamespace + after), "test.mof");
  for (const wchar_t* name : {L"A", L"B", L"C"}) {
    EXPECT_TRUE(repository.findClass(name)->find(L"New"));
  }
  EXPECT_EQ(repository.findClass(L"C")->superclass, repository.findClass(L"B"));
  EXPECT_EQ(repository.findClass(L"B")->superclass, repository.findClass(L"A"));
}

TEST(MofReader, ASafeUpdateTakesNothingFromWhatDerives) {
  Repository repository = read("class A { [key] string Id; uint32 N; }; class B : A {};");
  for (const char* changed :
       {"class A { [key] string Id; };", "class A { [key] string Id; string N; };"}) {
    EXPECT_THROW(readMof(repository,
                         "#pragma classflags(\"safeupdate\")\n" + std::string(kNamespace) + changed,
                         "test.mof"),
                 std::runtime_error);
  }
}

struct ErrorRow {
  const char* text;
  const char* error;
};

TEST(MofReader, ReportsLineAndReasonOfAnError) {
  const ErrorRow rows[] = {
      {"class A {};", "test.mof:1: namespace root\\default: it is not served"},
      {"\n\nnonsense", "test.mof:3: expected #pragma, class or instance"},
      {"@", "unexpected character '@'"},
      {"// \xe4", "a character outside ASCII"},
      {"#pragma namespace(\"open\n", "string without end"},
      {"#pragma namespace(\"root\\\\cimv2\")\nclass A : B {};", "test.mof:2: unknown class B"},
      {"#pragma namespace(\"root\\\\cimv2\")\nclass A { real32 X; };",
       "test.mof:2: unknown type real32"},
      {"#pragma namespace(\"root\\\\cimv2\")\nclass A { uint32 Do(); };", "expected ';'"},
      {"#pragma namespace(\"root\\\\cimv2\")\nclass A { uint8 X = 256; };", "does not fit X"},
  };
  for (const ErrorRow& row : rows) {
    Repository repository = systemRepository();
    std::string error;
    try {
      readMof(repository, row.text, "test.mof");
    } catch (const std::runtime_error& thrown) {
      error = thrown.what();
    }
    EXPECT_NE(error.find(row.error), std::string::npos) << row.text << "\n  gives: " << error;
  }
}

// ------------------------------------------------------------------------------- the shipped files

std::string shipped(const std::string& name) {
  std::ifstream file(std::string(WMI_HOST_MOF_FOLDER) + "/" + name, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << name;
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(ShippedMof, DefinesWhatTheServiceServes) {
  Repository repository = systemRepository();
  readMof(repository, shipped("quillmon.mof"), "quillmon.mof");
  int concrete = 0;
  for (const ClassPointer& type : repository.derivedFrom(L"UPOS_Device")) {
    EXPECT_TRUE(type->isDynamic());
    EXPECT_EQ(type->text(L"provider"), L"QuillmonService");
    concrete += type->isAbstract() ? 0 : 1;
    std::optional<std::size_t> key = type->find(L"DeviceID");
    ASSERT_TRUE(key);
    EXPECT_TRUE(type->properties[*key].isKey());
    for (const Property& property : type->properties) {
      // The service puts text, 32-bit numbers and truth values; nothing else could be put.
      EXPECT_FALSE(property.isArray);
      EXPECT_TRUE(property.type == CimType::string || property.type == CimType::uint32 ||
                  property.type == CimType::boolean)
          << std::string(property.name.begin(), property.name.end());
    }
  }
  EXPECT_GE(concrete, 30);
  for (const wchar_t* name : {L"UPOS_LogicalDevice", L"UPOS_Scanner", L"UPOS_Scale"}) {
    EXPECT_TRUE(repository.findClass(name));
  }
  ClassPointer event = repository.findClass(L"QuillmonEvent");
  ASSERT_TRUE(event);
  EXPECT_TRUE(event->derivesFrom(L"__ExtrinsicEvent"));
  for (const wchar_t* name : {L"classname", L"deviceid", L"eventtype", L"codename"}) {
    std::optional<std::size_t> index = event->find(name);
    ASSERT_TRUE(index);
    EXPECT_EQ(event->properties[*index].type, CimType::string);
  }
  const Object* provider =
      repository.findInstance(*parsePath(L"__Win32Provider.Name=\"QuillmonService\""));
  ASSERT_NE(provider, nullptr);
  EXPECT_EQ(provider->text(L"HostingModel"), L"Decoupled:Com");
  EXPECT_FALSE(provider->text(L"SecurityDescriptor").empty());
  for (const Object& instance : repository.instances()) {
    if (instance.type->name == L"__InstanceProviderRegistration") {
      EXPECT_TRUE(instance.truth(L"SupportsGet"));
      EXPECT_TRUE(instance.truth(L"SupportsEnumeration"));
      EXPECT_TRUE(instance.find(L"QuerySupportLevels")->isNull());
    }
  }
  EXPECT_EQ(repository.instances().size(), 3u);
}

TEST(ShippedMof, UninstallingLeavesNothingBehind) {
  Repository repository = systemRepository();
  readMof(repository, "#pragma namespace(\"root\\\\cimv2\")\nclass Shared {};", "other.mof");
  std::size_t before = repository.derivedFrom(L"").size();
  readMof(repository, shipped("quillmon.mof"), "quillmon.mof");
  EXPECT_GT(repository.derivedFrom(L"__ExtrinsicEvent").size(), 0u);
  readMof(repository, shipped("quillmon-uninstall.mof"), "quillmon-uninstall.mof");
  EXPECT_TRUE(repository.instances().empty());
  EXPECT_EQ(repository.derivedFrom(L"__ExtrinsicEvent").size(), 0u);
  EXPECT_FALSE(repository.findClass(L"UPOS_Device"));
  EXPECT_FALSE(repository.findClass(L"UPOS_Scanner"));
  EXPECT_TRUE(repository.findClass(L"Shared"));
  EXPECT_TRUE(repository.findClass(L"__Win32Provider"));
  EXPECT_EQ(repository.derivedFrom(L"").size(), before);
  readMof(repository, shipped("quillmon-uninstall.mof"), "twice"); // what is gone is no error
}

} // namespace
} // namespace wmi_host
