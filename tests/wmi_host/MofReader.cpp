#include "MofReader.h"

#include "Wql.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace wmi_host {
namespace {

enum class TokenKind { end, name, string, number, alias, symbol };

struct Token {
  TokenKind kind = TokenKind::end;
  std::wstring text; // a string's is unescaped
};

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isNamePart(char c) {
  return isDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

class Lexer {
public:
  explicit Lexer(std::string_view text) : rest_(text) {}

  int line() const { return line_; }

  Token next() {
    skipBlanksAndComments();
    if (rest_.empty()) {
      return {};
    }
    const char c = rest_.front();
    if (c == '"') {
      return {TokenKind::string, string()};
    }
    if (std::string_view("[]{}():;,=#").find(c) != std::string_view::npos) {
      return {TokenKind::symbol, take(1)};
    }
    std::size_t length = 1;
    while (length < rest_.size() && isNamePart(rest_[length])) {
      ++length;
    }
    if (c == '$') {
      return {TokenKind::alias, take(length)};
    }
    if (isDigit(c) || c == '-') {
      return {TokenKind::number, take(length)};
    }
    if (isNamePart(c)) {
      return {TokenKind::name, take(length)};
    }
    throw std::runtime_error(std::string("unexpected character '") + c + "'");
  }

private:
  std::wstring take(std::size_t length) {
    const std::string_view taken = rest_.substr(0, length);
    if (std::any_of(taken.begin(), taken.end(), [](char c) { return (c & 0x80) != 0; })) {
      throw std::runtime_error("a character outside ASCII");
    }
    rest_.remove_prefix(taken.size());
    line_ += static_cast<int>(std::count(taken.begin(), taken.end(), '\n'));
    return {taken.begin(), taken.end()};
  }

  void skipBlanksAndComments() {
    while (true) {
      take(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size()));
      if (rest_.starts_with("//")) {
        take(std::min(rest_.find('\n'), rest_.size()));
      } else {
        return;
      }
    }
  }

  std::wstring string() {
    std::wstring text;
    take(1);
    while (!rest_.empty() && rest_.front() != '"' && rest_.front() != '\n') {
      if (rest_.front() == '\\') {
        take(1);
      }
      text += take(1);
    }
    if (!rest_.starts_with('"')) {
      throw std::runtime_error("string without end");
    }
    take(1);
    return text;
  }

  std::string_view rest_;
  int line_ = 1;
};

class Parser {
public:
  Parser(Repository& repository, std::string_view text) : repository_(repository), lexer_(text) {}

  int line() const { return lexer_.line(); }

  void run() {
    advance();
    while (token_.kind != TokenKind::end) {
      if (takeSymbol(L'#')) {
        pragma();
        continue;
      }
      std::vector<Qualifier> qualifiers = qualifierList();
      if (takeWord(L"class")) {
        classDeclaration(std::move(qualifiers));
      } else if (takeWord(L"instance")) {
        instanceDeclaration();
      } else {
        fail("expected #pragma, class or instance");
      }
    }
  }

private:
  [[noreturn]] static void fail(const std::string& reason) { throw std::runtime_error(reason); }

  void advance() { token_ = lexer_.next(); }
  bool takeSymbol(wchar_t symbol) {
    if (token_.kind != TokenKind::symbol || token_.text[0] != symbol) {
      return false;
    }
    advance();
    return true;
  }
  void expectSymbol(wchar_t symbol) {
    if (!takeSymbol(symbol)) {
      fail(std::string("expected '") + static_cast<char>(symbol) + "'");
    }
  }
  bool takeWord(std::wstring_view word) {
    if (token_.kind != TokenKind::name || !sameName(token_.text, word)) {
      return false;
    }
    advance();
    return true;
  }
  std::wstring expect(TokenKind kind, const char* what) {
    if (token_.kind != kind) {
      fail(std::string("expected ") + what);
    }
    std::wstring text = token_.text;
    advance();
    return text;
  }
  ClassPointer expectClass() {
    const std::wstring name = expect(TokenKind::name, "a class's name");
    ClassPointer type = repository_.findClass(name);
    if (!type) {
      fail("unknown class " + ascii(name));
    }
    return type;
  }

  void pragma() {
    if (!takeWord(L"pragma")) {
      fail("expected pragma after #");
    }
    const std::wstring name = lower(expect(TokenKind::name, "a pragma's name"));
    if (name == L"autorecover") {
      return;
    }
    expectSymbol(L'(');
    const std::wstring argument = expect(TokenKind::string, "a string");
    if (name == L"namespace") {
      namespace_ = argument;
    } else if (name == L"classflags") {
      if (!sameName(argument, L"safeupdate")) {
        fail("cannot follow class flag " + ascii(argument));
      }
      update_ = Repository::Update::Safe;
    } else {
      requireNamespace();
      expectSymbol(L',');
      if (!takeWord(L"NOFAIL")) {
        fail("expected NOFAIL");
      }
      remove(name, argument);
    }
    expectSymbol(L')');
  }

  void remove(const std::wstring& pragma, const std::wstring& what) {
    if (pragma == L"deleteclass") {
      repository_.removeClass(what);
      return;
    }
    const std::optional<ObjectPath> path = parsePath(what);
    if (pragma != L"deleteinstance" || !path || path->isClass()) {
      fail("cannot follow pragma " + ascii(pragma) + " of " + ascii(what));
    }
    repository_.removeInstance(*path);
  }

  /// The compiler starts in root\default, which is not served here.
  void requireNamespace() const {
    if (!isServedNamespace(namespace_)) {
      fail("namespace " + ascii(namespace_) + ": it is not served");
    }
  }

  std::vector<Qualifier> qualifierList() {
    std::vector<Qualifier> qualifiers;
    if (!takeSymbol(L'[')) {
      return qualifiers;
    }
    do {
      Qualifier qualifier;
      qualifier.name = expect(TokenKind::name, "a qualifier's name");
      qualifier.value = Value(true);
      if (takeSymbol(L'(')) {
        qualifier.value = Value(expect(TokenKind::string, "a string"));
        expectSymbol(L')');
      }
      if (takeSymbol(L':') && !takeWord(L"ToInstance")) {
        fail("expected ToInstance");
      }
      qualifiers.push_back(std::move(qualifier));
    } while (takeSymbol(L','));
    expectSymbol(L']');
    return qualifiers;
  }

  Scalar constant() {
    if (takeWord(L"TRUE")) {
      return true;
    }
    if (takeWord(L"FALSE")) {
      return false;
    }
    if (token_.kind == TokenKind::string) {
      return expect(TokenKind::string, "");
    }
    if (token_.kind == TokenKind::alias) {
      const auto found = aliases_.find(lower(token_.text));
      if (found == aliases_.end()) {
        fail("unknown alias " + ascii(token_.text));
      }
      advance();
      return found->second;
    }
    const std::optional<Scalar> number = parseInteger(expect(TokenKind::number, "a value"));
    if (!number) {
      fail("not a number");
    }
    return *number;
  }

  Value valueFor(const Property& property) {
    Value value;
    if (takeSymbol(L'{')) {
      value.isArray = true;
      do {
        value.items.push_back(constant());
      } while (takeSymbol(L','));
      expectSymbol(L'}');
    } else {
      value = Value(constant());
    }
    const std::optional<Value> fitted = fit(property.type, property.isArray, value);
    if (!fitted) {
      fail("the value does not fit " + ascii(property.name));
    }
    return *fitted;
  }

  void classDeclaration(std::vector<Qualifier> qualifiers) {
    requireNamespace();
    Class type;
    type.name = expect(TokenKind::name, "a class's name");
    if (takeSymbol(L':')) {
      type.superclass = expectClass();
      type.properties = type.superclass->properties;
      for (Property& property : type.properties) {
        std::erase_if(property.qualifiers, [](const Qualifier& qualifier) {
          return !sameName(qualifier.name, L"key"); // the one that is handed down
        });
      }
    }
    type.qualifiers = std::move(qualifiers);
    expectSymbol(L'{');
    while (!takeSymbol(L'}')) {
      propertyDeclaration(type);
    }
    expectSymbol(L';');
    repository_.putClass(std::move(type), update_);
  }

  void propertyDeclaration(Class& type) {
    Property property;
    property.qualifiers = qualifierList();
    property.origin = type.name;
    const std::wstring word = expect(TokenKind::name, "a property's type");
    if (takeWord(L"ref")) {
      property.type = CimType::reference;
      property.cimType = L"ref:" + word;
    } else if (std::optional<CimType> known = typeFromName(word)) {
      property.type = *known;
      property.cimType = typeName(*known);
    } else {
      fail("unknown type " + ascii(word));
    }
    property.name = expect(TokenKind::name, "a property's name");
    if (takeSymbol(L'[')) {
      property.isArray = true;
      expectSymbol(L']');
    }
    if (takeSymbol(L'=')) {
      property.defaultValue = valueFor(property);
    }
    expectSymbol(L';');
    if (std::optional<std::size_t> known = type.find(property.name)) {
      Property& overridden = type.properties[*known];
      property.origin = overridden.origin;
      if (overridden.isKey() && !property.isKey()) {
        property.qualifiers.push_back({L"key", Value(true)});
      }
      overridden = std::move(property);
    } else {
      type.properties.push_back(std::move(property));
    }
  }

  void instanceDeclaration() {
    requireNamespace();
    if (!takeWord(L"of")) {
      fail("expected of");
    }
    Object instance = Object::instanceOf(expectClass());
    std::wstring alias;
    if (takeWord(L"as")) {
      alias = lower(expect(TokenKind::alias, "an $alias"));
    }
    expectSymbol(L'{');
    while (!takeSymbol(L'}')) {
      const std::wstring name = expect(TokenKind::name, "a property's name");
      const std::optional<std::size_t> index = instance.type->find(name);
      if (!index) {
        fail("class " + ascii(instance.type->name) + " has no property " + ascii(name));
      }
      expectSymbol(L'=');
      instance.values[*index] = valueFor(instance.type->properties[*index]);
      expectSymbol(L';');
    }
    expectSymbol(L';');
    const std::optional<std::wstring> path = instance.relativePath();
    repository_.putInstance(std::move(instance));
    if (!alias.empty()) {
      aliases_[alias] = *path;
    }
  }

  Repository& repository_;
  Lexer lexer_;
  Token token_;
  std::wstring namespace_ = L"root\\default";
  Repository::Update update_ = Repository::Update::Compatible;
  std::map<std::wstring, std::wstring> aliases_; // by lower-case name, to the instance's path
};

// As documented for every namespace, as far as providers and events need them.
constexpr std::string_view kSystemClasses = R"(
#pragma namespace("root\\cimv2")
[abstract] class __SystemClass {};
[abstract] class __Provider : __SystemClass { [key] string Name; };
class __Win32Provider : __Provider
{
  string ClientLoadableCLSID; string CLSID; uint32 Concurrency; string DefaultMachineName;
  boolean Enabled; string HostingModel; sint32 ImpersonationLevel = 0;
  sint32 InitializationReentrancy = 0; datetime InitializationTimeoutInterval;
  boolean InitializeAsAdminFirst; datetime OperationTimeoutInterval;
  boolean PerLocaleInitialization = FALSE; boolean PerUserInitialization = FALSE;
  boolean Pure = TRUE; string SecurityDescriptor; boolean SupportsExplicitShutdown;
  boolean SupportsExtendedStatus; boolean SupportsQuotas; boolean SupportsSendStatus;
  boolean SupportsShutdown; boolean SupportsThrottling; datetime UnloadTimeout; uint32 Version;
};
[abstract] class __ProviderRegistration : __SystemClass { __Provider ref provider; };
[abstract] class __ObjectProviderRegistration : __ProviderRegistration
{
  sint32 InteractionType = 0; string QuerySupportLevels[]; boolean SupportsBatching = FALSE;
  boolean SupportsDelete = FALSE; boolean SupportsEnumeration = FALSE;
  boolean SupportsGet = FALSE; boolean SupportsPut = FALSE; boolean SupportsTransactions = FALSE;
};
class __InstanceProviderRegistration : __ObjectProviderRegistration
{
  [key] __Provider ref provider;
};
class __EventProviderRegistration : __ProviderRegistration
{
  [key] __Provider ref provider; string EventQueryList[];
};
[abstract] class __IndicationRelated : __SystemClass {};
[abstract] class __Event : __IndicationRelated
{
  uint8 SECURITY_DESCRIPTOR[]; uint64 TIME_CREATED;
};
class __ExtrinsicEvent : __Event {};
class __EventFilter : __SystemClass
{
  [key] string Name; string EventNamespace; string Query; string QueryLanguage;
};
[abstract] class __EventConsumer : __SystemClass {};
class NTEventLogEventConsumer : __EventConsumer
{
  [key] string Name; string SourceName; uint32 EventID; uint32 EventType; uint32 Category;
  uint32 NumberOfInsertionStrings; string InsertionStringTemplates[];
};
class __FilterToConsumerBinding : __SystemClass
{
  [key] __EventConsumer ref Consumer; [key] __EventFilter ref Filter;
};
)";

} // namespace

void readMof(Repository& repository, std::string_view text, const std::string& fileName) {
  Parser parser(repository, text);
  try {
    parser.run();
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(fileName + ":" + std::to_string(parser.line()) + ": " + error.what());
  }
}

void readMofFile(Repository& repository, const std::filesystem::path& file,
                 const std::string& fileName) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) {
    throw std::runtime_error(fileName + ": cannot be read");
  }
  std::ostringstream text;
  text << stream.rdbuf();
  readMof(repository, text.str(), fileName);
}

Repository systemRepository() {
  Repository repository;
  readMof(repository, kSystemClasses, "system classes");
  return repository;
}

} // namespace wmi_host
