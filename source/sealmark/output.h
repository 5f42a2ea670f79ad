// Text output of the sealmark tool: a small JSON writer and a table.
#ifndef SEALMARK_OUTPUT_H
#define SEALMARK_OUTPUT_H

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace sealmark {

// Replaces byte sequences that aren't UTF-8 with U+FFFD, so that whatever a
// file holds can be printed and put into JSON.
std::string toValidUtf8(const std::string& bytes);

// Writes JSON with stable key order, as the calls come.  Strings are made
// valid UTF-8 and escaped.
class JsonWriter {
 public:
  explicit JsonWriter(std::ostream& out) : out_(out) {}
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  JsonWriter& key(const std::string& name);
  JsonWriter& value(const std::string& text);
  JsonWriter& value(const char* text) { return value(std::string(text)); }
  JsonWriter& value(bool b);
  JsonWriter& value(std::int64_t n);
  JsonWriter& value(int n) { return value(static_cast<std::int64_t>(n)); }
  JsonWriter& null();
  template <class T>
  JsonWriter& value(const std::optional<T>& v) {
    return v ? value(*v) : null();
  }

 private:
  void separate();
  std::ostream& out_;
  std::vector<bool> first_;  // per open container: nothing written yet
  bool afterKey_ = false;
};

// A plain text table: a header row, then rows, columns padded to the widest
// cell (counting UTF-8 code points, not bytes).
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

}  // namespace sealmark

#endif
