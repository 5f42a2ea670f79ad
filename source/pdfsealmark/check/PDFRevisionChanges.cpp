// Per-revision changes: qpdf reads the cross-reference data of the file as
// it stood at the end of each revision, through a view that ends there, and
// two neighbouring tables are compared entry by entry.
#include "pdfsealmark/PDFRevisionChanges.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <qpdf/InputSource.hh>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFExc.hh>
#include <qpdf/QPDFObjectHandle.hh>
#include <qpdf/QPDFXRefEntry.hh>
#include <set>
#include <stdexcept>

#include "pdfsealmark/check/revision_markers.h"

namespace PDF_Sealmark {

PDFRevisionChanges::Revision::Revision() = default;
PDFRevisionChanges::Revision::~Revision() = default;
PDFRevisionChanges::Revision::Revision(const Revision&) = default;
PDFRevisionChanges::Revision& PDFRevisionChanges::Revision::operator=(const Revision&) = default;
PDFRevisionChanges::Result::Result() = default;
PDFRevisionChanges::Result::~Result() = default;
PDFRevisionChanges::Result::Result(const Result&) = default;
PDFRevisionChanges::Result& PDFRevisionChanges::Result::operator=(const Result&) = default;
PDFRevisionChanges::Options::Options() = default;
PDFRevisionChanges::Options::~Options() = default;
PDFRevisionChanges::Options::Options(const Options&) = default;
PDFRevisionChanges::Options& PDFRevisionChanges::Options::operator=(const Options&) = default;

namespace {

using Kind = PDFRevisionChanges::Kind;
using Table = std::map<QPDFObjGen, QPDFXRefEntry>;

constexpr std::size_t kMaxName = 200;
// Annotations looked up through the pages' /Annots, per revision.
constexpr std::size_t kMaxAnnotations = 100000;

// The file's bytes, from memory or through a few cached blocks of the file:
// qpdf reads cross-reference sections a few bytes at a time, and it reads
// them once for every revision compared.
class FileBytes {
 public:
  explicit FileBytes(std::vector<unsigned char> memory) : memory_(std::move(memory)), size_(memory_.size()) {}
  FileBytes(int fd, std::uint64_t size) : fd_(fd), size_(size) {}
  ~FileBytes() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;

  std::uint64_t size() const { return size_; }

  // Up to `length` bytes from `offset`; fewer only at the end of the file.
  size_t read(std::uint64_t offset, char* out, size_t length) {
    if (offset >= size_) return 0;
    length = static_cast<size_t>(std::min<std::uint64_t>(length, size_ - offset));
    if (fd_ < 0) {
      std::memcpy(out, memory_.data() + offset, length);
      return length;
    }
    size_t done = 0;
    while (done < length) {
      const Block* block = blockAt(offset + done);
      if (!block) break;
      const size_t from = static_cast<size_t>(offset + done - block->offset);
      if (from >= block->bytes.size()) break;
      const size_t n = std::min(length - done, block->bytes.size() - from);
      std::memcpy(out + done, block->bytes.data() + from, n);
      done += n;
    }
    return done;
  }

 private:
  static constexpr std::uint64_t kBlock = 1u << 16;
  struct Block {
    std::uint64_t offset = ~std::uint64_t(0);
    std::vector<char> bytes;
  };

  const Block* blockAt(std::uint64_t offset) {
    const std::uint64_t start = offset - offset % kBlock;
    for (const Block& b : blocks_) {
      if (b.offset == start) return &b;
    }
    Block& b = blocks_[next_++ % blocks_.size()];
    b.offset = ~std::uint64_t(0);
    b.bytes.resize(static_cast<size_t>(std::min(kBlock, size_ - start)));
    size_t got = 0;
    while (got < b.bytes.size()) {
      const ssize_t n = ::pread(fd_, b.bytes.data() + got, b.bytes.size() - got, off_t(start + got));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += size_t(n);
    }
    b.bytes.resize(got);
    b.offset = start;
    return &b;
  }

  std::vector<unsigned char> memory_;
  int fd_ = -1;
  std::uint64_t size_ = 0;
  std::array<Block, 8> blocks_;
  std::size_t next_ = 0;
};

// The first `limit` bytes of the file, as if the file ended there: qpdf then
// finds the "startxref" of that revision and follows its /Prev chain, as a
// reader of the file at that time would have.
class PrefixSource : public InputSource {
 public:
  PrefixSource(FileBytes& bytes, qpdf_offset_t limit) : bytes_(bytes), limit_(limit) {}

  std::string const& getName() const override { return name_; }
  qpdf_offset_t tell() override { return pos_; }
  void rewind() override { pos_ = 0; }
  void unreadCh(char) override {
    if (pos_ > 0) --pos_;
  }
  void seek(qpdf_offset_t offset, int whence) override {
    qpdf_offset_t to = offset;
    if (whence == SEEK_CUR) to = pos_ + offset;
    if (whence == SEEK_END) to = limit_ + offset;
    if (to < 0) throw std::runtime_error("seek before the beginning of the file");
    pos_ = to;
  }
  size_t read(char* buffer, size_t length) override {
    last_offset = pos_;
    if (pos_ >= limit_) return 0;
    const size_t want = static_cast<size_t>(std::min<qpdf_offset_t>(limit_ - pos_, qpdf_offset_t(length)));
    const size_t got = bytes_.read(std::uint64_t(pos_), buffer, want);
    pos_ += qpdf_offset_t(got);
    return got;
  }
  qpdf_offset_t findAndSkipNextEOL() override {
    char buffer[4096];
    for (;;) {
      const qpdf_offset_t from = pos_;
      const size_t got = read(buffer, sizeof buffer);
      if (got == 0) return pos_;
      for (size_t i = 0; i < got; ++i) {
        if (buffer[i] != '\r' && buffer[i] != '\n') continue;
        const qpdf_offset_t eol = from + qpdf_offset_t(i);
        pos_ = eol + 1;
        char c;
        while (read(&c, 1) == 1) {
          if (c != '\r' && c != '\n') {
            unreadCh(c);
            break;
          }
        }
        return eol;
      }
    }
  }

 private:
  FileBytes& bytes_;
  qpdf_offset_t limit_;
  qpdf_offset_t pos_ = 0;
  std::string name_ = "revision";
};

std::vector<std::uint64_t> findEnds(FileBytes& bytes) {
  MarkerScanner scanner;
  std::vector<unsigned char> chunk(MarkerScanner::kCarry + (1u << 20));
  unsigned char* data = chunk.data() + MarkerScanner::kCarry;
  std::uint64_t offset = 0;
  while (offset < bytes.size()) {
    std::size_t got = 0;
    for (std::uint64_t block = offset; got < chunk.size() - MarkerScanner::kCarry;) {
      const std::size_t n =
          bytes.read(block, reinterpret_cast<char*>(data) + got, chunk.size() - MarkerScanner::kCarry - got);
      if (n == 0) break;
      got += n;
      block += n;
    }
    if (got == 0) break;
    offset += got;
    scanner.feed(data, got, offset - got, offset >= bytes.size());
  }
  return scanner.ends;
}

// One revision as qpdf reads it: the document and its merged table.
struct Snapshot {
  std::unique_ptr<QPDF> qpdf;
  Table table;
  std::string problem;
  bool ok() const { return problem.empty(); }
};

Snapshot open(FileBytes& bytes, std::uint64_t end, const std::string& password) {
  Snapshot s;
  try {
    s.qpdf = std::make_unique<QPDF>();
    s.qpdf->setSuppressWarnings(true);
    // A revision qpdf can only make sense of by rebuilding the table from the
    // objects themselves is not what that revision's writer said it holds.
    s.qpdf->setAttemptRecovery(false);
    s.qpdf->processInputSource(std::make_shared<PrefixSource>(bytes, qpdf_offset_t(end)), password.c_str());
    s.table = s.qpdf->getXRefTable();
    return s;
  } catch (const QPDFExc& e) {
    s.problem = e.getMessageDetail();
  } catch (const std::exception& e) {
    s.problem = e.what();
  }
  if (s.problem.empty()) s.problem = "unreadable cross-reference data";
  s.qpdf.reset();
  s.table.clear();
  return s;
}

bool sameEntry(const QPDFXRefEntry& a, const QPDFXRefEntry& b) {
  if (a.getType() != b.getType()) return false;
  if (a.getType() == 1) return a.getOffset() == b.getOffset();
  return a.getObjStreamNumber() == b.getObjStreamNumber() && a.getObjStreamIndex() == b.getObjStreamIndex();
}

std::string nameOf(QPDFObjectHandle dict, const char* key) {
  QPDFObjectHandle value = dict.getKey(key);
  return value.isName() ? value.getName() : std::string();
}

int refNumber(QPDFObjectHandle h, const char* key) {
  QPDFObjectHandle value = h.getKey(key);
  return value.isIndirect() ? value.getObjectID() : 0;
}

std::string cut(std::string text) {
  if (text.size() <= kMaxName) return text;
  std::size_t n = kMaxName;
  while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  return text.substr(0, n);
}

// What the objects of one revision are; the pages are found once, when an
// object needs them.
class Describer {
 public:
  explicit Describer(QPDF& qpdf) : qpdf_(qpdf) {
    try {
      QPDFObjectHandle trailer = qpdf.getTrailer();
      root_ = refNumber(trailer, "/Root");
      info_ = refNumber(trailer, "/Info");
      QPDFObjectHandle root = trailer.getKey("/Root");
      if (root.isDictionary()) {
        acroForm_ = refNumber(root, "/AcroForm");
        dss_ = refNumber(root, "/DSS");
      }
    } catch (const std::exception&) {
    }
  }

  void describe(PDFRevisionChanges::Object& o) {
    try {
      QPDFObjectHandle h = qpdf_.getObjectByID(o.number, o.generation);
      o.stream = h.isStream();
      QPDFObjectHandle d = o.stream ? h.getDict() : h;
      if (!d.isDictionary()) {
        o.unreadable = h.isNull();
        return;
      }
      o.type = nameOf(d, "/Type");
      o.subtype = nameOf(d, "/Subtype");
      o.kind = kindOf(o, d);
      if (o.kind == Kind::kFormField) {
        QPDFObjectHandle t = d.getKey("/T");
        if (t.isString()) o.name = cut(t.getUTF8Value());
      }
      if (o.kind == Kind::kPage) o.page = pageOf(o.number);
      if (o.kind == Kind::kAnnotation || (o.kind == Kind::kFormField && o.subtype == "/Widget")) {
        const int p = refNumber(d, "/P");
        o.page = p ? pageOf(p) : 0;
        if (!o.page) o.page = annotationPage(o.number);
      }
    } catch (const std::exception&) {
      o.unreadable = true;
    }
  }

 private:
  Kind kindOf(const PDFRevisionChanges::Object& o, QPDFObjectHandle d) {
    const std::string& type = o.type;
    if (o.number == root_ || type == "/Catalog") return Kind::kCatalog;
    if (type == "/Pages") return Kind::kPageTree;
    if (type == "/Page") return Kind::kPage;
    if (type == "/Sig" || type == "/DocTimeStamp") return Kind::kSignatureValue;
    if (type == "/XRef") return Kind::kXRefStream;
    if (type == "/ObjStm") return Kind::kObjectStream;
    if (d.hasKey("/FT")) return Kind::kFormField;
    if (type == "/Annot" || (!o.subtype.empty() && d.hasKey("/Rect") && !o.stream)) return Kind::kAnnotation;
    if (o.number == acroForm_) return Kind::kAcroForm;
    if (o.number == dss_ || type == "/DSS") return Kind::kSecurityStore;
    if (o.number == info_) return Kind::kInfo;
    return Kind::kOther;
  }

  int pageOf(int number) {
    loadPages();
    auto it = pages_.find(number);
    return it == pages_.end() ? 0 : it->second;
  }

  int annotationPage(int number) {
    loadPages();
    if (!annotsLoaded_) {
      annotsLoaded_ = true;
      try {
        const auto& all = qpdf_.getAllPages();
        for (std::size_t i = 0; i < all.size() && annots_.size() < kMaxAnnotations; ++i) {
          QPDFObjectHandle list = QPDFObjectHandle(all[i]).getKey("/Annots");
          if (!list.isArray()) continue;
          const int n = std::min(list.getArrayNItems(), int(kMaxAnnotations));
          for (int a = 0; a < n; ++a) {
            QPDFObjectHandle annot = list.getArrayItem(a);
            if (annot.isIndirect()) annots_.emplace(annot.getObjectID(), int(i) + 1);
          }
        }
      } catch (const std::exception&) {
      }
    }
    auto it = annots_.find(number);
    return it == annots_.end() ? 0 : it->second;
  }

  void loadPages() {
    if (pagesLoaded_) return;
    pagesLoaded_ = true;
    try {
      const auto& all = qpdf_.getAllPages();
      for (std::size_t i = 0; i < all.size(); ++i) pages_.emplace(all[i].getObjectID(), int(i) + 1);
    } catch (const std::exception&) {
      // A page tree qpdf can't walk: its pages stay without numbers.
    }
  }

  QPDF& qpdf_;
  int root_ = 0, info_ = 0, acroForm_ = 0, dss_ = 0;
  bool pagesLoaded_ = false, annotsLoaded_ = false;
  std::map<int, int> pages_, annots_;
};

// The entries of `now` that differ from `base`, with the counts.
void compare(const Table& base, const Table& now, PDFRevisionChanges::Revision& r, std::size_t maxObjects,
             QPDF& qpdf) {
  std::set<int> changedNumbers;
  std::vector<std::pair<QPDFObjGen, const QPDFXRefEntry*>> changed;
  for (const auto& [og, entry] : now) {
    auto was = base.find(og);
    if (was != base.end() && sameEntry(was->second, entry)) continue;
    changed.emplace_back(og, &entry);
    changedNumbers.insert(og.getObj());
  }
  // An object whose entry still names the same place in an object stream
  // that this update replaced is as new as the stream around it.
  for (const auto& [og, entry] : now) {
    if (entry.getType() != 2 || !changedNumbers.count(entry.getObjStreamNumber())) continue;
    auto was = base.find(og);
    if (was != base.end() && sameEntry(was->second, entry)) changed.emplace_back(og, &entry);
  }
  std::sort(changed.begin(), changed.end(), [](const auto& a, const auto& b) { return a.first < b.first; });

  auto hadNumber = [&](int number) {
    auto it = base.lower_bound(QPDFObjGen(number, 0));
    return it != base.end() && it->first.getObj() == number;
  };
  Describer describer(qpdf);
  for (const auto& [og, entry] : changed) {
    const bool replaces = hadNumber(og.getObj());
    ++(replaces ? r.replaced : r.added);
    if (r.objects.size() >= maxObjects) continue;
    PDFRevisionChanges::Object o;
    o.number = og.getObj();
    o.generation = og.getGen();
    o.replaces = replaces;
    if (entry->getType() == 2) o.objectStream = entry->getObjStreamNumber();
    describer.describe(o);
    r.objects.push_back(std::move(o));
  }
  for (const auto& [og, entry] : base) {
    if (!now.count(og)) ++r.freed;
  }
}

// Which revisions to compare: the first, and the latest ones as far as the
// bounds allow.  Reading revision k costs qpdf a walk down a /Prev chain of
// about k sections, so beside a count there is a bound on that work.
constexpr std::uint64_t kMaxWork = 1u << 17;

bool readAll(FileBytes& bytes, const std::string& password, PDFRevisionChanges::Result& result,
             const PDFRevisionChanges::Options& options) {
  using Revision = PDFRevisionChanges::Revision;
  result = PDFRevisionChanges::Result();
  result.fileSize = bytes.size();
  const std::vector<std::uint64_t> ends =
      options.revisionEnds.empty() ? findEnds(bytes) : options.revisionEnds;
  // Ends from elsewhere are taken only in order and within the file.
  std::uint64_t last = 0;
  for (std::uint64_t end : ends) {
    if (end <= last || end > bytes.size()) continue;
    Revision r;
    r.start = last;
    r.end = last = end;
    result.revisions.push_back(r);
  }
  if (last < bytes.size()) {
    Revision r;
    r.start = last;
    r.end = bytes.size();
    r.marked = false;
    result.revisions.push_back(r);
  }

  const std::size_t n = result.revisions.size();
  const std::size_t maxRevisions = std::max<std::size_t>(options.maxRevisions, 2);
  // Revisions [first, n) besides revision 0; each needs the one before.
  std::size_t first = n;
  std::uint64_t planned = 1;
  while (first > 1 && n - first < maxRevisions - 1) {
    const std::uint64_t more = first == n ? 2 * std::uint64_t(n) - 1 : first - 1;
    if (planned + more > kMaxWork) break;
    planned += more;
    --first;
  }
  // What is left covers going further back past unreadable revisions.
  std::uint64_t work = kMaxWork;
  std::size_t reads = 2 * maxRevisions + 8;
  std::vector<char> unreadable(n, 0);
  std::vector<std::string> problems(n);
  int cachedIndex = -1;
  Snapshot cached;
  enum class Got { kSnapshot, kUnreadable, kOverBudget };
  auto load = [&](std::size_t i) {
    if (int(i) == cachedIndex) return Got::kSnapshot;
    if (unreadable[i]) return Got::kUnreadable;
    if (reads == 0 || work < i + 1) return Got::kOverBudget;
    --reads;
    work -= i + 1;
    Snapshot s = open(bytes, result.revisions[i].end, password);
    if (!s.ok()) {
      unreadable[i] = 1;
      problems[i] = s.problem;
      return Got::kUnreadable;
    }
    cached = std::move(s);
    cachedIndex = int(i);
    return Got::kSnapshot;
  };

  for (std::size_t i = 0; i < n; ++i) {
    if (i != 0 && i < first) continue;
    Revision& r = result.revisions[i];
    // The base first, so that the revision itself stays cached for the next.
    int base = -1;
    Got got = Got::kUnreadable;
    Table baseTable;
    for (int j = int(i) - 1; j >= 0 && got == Got::kUnreadable; --j) {
      got = load(std::size_t(j));
      if (got == Got::kSnapshot) {
        base = j;
        baseTable = cached.table;
      }
    }
    if (got == Got::kOverBudget) continue;  // not compared
    got = load(i);
    if (got == Got::kOverBudget) continue;
    r.compared = true;
    if (got == Got::kUnreadable) {
      r.problem = problems[i];
      continue;
    }
    r.readable = true;
    r.base = base;
    compare(baseTable, cached.table, r, options.maxObjects, *cached.qpdf);
    // The first-page section of a linearized file ends with its own "%%EOF"
    // but has no cross-reference data of its own to start from.
    if (base < 0 && i > 0 && unreadable[0] && !result.revisions[0].problem.empty()) {
      try {
        if (cached.qpdf->isLinearized())
          result.revisions[0].problem = "the first-page section of a linearized file, read with the rest";
      } catch (const std::exception&) {
      }
    }
  }
  return true;
}

}  // namespace

bool PDFRevisionChanges::read(const std::string& path, const std::string& password, Result& result,
                              std::string* why, const Options& options) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    if (why) *why = fd >= 0 && !S_ISREG(st.st_mode) ? "not a regular file" : std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return false;
  }
  FileBytes bytes(fd, static_cast<std::uint64_t>(st.st_size));
  try {
    return readAll(bytes, password, result, options);
  } catch (const std::exception& e) {
    if (why) *why = std::string("cannot read the file: ") + e.what();
    return false;
  }
}

bool PDFRevisionChanges::readMemory(std::vector<unsigned char> memory, const std::string& password,
                                    Result& result, std::string* why, const Options& options) {
  FileBytes bytes(std::move(memory));
  try {
    return readAll(bytes, password, result, options);
  } catch (const std::exception& e) {
    if (why) *why = std::string("cannot read: ") + e.what();
    return false;
  }
}

}  // namespace PDF_Sealmark
