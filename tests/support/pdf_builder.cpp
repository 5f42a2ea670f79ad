// Writes signed PDF files byte by byte for tests.
//
// The document is kept as a small model (pages, fields, signatures, a few
// fixed objects). Each revision writes either every object (the base) or the
// objects touched since the previous revision (an incremental update), then
// fills in /ByteRange and /Contents for the signature made in that revision.
#include "pdf_builder.h"

#include <qpdf/Buffer.hh>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFObjectHandle.hh>
#include <qpdf/QPDFWriter.hh>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <string_view>

#include "ossl_ptr.h"

namespace sealtest {

using namespace detail;

namespace {

std::string pdfString(const std::string& s) {
  std::string r = "(";
  for (char c : s) {
    if (c == '(' || c == ')' || c == '\\') r += '\\';
    r += c;
  }
  return r + ")";
}

std::string hexOf(const unsigned char* p, std::size_t n) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string r;
  r.reserve(2 * n);
  for (std::size_t i = 0; i < n; ++i) {
    r += kHex[p[i] >> 4];
    r += kHex[p[i] & 15];
  }
  return r;
}

std::string ref(int obj, int gen = 0) {
  return std::to_string(obj) + " " + std::to_string(gen) + " R";
}

const char* eolText(Eol e) {
  switch (e) {
    case Eol::CrLf: return "\r\n";
    case Eol::Lf: return "\n";
    case Eol::None: return "";
  }
  return "";
}

// Wide enough for "[0 N N N]" with three 10-digit numbers and then some.
constexpr std::size_t kByteRangeWidth = 48;

// Fixed object numbers of the base document.
constexpr int kCatalog = 1, kPages = 2, kAcroForm = 3, kFont = 4, kInfo = 5;

}  // namespace

struct PdfBuilder::Impl {
  // ---- configuration ----
  struct Op {
    enum class Kind { Field, Sign, Update } kind;
    SignatureOptions sig;  // Field uses only the FieldOptions part
    UpdateOptions update;
  };
  int pageCount = 1;
  std::size_t paddingBytes = 0;
  std::vector<Op> ops;
  bool encrypted = false;
  std::string userPassword, ownerPassword;
  Encryption encryption = Encryption::Aes128R4;
  Eol lastEol = Eol::CrLf;
  std::vector<std::size_t> tamperOffsets;
  bool tamperPage = false;

  // ---- results of the last build ----
  std::vector<SignatureFacts> facts;
  std::vector<std::size_t> revisionEnds;
  std::vector<int> pageObjects;
  std::size_t pageTextOffset = 0;

  // ---- model, valid during build ----
  enum class Kind { Catalog, Pages, AcroForm, Font, Info, Page, Content, Padding,
                    Field, Widget, Sig, Annot, Raw };
  struct ObjInfo {
    Kind kind;
    int index;
  };
  struct Page {
    int obj = 0, content = 0;
    std::vector<int> annots;
  };
  struct Field {
    std::string partial, fullName;
    int parent = -1;
    std::vector<int> kids;  // child field indices (non-terminal only)
    int obj = 0;
    bool terminal = false;
    int widget = 0;  // separate widget object, 0 when merged
    FieldOptions opts;
    int sig = -1;
  };
  struct Sig {
    SignatureOptions opts;
    int obj = 0;  // 0: direct dictionary inside the field
    int field = -1;
    std::size_t revision = 0;
    std::size_t brPos = 0, brWidth = 0, cPos = 0, cLen = 0;
    std::vector<int> extraObjs;  // object numbers of opts.extraObjects
  };
  std::vector<std::string> rawBodies;
  std::map<int, ObjInfo> objects;
  int nextObj = 1;
  int paddingObj = 0;
  std::vector<Page> pages;
  std::vector<Field> fields;
  std::vector<int> topFields;
  std::vector<Sig> sigs;
  std::map<int, int> annotPage;  // extra annotation object -> page index
  std::size_t infoRevision = 0;
  std::size_t currentRevision = 0;
  std::set<int> dirty;
  std::map<int, std::size_t> offsets;
  std::size_t prevXref = 0;
  bool noSigStrings = false;  // encrypted: the rewritten sig dict has no strings
  Bytes out;

  // ---- output helpers ----
  void put(std::string_view s) { out.insert(out.end(), s.begin(), s.end()); }
  void putNum(long long v) { put(std::to_string(v)); }

  int alloc(Kind k, int index) {
    int n = nextObj++;
    objects[n] = ObjInfo{k, index};
    dirty.insert(n);
    return n;
  }

  void reset() {
    facts.clear();
    revisionEnds.clear();
    pageObjects.clear();
    pageTextOffset = 0;
    objects.clear();
    nextObj = 1;
    paddingObj = 0;
    pages.clear();
    fields.clear();
    topFields.clear();
    sigs.clear();
    rawBodies.clear();
    annotPage.clear();
    infoRevision = 0;
    currentRevision = 0;
    dirty.clear();
    offsets.clear();
    prevXref = 0;
    noSigStrings = false;
    out.clear();
  }

  // ---- model construction ----
  void makeBase() {
    if (pageCount < 1) throw std::invalid_argument("sealtest: need at least one page");
    alloc(Kind::Catalog, 0);
    alloc(Kind::Pages, 0);
    alloc(Kind::AcroForm, 0);
    alloc(Kind::Font, 0);
    alloc(Kind::Info, 0);
    for (int i = 0; i < pageCount; ++i) {
      Page p;
      p.obj = alloc(Kind::Page, i);
      p.content = alloc(Kind::Content, i);
      pages.push_back(p);
      pageObjects.push_back(p.obj);
    }
    if (paddingBytes > 0) paddingObj = alloc(Kind::Padding, 0);
  }

  int findField(const std::string& fullName) const {
    for (std::size_t i = 0; i < fields.size(); ++i)
      if (fields[i].fullName == fullName) return static_cast<int>(i);
    return -1;
  }

  void linkChild(int parent, int child) {
    if (parent < 0) {
      topFields.push_back(child);
      dirty.insert(kAcroForm);
    } else {
      fields[static_cast<std::size_t>(parent)].kids.push_back(child);
      dirty.insert(fields[static_cast<std::size_t>(parent)].obj);
    }
  }

  // Returns the terminal field's index; an existing unsigned terminal field
  // of the same name is reused so a later sign() can fill it in an update.
  int addField(const FieldOptions& o, bool forSignature) {
    if (o.page < 0 || o.page >= pageCount)
      throw std::invalid_argument("sealtest: page index out of range");
    if (int existing = findField(o.name); existing >= 0) {
      Field& f = fields[static_cast<std::size_t>(existing)];
      if (!f.terminal || f.sig >= 0 || !forSignature)
        throw std::invalid_argument("sealtest: duplicate field " + o.name);
      return existing;
    }
    int parent = -1;
    std::string prefix;
    std::size_t start = 0;
    for (;;) {
      std::size_t dot = o.name.find('.', start);
      if (dot == std::string::npos) break;
      std::string part = o.name.substr(start, dot - start);
      prefix = prefix.empty() ? part : prefix + "." + part;
      int idx = findField(prefix);
      if (idx < 0) {
        Field f;
        f.partial = part;
        f.fullName = prefix;
        f.parent = parent;
        fields.push_back(f);
        idx = static_cast<int>(fields.size() - 1);
        fields.back().obj = alloc(Kind::Field, idx);
        linkChild(parent, idx);
      } else if (fields[static_cast<std::size_t>(idx)].terminal) {
        throw std::invalid_argument("sealtest: " + prefix + " is a terminal field");
      }
      parent = idx;
      start = dot + 1;
    }
    Field f;
    f.partial = o.name.substr(start);
    f.fullName = o.name;
    f.parent = parent;
    f.terminal = true;
    f.opts = o;
    fields.push_back(f);
    int idx = static_cast<int>(fields.size() - 1);
    Field& t = fields.back();
    t.obj = alloc(Kind::Field, idx);
    if (o.separateWidget) t.widget = alloc(Kind::Widget, idx);
    if (o.inAnnots) {
      Page& p = pages[static_cast<std::size_t>(o.page)];
      p.annots.push_back(t.widget ? t.widget : t.obj);
      dirty.insert(p.obj);
    }
    linkChild(parent, idx);
    return idx;
  }

  void addSignature(const SignatureOptions& o) {
    int f = addField(o, true);
    Sig s;
    s.opts = o;
    s.field = f;
    s.revision = currentRevision;
    sigs.push_back(s);
    int si = static_cast<int>(sigs.size() - 1);
    if (!o.directValue) sigs.back().obj = alloc(Kind::Sig, si);
    for (const std::string& body : o.extraObjects) {
      rawBodies.push_back(body);
      sigs.back().extraObjs.push_back(alloc(Kind::Raw, static_cast<int>(rawBodies.size() - 1)));
    }
    fields[static_cast<std::size_t>(f)].sig = si;
    dirty.insert(fields[static_cast<std::size_t>(f)].obj);
  }

  void applyUpdate(const UpdateOptions& u) {
    if (u.page < 0 || u.page >= pageCount)
      throw std::invalid_argument("sealtest: page index out of range");
    if (u.kind == UpdateOptions::Kind::AddAnnotation) {
      int n = alloc(Kind::Annot, u.page);
      annotPage[n] = u.page;
      pages[static_cast<std::size_t>(u.page)].annots.push_back(n);
      dirty.insert(pages[static_cast<std::size_t>(u.page)].obj);
    } else {
      infoRevision = currentRevision;
      dirty.insert(kInfo);
    }
  }

  // ---- rendering ----
  void putStream(const std::string& dictExtra, std::string_view data) {
    put("<< /Length ");
    putNum(static_cast<long long>(data.size()));
    put(dictExtra);
    put(" >>\nstream\n");
    put(data);
    put("\nendstream");
  }

  void putPadding() {
    // Uncompressed comment lines: valid content, trivially cheap to produce,
    // and written straight into the output so 100 MB costs one pass.
    put("<< /Length ");
    putNum(static_cast<long long>(paddingBytes));
    put(" >>\nstream\n");
    static const std::string kLine =
        "% sealmark padding: this content stream only makes the file big\n";
    std::string block;
    while (block.size() + kLine.size() <= 65536) block += kLine;
    std::size_t left = paddingBytes;
    while (left > 0) {
      std::size_t n = std::min(left, block.size());
      out.insert(out.end(), block.begin(), block.begin() + static_cast<long>(n));
      left -= n;
    }
    put("\nendstream");
  }

  void putWidgetEntries(const FieldOptions& o) {
    put("/Type /Annot /Subtype /Widget /Rect [0 0 0 0] /F 132 ");
    if (o.pageRef) {
      put("/P ");
      put(ref(pages[static_cast<std::size_t>(o.page)].obj));
      put(" ");
    }
  }

  void putSigDict(Sig& s) {
    const SignatureOptions& o = s.opts;
    std::string sub = o.subFilter;
    if (sub.empty())
      sub = o.layout == Layout::Detached ? "adbe.pkcs7.detached" : "adbe.pkcs7.sha1";
    put("<< /Type /Sig /Filter /" + o.filter + " /SubFilter /" + sub + " ");
    if (!o.signingTime.empty() && !noSigStrings)
      put("/M " + pdfString(o.signingTime) + " ");
    if (!o.extraEntries.empty()) {
      std::string extra = o.extraEntries;
      for (std::size_t i = 0; i < s.extraObjs.size(); ++i) {
        const std::string mark = "{" + std::to_string(i) + "}";
        for (std::size_t at; (at = extra.find(mark)) != std::string::npos;)
          extra.replace(at, mark.size(), ref(s.extraObjs[i]));
      }
      put(extra + " ");
    }
    s.brWidth = std::max(kByteRangeWidth, o.byteRangeText ? o.byteRangeText->size() : 0);
    if (o.omitByteRange) {
      // Same footprint as the key and its value, but only blanks.
      put(std::string(std::strlen("/ByteRange ") + s.brWidth, ' '));
      s.brPos = 0;
    } else {
      // A parseable placeholder; the real numbers replace it in place.
      put("/ByteRange ");
      s.brPos = out.size();
      std::string placeholder = "[0 0 0 0]";
      placeholder.resize(s.brWidth, ' ');
      put(placeholder);
    }
    std::size_t cap = o.contentsCapacity;
    if (o.rawContents) cap = std::max(cap, o.rawContents->size());
    put(" /Contents ");
    s.cPos = out.size();
    s.cLen = 2 * cap + 2;
    out.push_back('<');
    out.insert(out.end(), 2 * cap, '0');
    out.push_back('>');
    put(" >>");
  }

  void putField(const Field& f) {
    put("<< ");
    if (f.terminal) put("/FT /Sig ");
    put("/T " + pdfString(f.partial) + " ");
    if (f.parent >= 0) put("/Parent " + ref(fields[static_cast<std::size_t>(f.parent)].obj) + " ");
    if (!f.terminal) {
      put("/Kids [");
      for (int k : f.kids) put(" " + ref(fields[static_cast<std::size_t>(k)].obj));
      put(" ] ");
    } else if (f.widget) {
      put("/Kids [ " + ref(f.widget) + " ] ");
    } else {
      putWidgetEntries(f.opts);
    }
    if (f.terminal && f.sig >= 0) {
      Sig& s = sigs[static_cast<std::size_t>(f.sig)];
      put("/V ");
      if (s.obj)
        put(ref(s.obj));
      else
        putSigDict(s);
      put(" ");
    }
    put(">>");
  }

  void putObject(int num) {
    const ObjInfo& info = objects.at(num);
    offsets[num] = out.size();
    put(std::to_string(num) + " 0 obj\n");
    switch (info.kind) {
      case Kind::Catalog:
        put("<< /Type /Catalog /Pages " + ref(kPages) + " /AcroForm " + ref(kAcroForm) + " >>");
        break;
      case Kind::Pages: {
        put("<< /Type /Pages /Kids [");
        for (const Page& p : pages) put(" " + ref(p.obj));
        put(" ] /Count " + std::to_string(pages.size()) + " >>");
        break;
      }
      case Kind::AcroForm: {
        put("<< /Fields [");
        for (int f : topFields) put(" " + ref(fields[static_cast<std::size_t>(f)].obj));
        put(" ] /SigFlags 3 >>");
        break;
      }
      case Kind::Font:
        put("<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>");
        break;
      case Kind::Info:
        put("<< /Producer (PDFSealmark test builder) /CreationDate (D:20240315120000Z)");
        if (infoRevision > 0)
          put(" /ModDate (D:20240315130000Z) /Title (Revision " +
              std::to_string(infoRevision) + ")");
        put(" >>");
        break;
      case Kind::Page: {
        const Page& p = pages[static_cast<std::size_t>(info.index)];
        put("<< /Type /Page /Parent " + ref(kPages) +
            " /MediaBox [0 0 612 792] /Resources << /Font << /F1 " + ref(kFont) +
            " >> >> /Contents ");
        if (info.index == 0 && paddingObj)
          put("[ " + ref(p.content) + " " + ref(paddingObj) + " ]");
        else
          put(ref(p.content));
        if (!p.annots.empty()) {
          put(" /Annots [");
          for (int a : p.annots) put(" " + ref(a));
          put(" ]");
        }
        put(" >>");
        break;
      }
      case Kind::Content: {
        std::string text = "BT /F1 24 Tf 72 720 Td (Page " + std::to_string(info.index + 1) +
                           ") Tj ET";
        std::string head = "<< /Length " + std::to_string(text.size()) + " >>\nstream\n";
        if (info.index == 0)
          pageTextOffset = out.size() + head.size() + text.find("(Page") + 1;
        putStream("", text);
        break;
      }
      case Kind::Padding:
        putPadding();
        break;
      case Kind::Field:
        putField(fields[static_cast<std::size_t>(info.index)]);
        break;
      case Kind::Widget: {
        const Field& f = fields[static_cast<std::size_t>(info.index)];
        put("<< /Parent " + ref(f.obj) + " ");
        putWidgetEntries(f.opts);
        put(">>");
        break;
      }
      case Kind::Sig:
        putSigDict(sigs[static_cast<std::size_t>(info.index)]);
        break;
      case Kind::Raw:
        put(rawBodies[static_cast<std::size_t>(info.index)]);
        break;
      case Kind::Annot:
        put("<< /Type /Annot /Subtype /Text /Rect [100 100 120 120] "
            "/Contents (Added after signing) /P " +
            ref(pages[static_cast<std::size_t>(info.index)].obj) + " >>");
        break;
    }
    put("\nendobj\n");
  }

  static std::string idHex(std::size_t revision) {
    std::string id = "5EA1A4C0FFEE00112233445566778800";
    std::string r = std::to_string(revision % 100);
    if (r.size() < 2) r = "0" + r;
    return id.substr(0, 30) + r;
  }

  void writeXrefAndTrailer(bool base, bool last) {
    std::size_t xrefPos = out.size();
    put("xref\n");
    char entry[32];
    if (base) {
      put("0 " + std::to_string(nextObj) + "\n0000000000 65535 f\r\n");
      for (int n = 1; n < nextObj; ++n) {
        std::snprintf(entry, sizeof entry, "%010zu 00000 n\r\n", offsets.at(n));
        put(entry);
      }
    } else {
      std::vector<int> nums(dirty.begin(), dirty.end());
      for (std::size_t i = 0; i < nums.size();) {
        std::size_t j = i;
        while (j + 1 < nums.size() && nums[j + 1] == nums[j] + 1) ++j;
        put(std::to_string(nums[i]) + " " + std::to_string(j - i + 1) + "\n");
        for (std::size_t k = i; k <= j; ++k) {
          std::snprintf(entry, sizeof entry, "%010zu 00000 n\r\n", offsets.at(nums[k]));
          put(entry);
        }
        i = j + 1;
      }
    }
    put("trailer\n<< /Size " + std::to_string(nextObj) + " /Root " + ref(kCatalog) +
        " /Info " + ref(kInfo) + " /ID [<" + idHex(0) + "> <" + idHex(currentRevision) + ">]");
    if (!base) put(" /Prev " + std::to_string(prevXref));
    put(" >>\nstartxref\n" + std::to_string(xrefPos) + "\n%%EOF");
    put(last ? eolText(lastEol) : "\r\n");
    prevXref = xrefPos;
    revisionEnds.push_back(out.size());
  }

  void writeRevision(bool base, bool last) {
    if (base) {
      // Every object, in number order, so the xref is one subsection.
      put("%PDF-1.7\n%\xE2\xE3\xCF\xD3\n");
      for (int n = 1; n < nextObj; ++n) putObject(n);
    } else {
      for (int n : dirty) putObject(n);
    }
    writeXrefAndTrailer(base, last);
    dirty.clear();
  }

  // Fills /ByteRange and /Contents of |s|; the range ends at |fileEnd|.
  void finishSignature(Sig& s, std::size_t fileEnd, int fieldObj, int sigObj) {
    const SignatureOptions& o = s.opts;
    const std::size_t after = s.cPos + s.cLen;
    std::array<long long, 4> br{0, static_cast<long long>(s.cPos),
                                static_cast<long long>(after),
                                static_cast<long long>(fileEnd - after)};
    if (!o.omitByteRange) {
      std::string text = o.byteRangeText
                             ? *o.byteRangeText
                             : "[" + std::to_string(br[0]) + " " + std::to_string(br[1]) +
                                   " " + std::to_string(br[2]) + " " +
                                   std::to_string(br[3]) + "]";
      if (text.size() > s.brWidth) throw std::logic_error("sealtest: ByteRange too wide");
      text.resize(s.brWidth, ' ');  // overwrite the whole placeholder
      std::memcpy(out.data() + s.brPos, text.data(), text.size());
    }
    Bytes cms;
    if (o.rawContents) {
      cms = *o.rawContents;
    } else {
      std::vector<ByteSpan> spans{ByteSpan{out.data(), s.cPos},
                                  ByteSpan{out.data() + after, fileEnd - after}};
      cms = makeCms(o, spans);
    }
    if (2 * cms.size() + 2 > s.cLen)
      throw std::runtime_error("sealtest: signature (" + std::to_string(cms.size()) +
                               " bytes) exceeds contentsCapacity");
    std::string hex = hexOf(cms.data(), cms.size());
    std::memcpy(out.data() + s.cPos + 1, hex.data(), hex.size());

    SignatureFacts f;
    f.fieldName = fields[static_cast<std::size_t>(s.field)].fullName;
    f.fieldObject = fieldObj;
    f.sigObject = sigObj;
    f.revision = s.revision;
    f.byteRange = br;
    f.contentsOffset = s.cPos;
    f.contentsLength = s.cLen;
    f.cms = std::move(cms);
    facts.push_back(std::move(f));
  }

  // Revision plan: the base holds everything up to the first sign() (or up
  // to, not including, an incremental first sign() or the first update());
  // every later sign()/update() closes one update.
  std::vector<std::vector<const Op*>> plan() const {
    std::vector<std::vector<const Op*>> revs(1);
    bool baseClosed = false;
    for (const Op& op : ops) {
      switch (op.kind) {
        case Op::Kind::Field:
          revs.back().push_back(&op);
          break;
        case Op::Kind::Sign:
          if (!baseClosed && op.sig.incremental) revs.emplace_back();
          baseClosed = true;
          revs.back().push_back(&op);
          revs.emplace_back();
          break;
        case Op::Kind::Update:
          if (!baseClosed) revs.emplace_back();
          baseClosed = true;
          revs.back().push_back(&op);
          revs.emplace_back();
          break;
      }
    }
    if (revs.size() > 1 && revs.back().empty()) revs.pop_back();
    return revs;
  }

  void applyOp(const Op& op) {
    switch (op.kind) {
      case Op::Kind::Field: addField(op.sig, false); break;
      case Op::Kind::Sign: addSignature(op.sig); break;
      case Op::Kind::Update: applyUpdate(op.update); break;
    }
  }

  void buildPlain() {
    auto revs = plan();
    makeBase();
    for (std::size_t r = 0; r < revs.size(); ++r) {
      currentRevision = r;
      std::size_t sigsBefore = sigs.size();
      for (const Op* op : revs[r]) applyOp(*op);
      writeRevision(r == 0, r + 1 == revs.size());
      for (std::size_t i = sigsBefore; i < sigs.size(); ++i) {
        Sig& s = sigs[i];
        finishSignature(s, out.size(), fields[static_cast<std::size_t>(s.field)].obj, s.obj);
      }
    }
  }

  void buildEncrypted();
  void applyTampering() {
    std::vector<std::size_t> at = tamperOffsets;
    if (tamperPage) {
      if (encrypted) throw std::logic_error("sealtest: tamperPageContent needs a plain file");
      at.push_back(pageTextOffset);
    }
    for (std::size_t off : at) {
      if (off >= out.size()) throw std::out_of_range("sealtest: tamper offset past end");
      out[off] ^= 0x01;
    }
  }
};

// ---- encryption ----------------------------------------------------------

namespace {

struct FoundField {
  QPDFObjectHandle field;
  bool found = false;
};

void findByName(QPDFObjectHandle node, const std::string& prefix, const std::string& want,
                FoundField& result) {
  std::string name = prefix;
  if (node.hasKey("/T")) {
    std::string t = node.getKey("/T").getUTF8Value();
    name = prefix.empty() ? t : prefix + "." + t;
  }
  if (name == want && node.hasKey("/V")) {
    result.field = node;
    result.found = true;
    return;
  }
  if (node.hasKey("/Kids")) {
    QPDFObjectHandle kids = node.getKey("/Kids");
    for (int i = 0; i < kids.getArrayNItems() && !result.found; ++i)
      findByName(kids.getArrayItem(i), name, want, result);
  }
}

}  // namespace

void PdfBuilder::Impl::buildEncrypted() {
  const Op* signOp = nullptr;
  for (const Op& op : ops) {
    if (op.kind == Op::Kind::Update)
      throw std::logic_error("sealtest: update() is not supported with encrypt()");
    if (op.kind == Op::Kind::Sign) {
      if (signOp) throw std::logic_error("sealtest: encrypt() supports one signature");
      if (op.sig.directValue)
        throw std::logic_error("sealtest: encrypt() needs an indirect /V");
      signOp = &op;
    }
  }
  // The base carries the signature dictionary with placeholder values; qpdf
  // encrypts it, and the real dictionary is written in an update below.
  makeBase();
  noSigStrings = true;
  for (const Op& op : ops) applyOp(op);
  writeRevision(true, true);

  QPDF plain;
  plain.processMemoryFile("sealtest-base", reinterpret_cast<const char*>(out.data()),
                          out.size());
  QPDFWriter w(plain);
  w.setOutputMemory();
  // A classic xref table, so our update's table chains onto a table.
  w.setObjectStreamMode(qpdf_o_disable);
  if (encryption == Encryption::Aes128R4)
    w.setR4EncryptionParametersInsecure(userPassword.c_str(), ownerPassword.c_str(), true,
                                        true, true, true, true, true, qpdf_r3p_full, true,
                                        true);
  else
    w.setR6EncryptionParameters(userPassword.c_str(), ownerPassword.c_str(), true, true,
                                true, true, true, true, qpdf_r3p_full, true);
  w.write();
  std::shared_ptr<Buffer> buf = w.getBufferSharedPointer();
  Bytes enc(buf->getBuffer(), buf->getBuffer() + buf->getSize());

  // qpdf ends with "%%EOF\n"; our revisions end with the configured EOL.
  static const std::string kEof = "%%EOF";
  auto eofIt = std::find_end(enc.begin(), enc.end(), kEof.begin(), kEof.end());
  if (eofIt == enc.end()) throw std::runtime_error("sealtest: qpdf output has no %%EOF");
  enc.erase(eofIt + static_cast<long>(kEof.size()), enc.end());
  {
    std::string_view e = signOp ? "\r\n" : eolText(lastEol);
    enc.insert(enc.end(), e.begin(), e.end());
  }

  // Facts about qpdf's output (it renumbers objects).
  QPDF q;
  q.processMemoryFile("sealtest-encrypted", reinterpret_cast<const char*>(enc.data()),
                      enc.size(), ownerPassword.c_str());
  QPDFObjectHandle trailer = q.getTrailer();
  QPDFObjGen root = trailer.getKey("/Root").getObjGen();
  QPDFObjGen encrypt = trailer.getKey("/Encrypt").getObjGen();
  QPDFObjectHandle idArr = trailer.getKey("/ID");
  std::string id0 = idArr.getArrayItem(0).getStringValue();
  std::string id1 = idArr.getArrayItem(1).getStringValue();
  long long size = trailer.getKey("/Size").getIntValue();
  pageObjects.clear();
  for (const QPDFObjectHandle& p : q.getAllPages()) pageObjects.push_back(p.getObjectID());
  pageTextOffset = 0;

  static const std::string kStartXref = "startxref";
  auto sx = std::find_end(enc.begin(), enc.end(), kStartXref.begin(), kStartXref.end());
  if (sx == enc.end()) throw std::runtime_error("sealtest: qpdf output has no startxref");
  std::size_t startXref = std::stoull(
      std::string(sx + static_cast<long>(kStartXref.size()), enc.end()));

  QPDFObjGen sigGen, fieldGen;
  if (signOp) {
    FoundField ff;
    QPDFObjectHandle fieldsArr = q.getRoot().getKey("/AcroForm").getKey("/Fields");
    for (int i = 0; i < fieldsArr.getArrayNItems() && !ff.found; ++i)
      findByName(fieldsArr.getArrayItem(i), "", signOp->sig.name, ff);
    if (!ff.found) throw std::runtime_error("sealtest: signed field lost by qpdf");
    fieldGen = ff.field.getObjGen();
    sigGen = ff.field.getKey("/V").getObjGen();
    if (!sigGen.isIndirect()) throw std::runtime_error("sealtest: /V not indirect");
  }

  out = std::move(enc);
  revisionEnds.assign(1, out.size());
  if (!signOp) return;

  // The update: the signature dictionary under its qpdf number. It holds no
  // strings except /Contents, which readers never decrypt for signatures.
  Sig& s = sigs.at(0);
  s.revision = 1;
  currentRevision = 1;
  std::size_t objPos = out.size();
  put(std::to_string(sigGen.getObj()) + " " + std::to_string(sigGen.getGen()) + " obj\n");
  putSigDict(s);
  put("\nendobj\n");
  std::size_t xrefPos = out.size();
  char entry[64];
  std::snprintf(entry, sizeof entry, "xref\n%d 1\n%010zu %05d n\r\n", sigGen.getObj(),
                objPos, sigGen.getGen());
  put(entry);
  auto toHex = [](const std::string& v) {
    return hexOf(reinterpret_cast<const unsigned char*>(v.data()), v.size());
  };
  put("trailer\n<< /Size " + std::to_string(size) + " /Root " +
      ref(root.getObj(), root.getGen()) + " /Encrypt " + ref(encrypt.getObj(), encrypt.getGen()) +
      " /ID [<" + toHex(id0) + "> <" + toHex(id1) + ">] /Prev " + std::to_string(startXref) +
      " >>\nstartxref\n" + std::to_string(xrefPos) + "\n%%EOF" + eolText(lastEol));
  revisionEnds.push_back(out.size());
  finishSignature(s, out.size(), fieldGen.getObj(), sigGen.getObj());
}

// ---- public API -----------------------------------------------------------

FieldOptions::FieldOptions() = default;
SignatureOptions::SignatureOptions() = default;

PdfBuilder::PdfBuilder() : impl_(std::make_unique<Impl>()) {}
PdfBuilder::~PdfBuilder() = default;
PdfBuilder::PdfBuilder(PdfBuilder&&) noexcept = default;
PdfBuilder& PdfBuilder::operator=(PdfBuilder&&) noexcept = default;

PdfBuilder& PdfBuilder::pages(int n) {
  impl_->pageCount = n;
  return *this;
}
PdfBuilder& PdfBuilder::padding(std::size_t bytes) {
  impl_->paddingBytes = bytes;
  return *this;
}
PdfBuilder& PdfBuilder::unsignedField(const FieldOptions& options) {
  Impl::Op op{Impl::Op::Kind::Field, {}, {}};
  static_cast<FieldOptions&>(op.sig) = options;
  impl_->ops.push_back(std::move(op));
  return *this;
}
PdfBuilder& PdfBuilder::sign(const SignatureOptions& options) {
  impl_->ops.push_back(Impl::Op{Impl::Op::Kind::Sign, options, {}});
  return *this;
}
PdfBuilder& PdfBuilder::update(const UpdateOptions& options) {
  impl_->ops.push_back(Impl::Op{Impl::Op::Kind::Update, {}, options});
  return *this;
}
PdfBuilder& PdfBuilder::encrypt(std::string userPassword, std::string ownerPassword,
                                Encryption kind) {
  impl_->encrypted = true;
  impl_->userPassword = std::move(userPassword);
  impl_->ownerPassword = std::move(ownerPassword);
  impl_->encryption = kind;
  return *this;
}
PdfBuilder& PdfBuilder::finalEol(Eol eol) {
  impl_->lastEol = eol;
  return *this;
}
PdfBuilder& PdfBuilder::tamperAt(std::size_t offset) {
  impl_->tamperOffsets.push_back(offset);
  return *this;
}
PdfBuilder& PdfBuilder::tamperPageContent() {
  impl_->tamperPage = true;
  return *this;
}

Bytes PdfBuilder::build() {
  Impl& m = *impl_;
  m.reset();
  m.out.reserve(m.paddingBytes + (1u << 16));
  if (m.encrypted)
    m.buildEncrypted();
  else
    m.buildPlain();
  m.applyTampering();
  return std::move(m.out);
}

void writeBytes(const std::string& path, const Bytes& data) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  if (!f) throw std::runtime_error("sealtest: cannot open " + path);
  f.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  if (!f) throw std::runtime_error("sealtest: cannot write " + path);
}

void PdfBuilder::writeFile(const std::string& path) { writeBytes(path, build()); }

const std::vector<SignatureFacts>& PdfBuilder::signatures() const { return impl_->facts; }
const std::vector<std::size_t>& PdfBuilder::revisionEnds() const { return impl_->revisionEnds; }
const std::vector<int>& PdfBuilder::pageObjects() const { return impl_->pageObjects; }
std::size_t PdfBuilder::pageContentOffset() const { return impl_->pageTextOffset; }

}  // namespace sealtest
