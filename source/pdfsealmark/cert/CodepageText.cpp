#include "pdfsealmark/cert/CodepageText.h"

#include <unicode/utypes.h>

#include <cstring>
#include <memory>

namespace PDF_Sealmark {

char* CodepageText::copyName(const char* name) {
  if (name == nullptr) return nullptr;
  const std::size_t size = std::strlen(name) + 1;
  char* copy = new char[size];
  std::memcpy(copy, name, size);
  return copy;
}

CodepageText::CodepageText(const char* text, const char* codepage)
    : icu::UnicodeString(text, codepage), bytes(text ? text : ""), codepage(copyName(codepage)) {
  snapshot = *this;
}

CodepageText::CodepageText(const CodepageText& other)
    : icu::UnicodeString(other),
      bytes(other.bytes),
      codepage(copyName(other.codepage)),
      snapshot(other.snapshot) {}

CodepageText& CodepageText::operator=(const CodepageText& other) {
  if (this == &other) return *this;
  char* name = copyName(other.codepage);
  icu::UnicodeString::operator=(other);
  bytes = other.bytes;
  delete[] codepage;
  codepage = name;
  snapshot = other.snapshot;
  return *this;
}

CodepageText::~CodepageText() { delete[] codepage; }

const std::string& CodepageText::getBytes(const char* wanted) {
  const bool sameCodepage = (wanted == nullptr && codepage == nullptr) ||
                            (wanted != nullptr && codepage != nullptr && std::strcmp(wanted, codepage) == 0);
  if (sameCodepage && !(*this != snapshot)) return bytes;

  // A first pass with no target reports the size the code page needs.
  const int32_t needed = extract(0, length(), nullptr, 0, wanted);
  std::unique_ptr<char[]> buffer(new char[static_cast<std::size_t>(needed) + 1]);
  const int32_t written = extract(0, length(), buffer.get(), needed + 1, wanted);
  char* name = copyName(wanted);
  bytes.assign(buffer.get(), static_cast<std::size_t>(written < 0 ? 0 : written > needed ? needed : written));
  delete[] codepage;
  codepage = name;
  snapshot = *this;
  return bytes;
}

}  // namespace PDF_Sealmark
