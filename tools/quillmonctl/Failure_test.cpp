#include "quillmonctl/Failure.h"
#include "quillmonctl/Json.h"

#include <gtest/gtest.h>

namespace {

using namespace ctl;

const SystemError kDenied = {SystemError::Kind::Win32, 5, "Access is denied"};
const SystemError kNotFound = {SystemError::Kind::HResult, 0x80041002, "Not found"};

TEST(Failure, TheMessageNamesStepNumberTextAndAdvice) {
  const Failure failure("opening the door", kDenied, "Knock.");
  EXPECT_EQ(toText(failure), "quillmonctl: failed: opening the door\n"
                             "  error 5: Access is denied\n"
                             "  what to do: Knock.\n");
}

TEST(Failure, AnHresultIsPrintedInHexadecimal) {
  EXPECT_EQ(describe(kNotFound), "error 0x80041002: Not found");
  EXPECT_EQ(describe({SystemError::Kind::Win32, 7, ""}), "error 7");
}

TEST(Failure, DeniedAccessHasItsOwnExitCode) {
  EXPECT_EQ(Failure("x", kDenied, "").exitCode, ExitCode::AccessDenied);
  EXPECT_EQ(Failure("x", {SystemError::Kind::HResult, 0x80041003, ""}, "").exitCode,
            ExitCode::AccessDenied);
  EXPECT_EQ(Failure("x", {SystemError::Kind::HResult, 5, ""}, "").exitCode, ExitCode::Failed);
  EXPECT_EQ(Failure("x", kNotFound, "").exitCode, ExitCode::Failed);
}

TEST(Failure, TheJsonFormIsOneObject) {
  Failure failure("opening \"it\"\n", kNotFound, "Look\telsewhere.");
  failure.undone = {"closed"};
  const Json json = Json::parse(toJson(failure))["error"];
  EXPECT_EQ(json["step"], "opening \"it\"\n");
  EXPECT_EQ(json["code"], 0x80041002U);
  EXPECT_EQ(json["code_text"], "0x80041002");
  EXPECT_EQ(json["text"], "Not found");
  EXPECT_EQ(json["advice"], "Look\telsewhere.");
  EXPECT_EQ(json["undone"], Json({"closed"}));
}

TEST(Failure, InvalidUtf8IsReplaced) {
  const Json json = Json::parse(toJson(Failure("a\xFF"
                                               "b",
                                               "")));
  EXPECT_EQ(json["error"]["step"], "a\xEF\xBF\xBD"
                                   "b");
  EXPECT_EQ(json["error"]["code"], nullptr);
}

TEST(Failure, LongTextsStayWithinTheWidth) {
  const std::string text = toText(Failure(std::string(50, 'a') + " " + std::string(50, 'b'),
                                          kDenied, adviceFor(kDenied) + adviceFor(kNotFound)));
  for (std::size_t start = 0, end = 0; (end = text.find('\n', start)) != std::string::npos;
       start = end + 1) {
    EXPECT_LE(end - start, 80U) << text.substr(start, end - start);
  }
}

TEST(Failure, TheAdviceForANumberIsThatOfItsKind) {
  EXPECT_NE(adviceFor({SystemError::Kind::HResult, 0x80041001U, ""}), "");
  EXPECT_EQ(adviceFor({SystemError::Kind::Win32, 0x80041001U, ""}), "");
}

} // namespace
