// Internal: a text held as Unicode, with its bytes in one code page cached.
//
//   CodepageText name(utf8Bytes, "UTF-8");
//   const std::string& sjis = name.getBytes("CP932");   // converted once
//
// Asking at once for the code page the text came in gives the bytes that
// went in, unconverted.  Characters the target code page lacks become ICU's
// substitution character.
#ifndef PDFSEALMARK_CERT_CODEPAGETEXT_H
#define PDFSEALMARK_CERT_CODEPAGETEXT_H

#include <unicode/unistr.h>

#include <string>

namespace PDF_Sealmark {

class CodepageText : public icu::UnicodeString {
 public:
  // text and codepage may be null: a null text is empty, a null code page
  // means ICU's default converter.
  CodepageText(const char* text, const char* codepage);
  CodepageText(const CodepageText& other);
  CodepageText& operator=(const CodepageText& other);
  virtual ~CodepageText();

  // The text in that code page (null: ICU's default converter).  The
  // reference stays good until the next getBytes or the end of the object.
  const std::string& getBytes(const char* codepage);

 private:
  static char* copyName(const char* name);

  std::string bytes;
  char* codepage = nullptr;  // owned copy; null means ICU's default converter
  icu::UnicodeString snapshot;
};

}  // namespace PDF_Sealmark

#endif
