#include "provider/PropertyTypes.h"

namespace provider {

namespace {

enum Code { kUnknown, kString, kUint32, kUint64, kBoolean, kArrayInt32, kDatetime, kEnd };

struct Row {
  const char* word;
  Code code;
};
constexpr Row kRows[] = {
    {"string", kString},   {"uint32", kUint32},         {"uint64", kUint64},
    {"boolean", kBoolean}, {"ArrayInt32", kArrayInt32}, {"datetime", kDatetime},
    {"end", kEnd},
};

} // namespace

void PropertyTypes::fill() {
  std::scoped_lock lock(mutex_);
  for (const Row& row : kRows) {
    codes_[row.word] = row.code;
  }
}

int PropertyTypes::codeOf(const std::string& typeWord) {
  std::scoped_lock lock(mutex_);
  return codes_[typeWord];
}

void PropertyTypes::convert(const std::string& typeWord, win::Variant& value) {
  VARTYPE target = VT_EMPTY;
  switch (codeOf(typeWord)) {
  case kString:
  case kDatetime: // CIM date-times are strings
    target = VT_BSTR;
    break;
  case kUint32:
  case kUint64: // on purpose the same 32 bits with a sign: a larger number stays text
    target = VT_I4;
    break;
  case kBoolean:
    target = VT_BOOL;
    break;
  default: // "ArrayInt32", "end" and unknown words stay text
    return;
  }
  // Unchecked on purpose: what does not convert is put as it then is.
  VariantChangeType(value.get(), value.get(), 0, target);
}

} // namespace provider
