#include "output.h"

#include <sys/stat.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <vector>

namespace sealmark {

namespace {

// Columns a terminal gives the text.
std::size_t displayWidth(const std::string& s) {
  const icu::UnicodeString text = icu::UnicodeString::fromUTF8(s);
  std::size_t width = 0;
  for (int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
    const UChar32 c = text.char32At(i);
    const auto category = u_charType(c);
    if (category == U_NON_SPACING_MARK || category == U_ENCLOSING_MARK || category == U_FORMAT_CHAR) continue;
    const auto eastAsian = u_getIntPropertyValue(c, UCHAR_EAST_ASIAN_WIDTH);
    width += eastAsian == U_EA_WIDE || eastAsian == U_EA_FULLWIDTH ? 2 : 1;
  }
  return width;
}

}  // namespace

std::string toValidUtf8(const std::string& bytes) {
  // fromUTF8 puts U+FFFD for every ill-formed sequence.
  std::string out;
  return icu::UnicodeString::fromUTF8(bytes).toUTF8String(out);
}

void printJson(std::ostream& out, const Json& json) {
  out << json.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
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

bool writeFileAtomically(const std::string& path, const std::string& bytes, unsigned mode, std::string& why) {
  const std::size_t slash = path.rfind('/');
  std::string temp = path.substr(0, slash == std::string::npos ? 0 : slash + 1) + "." +
                     path.substr(slash == std::string::npos ? 0 : slash + 1) + ".XXXXXX";
  // mkstemp opens with O_CREAT|O_EXCL and mode 0600.
  const int fd = ::mkstemp(&temp[0]);
  if (fd < 0) {
    why = std::strerror(errno);
    return false;
  }
  bool ok = ::fchmod(fd, static_cast<mode_t>(mode)) == 0;
  for (std::size_t done = 0; ok && done < bytes.size();) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<std::size_t>(n);
  }
  int err = ok ? 0 : errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    err = errno;
  }
  if (ok && ::rename(temp.c_str(), path.c_str()) != 0) {
    ok = false;
    err = errno;
  }
  if (!ok) {
    ::unlink(temp.c_str());
    why = std::strerror(err ? err : EIO);
  }
  return ok;
}

std::string displayTime(const std::optional<std::string>& t) {
  if (!t) return "-";
  const std::string& s = *t;
  const bool digits = s.size() >= 15 && s.find_first_not_of("0123456789") == 14;
  if (!digits || s.back() != 'Z' || (s.size() > 15 && s[14] != '.')) return s;
  return s.substr(0, 4) + "-" + s.substr(4, 2) + "-" + s.substr(6, 2) + " " + s.substr(8, 2) + ":" +
         s.substr(10, 2) + ":" + s.substr(12, 2) + "Z";
}

bool isDateText(const std::string& text) {
  // The library reads dates by fixed positions; anything else would be
  // read as a wrong moment, or not at all.
  static const std::regex kDate("[0-9]{12}([0-9]{2})?(Z|[+-][0-9]{2}([0-9]{2})?)?");
  return std::regex_match(text, kDate);
}

}  // namespace sealmark
