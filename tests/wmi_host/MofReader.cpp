#include "MofReader.h"

#include "Wql.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <optional>

namespace wmi_host {
namespace {

enum class TokenKind { name, string, number, real, alias, symbol, end };

struct Token {
  TokenKind kind = TokenKind::end;
  std::wstring text; // a string's is unescaped
  int line = 1;
};

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isNameStart(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
bool isNamePart(char c) {
  return isNameStart(c) || isDigit(c);
}

class Lexer {
public:
  Lexer(std::string_view text, const std::string& file) : text_(text), file_(file) {}

  Token next() {
    skipBlanksAndComments();
    Token token;
    token.line = line_;
    if (at_ >= text_.size()) {
      return token;
    }
    char c = text_[at_];
    if (isNameStart(c)) {
      token.kind = TokenKind::name;
      takeWhile(token, isNamePart);
    } else if (c == '$') {
      ++at_;
      token.kind = TokenKind::alias;
      takeWhile(token, isNamePart);
    } else if (isDigit(c) || c == '-' || c == '+') {
      token.kind = TokenKind::number;
      token.text += static_cast<wchar_t>(text_[at_++]);
      takeWhile(token, [](char part) { return isNamePart(part) || part == '.'; });
      bool isHex = token.text.find_first_of(L"xX") != std::wstring::npos;
      if (!isHex && token.text.find_first_of(L".eE") != std::wstring::npos) {
        token.kind = TokenKind::real;
      }
    } else if (c == '"') {
      token.kind = TokenKind::string;
      takeString(token);
    } else if (std::string_view("[]{}():;,=#").find(c) != std::string_view::npos) {
      token.kind = TokenKind::symbol;
      token.text = static_cast<wchar_t>(c);
      ++at_;
    } else {
      fail(std::string("unexpected character '") + c + "'");
    }
    return token;
  }

  [[noreturn]] void fail(const std::string& reason, int line = 0) const {
    throw MofError(file_ + ":" + std::to_string(line != 0 ? line : line_) + ": " + reason);
  }

private:
  template <class Predicate>
  void takeWhile(Token& token, Predicate predicate) {
    while (at_ < text_.size() && predicate(text_[at_])) {
      token.text += static_cast<wchar_t>(text_[at_++]);
    }
  }

  void skipBlanksAndComments() {
    while (at_ < text_.size()) {
      std::string_view rest = text_.substr(at_);
      if (rest[0] == '\n') {
        ++line_;
        ++at_;
      } else if (rest[0] == ' ' || rest[0] == '\t' || rest[0] == '\r' || rest[0] == '\f') {
        ++at_;
      } else if (rest.starts_with("//")) {
        at_ += std::min(rest.find('\n'), rest.size());
      } else if (rest.starts_with("/*")) {
        std::size_t end = rest.find("*/", 2);
        if (end == std::string_view::npos) {
          fail("comment without end");
        }
        for (char c : rest.substr(0, end)) {
          line_ += c == '\n' ? 1 : 0;
        }
        at_ += end + 2;
      } else {
        break;
      }
    }
  }

  void takeString(Token& token) {
    for (++at_; at_ < text_.size() && text_[at_] != '"'; ++at_) {
      char c = text_[at_];
      if (c == '\n') {
        fail("string without end");
      }
      if (static_cast<unsigned char>(c) >= 0x80) {
        fail("a character outside ASCII");
      }
      if (c != '\\') {
        token.text += static_cast<wchar_t>(c);
        continue;
      }
      if (++at_ >= text_.size()) {
        break;
      }
      token.text += escaped();
    }
    if (at_ >= text_.size()) {
      fail("string without end");
    }
    ++at_;
  }

  wchar_t escaped() {
    switch (text_[at_]) {
    case '"':
    case '\'':
    case '\\':
      return static_cast<wchar_t>(text_[at_]);
    case 'b':
      return L'\b';
    case 'f':
      return L'\f';
    case 'n':
      return L'\n';
    case 'r':
      return L'\r';
    case 't':
      return L'\t';
    case 'x':
    case 'X': {
      std::wstring digits;
      while (digits.size() < 4 && at_ + 1 < text_.size() &&
             std::isxdigit(static_cast<unsigned char>(text_[at_ + 1])) != 0) {
        digits += static_cast<wchar_t>(text_[++at_]);
      }
      std::optional<Scalar> number = parseInteger(L"0x" + digits);
      if (number) {
        return static_cast<wchar_t>(std::get<std::uint64_t>(*number));
      }
      fail("\\x without digits");
    }
    default:
      fail(std::string("unknown escape \\") + text_[at_]);
    }
  }

  std::string_view text_;
  const std::string& file_;
  std::size_t at_ = 0;
  int line_ = 1;
};

class Parser {
public:
  Parser(Repository& repository, std::string_view text, const std::string& file)
      : repository_(repository), lexer_(text, file) {
    advance();
  }

  void run() {
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
  [[noreturn]] void fail(const std::string& reason) { lexer_.fail(reason, token_.line); }

  static std::string ascii(std::wstring_view text) {
    std::string result;
    for (wchar_t c : text) {
      result += c < 0x80 ? static_cast<char>(c) : '?';
    }
    return result;
  }

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
  std::wstring joinedStrings() {
    std::wstring text = expect(TokenKind::string, "a string");
    while (token_.kind == TokenKind::string) {
      text += token_.text;
      advance();
    }
    return text;
  }

  void pragma() {
    if (!takeWord(L"pragma")) {
      fail("expected pragma after #");
    }
    int line = token_.line;
    std::wstring name = lower(expect(TokenKind::name, "a pragma's name"));
    if (name == L"autorecover") {
      return;
    }
    expectSymbol(L'(');
    std::wstring argument = joinedStrings();
    bool mayBeMissing = false;
    if (takeSymbol(L',')) {
      mayBeMissing = takeWord(L"NOFAIL");
      if (!mayBeMissing && !takeWord(L"FAIL")) {
        fail("expected FAIL or NOFAIL");
      }
    }
    expectSymbol(L')');
    if (name == L"namespace") {
      namespace_ = argument;
      return;
    }
    requireNamespace();
    bool removed = false;
    if (name == L"deleteclass") {
      removed = repository_.removeClass(argument);
    } else if (name == L"deleteinstance") {
      std::optional<ObjectPath> path = parsePath(argument);
      if (!path || path->isClass()) {
        lexer_.fail("not an instance's path: " + ascii(argument), line);
      }
      removed = repository_.removeInstance(*path);
    } else {
      lexer_.fail("unknown pragma " + ascii(name), line);
    }
    if (!removed && !mayBeMissing) {
      lexer_.fail("nothing to delete: " + ascii(argument), line);
    }
  }

  /// The compiler starts in root\default, which is not served here.
  void requireNamespace() {
    if (!isServedNamespace(namespace_)) {
      fail("namespace " + ascii(namespace_) + ": only root\\cimv2 is served");
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
      if (findQualifier(qualifiers, qualifier.name) != nullptr) {
        fail("qualifier " + ascii(qualifier.name) + " twice");
      }
      qualifier.value = Value(true);
      if (takeSymbol(L'(')) {
        qualifier.value = Value();
        if (std::optional<Scalar> item = constant()) {
          qualifier.value = Value(*item);
        }
        expectSymbol(L')');
      } else if (token_.kind == TokenKind::symbol && token_.text == L"{") {
        qualifier.value = valueOrList();
      }
      qualifier.type = CimType::boolean;
      if (!qualifier.value.items.empty()) {
        const Scalar& first = qualifier.value.items.front();
        if (std::holds_alternative<std::wstring>(first)) {
          qualifier.type = CimType::string;
        } else if (std::holds_alternative<double>(first)) {
          qualifier.type = CimType::real64;
        } else if (!std::holds_alternative<bool>(first)) {
          qualifier.type = CimType::sint32;
        }
        std::optional<Value> fitted = fit(qualifier.type, qualifier.value.isArray, qualifier.value);
        if (!fitted) {
          fail("value of qualifier " + ascii(qualifier.name) + " does not fit its type");
        }
        qualifier.value = *fitted;
      }
      if (sameName(qualifier.name, L"key")) {
        qualifier.flavor =
            Qualifier::kToInstance | Qualifier::kToSubclass | Qualifier::kNotOverridable;
      }
      if (takeSymbol(L':')) {
        flavors(qualifier);
      }
      qualifiers.push_back(std::move(qualifier));
    } while (takeSymbol(L','));
    expectSymbol(L']');
    return qualifiers;
  }

  void flavors(Qualifier& qualifier) {
    do {
      if (takeWord(L"ToInstance")) {
        qualifier.flavor |= Qualifier::kToInstance;
      } else if (takeWord(L"ToSubclass")) {
        qualifier.flavor |= Qualifier::kToSubclass;
      } else if (takeWord(L"DisableOverride")) {
        qualifier.flavor |= Qualifier::kNotOverridable;
      } else if (takeWord(L"Amended")) {
        qualifier.flavor |= Qualifier::kAmended;
      } else if (takeWord(L"Restricted")) {
        qualifier.flavor &= ~(Qualifier::kToInstance | Qualifier::kToSubclass);
      } else if (!takeWord(L"EnableOverride")) {
        fail("unknown flavor");
      }
    } while (token_.kind == TokenKind::name);
  }

  /// Nothing for NULL.
  std::optional<Scalar> constant() {
    Token token = token_;
    switch (token.kind) {
    case TokenKind::string:
      return joinedStrings();
    case TokenKind::number: {
      std::optional<Scalar> number = parseInteger(token.text);
      if (!number) {
        fail("not a number: " + ascii(token.text));
      }
      advance();
      return number;
    }
    case TokenKind::real: {
      std::string text = ascii(token.text);
      char* end = nullptr;
      double number = std::strtod(text.c_str(), &end);
      if (*end != '\0') {
        fail("not a number: " + text);
      }
      advance();
      return number;
    }
    case TokenKind::alias: {
      auto found = aliases_.find(lower(token.text));
      if (found == aliases_.end()) {
        fail("unknown alias $" + ascii(token.text));
      }
      advance();
      return found->second;
    }
    case TokenKind::name:
      if (takeWord(L"TRUE")) {
        return true;
      }
      if (takeWord(L"FALSE")) {
        return false;
      }
      if (takeWord(L"NULL")) {
        return std::nullopt;
      }
      break;
    default:
      break;
    }
    fail("expected a value");
  }

  Value valueOrList() {
    if (!takeSymbol(L'{')) {
      std::optional<Scalar> item = constant();
      return item ? Value(*item) : Value();
    }
    Value value;
    value.isArray = true;
    if (takeSymbol(L'}')) {
      return value;
    }
    do {
      std::optional<Scalar> item = constant();
      if (!item) {
        fail("NULL inside a list");
      }
      value.items.push_back(*item);
    } while (takeSymbol(L','));
    expectSymbol(L'}');
    return value;
  }

  Value fittingValue(const Property& property) {
    int line = token_.line;
    std::optional<Value> fitted = fit(property.type, property.isArray, valueOrList());
    if (!fitted) {
      lexer_.fail("the value does not fit " + ascii(property.name) + ", which is " +
                      ascii(typeName(property.type)) + (property.isArray ? "[]" : ""),
                  line);
    }
    return *fitted;
  }

  void classDeclaration(std::vector<Qualifier> qualifiers) {
    requireNamespace();
    int line = token_.line;
    Class type;
    type.name = expect(TokenKind::name, "a class's name");
    if (takeSymbol(L':')) {
      std::wstring name = expect(TokenKind::name, "the superclass's name");
      type.superclass = repository_.findClass(name);
      if (!type.superclass) {
        lexer_.fail("unknown superclass " + ascii(name), line);
      }
      inherit(type);
    }
    for (Qualifier& qualifier : qualifiers) {
      std::erase_if(type.qualifiers, [&](const Qualifier& inherited) {
        return sameName(inherited.name, qualifier.name);
      });
      type.qualifiers.push_back(std::move(qualifier));
    }
    expectSymbol(L'{');
    while (!takeSymbol(L'}')) {
      propertyDeclaration(type);
    }
    expectSymbol(L';');
    store(line, [&] { repository_.putClass(std::move(type)); });
  }

  static void inherit(Class& type) {
    auto keepPropagated = [](std::vector<Qualifier>& qualifiers) {
      std::erase_if(qualifiers, [](const Qualifier& qualifier) {
        return (qualifier.flavor & Qualifier::kToSubclass) == 0;
      });
      for (Qualifier& qualifier : qualifiers) {
        qualifier.flavor |= Qualifier::kPropagated;
      }
    };
    type.qualifiers = type.superclass->qualifiers;
    keepPropagated(type.qualifiers);
    type.properties = type.superclass->properties;
    for (Property& property : type.properties) {
      keepPropagated(property.qualifiers);
    }
  }

  void propertyDeclaration(Class& type) {
    Property property;
    property.qualifiers = qualifierList();
    property.origin = type.name;
    std::wstring word = expect(TokenKind::name, "a property's type");
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
    if (token_.kind == TokenKind::symbol && token_.text == L"(") {
      fail("methods are not read");
    }
    if (takeSymbol(L'[')) {
      property.isArray = true;
      if (token_.kind == TokenKind::number) {
        advance();
      }
      expectSymbol(L']');
    }
    if (takeSymbol(L'=')) {
      property.defaultValue = fittingValue(property);
    }
    expectSymbol(L';');
    if (std::optional<std::size_t> known = type.find(property.name)) {
      Property& inherited = type.properties[*known];
      if (sameName(inherited.origin, type.name)) {
        fail("property " + ascii(property.name) + " twice");
      }
      if (inherited.type != property.type || inherited.isArray != property.isArray) {
        fail("property " + ascii(property.name) + " has another type in a superclass");
      }
      for (const Qualifier& qualifier : inherited.qualifiers) {
        if (findQualifier(property.qualifiers, qualifier.name) == nullptr) {
          property.qualifiers.push_back(qualifier);
        }
      }
      property.origin = inherited.origin;
      inherited = std::move(property);
    } else {
      type.properties.push_back(std::move(property));
    }
  }

  void instanceDeclaration() {
    requireNamespace();
    int line = token_.line;
    if (!takeWord(L"of")) {
      fail("expected of");
    }
    std::wstring name = expect(TokenKind::name, "a class's name");
    ClassPointer type = repository_.findClass(name);
    if (!type) {
      lexer_.fail("instance of unknown class " + ascii(name), line);
    }
    if (type->isAbstract()) {
      lexer_.fail("instance of abstract class " + ascii(name), line);
    }
    std::optional<std::wstring> alias;
    if (takeWord(L"as")) {
      alias = lower(expect(TokenKind::alias, "an $alias"));
    }
    Object instance = Object::instanceOf(type);
    expectSymbol(L'{');
    while (!takeSymbol(L'}')) {
      std::wstring property = expect(TokenKind::name, "a property's name");
      std::optional<std::size_t> index = type->find(property);
      if (!index) {
        fail("class " + ascii(type->name) + " has no property " + ascii(property));
      }
      expectSymbol(L'=');
      instance.values[*index] = fittingValue(type->properties[*index]);
      expectSymbol(L';');
    }
    expectSymbol(L';');
    std::optional<std::wstring> path = instance.relativePath();
    store(line, [&] { repository_.putInstance(std::move(instance)); });
    if (alias) {
      aliases_[*alias] = *path;
    }
  }

  template <class Body>
  void store(int line, Body body) {
    try {
      body();
    } catch (const std::runtime_error& error) {
      lexer_.fail(error.what(), line);
    }
  }

  Repository& repository_;
  Lexer lexer_;
  Token token_;
  std::wstring namespace_ = L"root\\default";
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
)";

} // namespace

void readMof(Repository& repository, std::string_view text, const std::string& fileName) {
  Parser(repository, text, fileName).run();
}

Repository systemRepository() {
  Repository repository;
  readMof(repository, kSystemClasses, "system classes");
  return repository;
}

} // namespace wmi_host
