#include "output.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <vector>

namespace sealmark {

namespace {

// Length of the UTF-8 sequence starting at s[i], or 0 when it isn't one
// (overlong forms, surrogates and values past U+10FFFF are refused).
std::size_t utf8SequenceLength(const std::string& s, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = byte(i);
  if (c < 0x80) return 1;
  std::size_t len = 0;
  std::uint32_t cp = 0;
  if ((c & 0xE0) == 0xC0) {
    len = 2;
    cp = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    len = 3;
    cp = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    len = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + len > s.size()) return 0;
  for (std::size_t k = 1; k < len; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3F);
  }
  static const std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return len;
}

std::size_t displayWidth(const std::string& s) {
  std::size_t n = 0;
  for (unsigned char c : s) n += (c & 0xC0) != 0x80;
  return n;
}

}  // namespace

std::string toValidUtf8(const std::string& bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (std::size_t i = 0; i < bytes.size();) {
    const std::size_t len = utf8SequenceLength(bytes, i);
    if (len == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(bytes, i, len);
      i += len;
    }
  }
  return out;
}

void JsonWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!first_.empty()) {
    if (!first_.back()) out_ << ", ";
    first_.back() = false;
  }
}

JsonWriter& JsonWriter::beginObject() {
  separate();
  out_ << '{';
  first_.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::endObject() {
  out_ << '}';
  first_.pop_back();
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  separate();
  out_ << '[';
  first_.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  out_ << ']';
  first_.pop_back();
  return *this;
}

JsonWriter& JsonWriter::key(const std::string& name) {
  value(name);
  out_ << ": ";
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::value(const std::string& text) {
  separate();
  out_ << '"';
  for (unsigned char c : toValidUtf8(text)) {
    switch (c) {
      case '"':
        out_ << "\\\"";
        break;
      case '\\':
        out_ << "\\\\";
        break;
      case '\n':
        out_ << "\\n";
        break;
      case '\r':
        out_ << "\\r";
        break;
      case '\t':
        out_ << "\\t";
        break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out_ << buf;
        } else {
          out_ << static_cast<char>(c);
        }
    }
  }
  out_ << '"';
  return *this;
}

JsonWriter& JsonWriter::value(bool b) {
  separate();
  out_ << (b ? "true" : "false");
  return *this;
}

JsonWriter& JsonWriter::value(std::int64_t n) {
  separate();
  out_ << n;
  return *this;
}

JsonWriter& JsonWriter::null() {
  separate();
  out_ << "null";
  return *this;
}

void Table::print(std::ostream& out, const std::string& indent) const {
  std::vector<std::size_t> widths(header_.size(), 0);
  auto measure = [&](const std::vector<std::string>& row) {
    for (std::size_t i = 0; i < row.size() && i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], displayWidth(row[i]));
    }
  };
  measure(header_);
  for (const auto& row : rows_) measure(row);
  auto printRow = [&](const std::vector<std::string>& row) {
    std::string line = indent;
    for (std::size_t i = 0; i < row.size() && i < widths.size(); ++i) {
      const std::string cell = toValidUtf8(row[i]);
      line += cell;
      if (i + 1 < row.size()) line += std::string(widths[i] - displayWidth(cell) + 2, ' ');
    }
    out << line << '\n';
  };
  printRow(header_);
  for (const auto& row : rows_) printRow(row);
}

bool copyFileRange(const std::string& from, std::uint64_t begin, std::uint64_t end, const std::string& to) {
  std::ifstream in(from, std::ios::binary);
  if (!in || !in.seekg(static_cast<std::streamoff>(begin))) return false;
  std::ofstream out(to, std::ios::binary);
  std::vector<char> slice(1 << 20);
  std::uint64_t left = end > begin ? end - begin : 0;
  while (left > 0 && out) {
    const auto n = static_cast<std::streamsize>(std::min<std::uint64_t>(left, slice.size()));
    if (!in.read(slice.data(), n)) return false;
    out.write(slice.data(), n);
    left -= static_cast<std::uint64_t>(n);
  }
  return static_cast<bool>(out.flush());
}

}  // namespace sealmark
