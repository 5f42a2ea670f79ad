// Text output of the sealmark tool: JSON, a table, files.
#ifndef SEALMARK_OUTPUT_H
#define SEALMARK_OUTPUT_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace sealmark {

// Replaces byte sequences that aren't UTF-8 with U+FFFD, so that whatever a
// file holds can be printed.
std::string toValidUtf8(const std::string& bytes);

// JSON with keys in the order they were put in.
using Json = nlohmann::ordered_json;

// A value, or null when there is none.
template <class T>
Json orNull(const std::optional<T>& v) {
  return v ? Json(*v) : Json(nullptr);
}

// Writes one line of JSON; text that isn't UTF-8 comes out with U+FFFD.
void printJson(std::ostream& out, const Json& json);

// A plain text table: a header row, then rows, columns padded to the widest
// cell by the columns a terminal gives it (East Asian wide characters
// take two, combining marks none).
class Table {
 public:
  explicit Table(std::vector<std::string> header) : header_(std::move(header)) {}
  void addRow(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  void print(std::ostream& out, const std::string& indent) const;

 private:
  std::vector<std::string> header_;
  std::vector<std::vector<std::string>> rows_;
};

// Copies bytes [begin, end) of a file to a new file; false when the source
// is shorter or either file fails.
bool copyFileRange(const std::string& from, std::uint64_t begin, std::uint64_t end, const std::string& to);

// Writes bytes as the file path, whole or not at all: to a new file beside
// it (created exclusively, so a link planted there isn't followed), given
// mode, then renamed over path.  A symlink at path is replaced, never
// written through.  False with the reason in why.
bool writeFileAtomically(const std::string& path, const std::string& bytes, unsigned mode, std::string& why);
// "20240315120000Z" (fractions of a second allowed, as in a time stamp) as
// "2024-03-15 12:00:00Z"; any other text as it is; "-" for none.
std::string displayTime(const std::optional<std::string>& t);

// A date text the library reads as meant: YYYYMMDDHHMM[SS][Z|+HH[MM]|-HH[MM]].
bool isDateText(const std::string& text);

}  // namespace sealmark

#endif
