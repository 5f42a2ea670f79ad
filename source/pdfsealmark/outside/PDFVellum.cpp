#include "pdfsealmark/outside/PDFVellum.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>
#include <sys/stat.h>

#include <qpdf/BufferInputSource.hh>
#include <qpdf/InputSource.hh>
#include <qpdf/QPDFExc.hh>
#include <qpdf/QPDFTokenizer.hh>
#include <qpdf/QPDFXRefEntry.hh>

#include "pdfsealmark/outside/PDFDocumentImpl.h"
#include "pdfsealmark/outside/paged_file_source.h"

namespace PDF_Vellum {

// --- objects ----------------------------------------------------------------

PDFRCObject::~PDFRCObject() = default;

int PDFRCObject::addRef() const { return ++refCount_; }

int PDFRCObject::release() const {
  const int left = --refCount_;
  if (left == 0) delete this;
  return left;
}

bool PDFObject::isA(ObjType type) const { return type == getType(); }
const char* PDFObject::getString() const { return nullptr; }
long PDFObject::getLenth() const { return 0; }

PDFObject* PDFArray::getAt(std::size_t index) const {
  return index < items_.size() ? items_[index].get() : nullptr;
}

void PDFArray::append(PDFObject* item) { items_.emplace_back(item); }

PDFObject* PDFDictionary::getValueOf(const PDFName& key) const {
  auto it = entries_.find(key.text());
  return it == entries_.end() ? nullptr : it->second.get();
}

PDFObject* PDFDictionary::getParsedValueOf(PDFDocument* doc, const PDFName& key) const {
  PDFObject* value = getValueOf(key);
  if (value && doc && value->isA(kPDFIndirect)) {
    return doc->parseIndirectObj(static_cast<PDFIndirect*>(value), true);
  }
  return value;
}

void PDFDictionary::setValue(const std::string& key, PDFObject* value) { entries_[key] = value; }

// --- document ---------------------------------------------------------------

namespace {

// A read-only streambuf over bytes the document owns, so the document's
// stream and qpdf share one copy of a file opened from memory.
class ByteViewBuf : public std::streambuf {
 public:
  ByteViewBuf(const unsigned char* data, std::size_t size) {
    char* p = const_cast<char*>(reinterpret_cast<const char*>(data));
    setg(p, p, p + size);
  }

 protected:
  pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
    off_type base = 0;
    if (dir == std::ios_base::cur) base = gptr() - eback();
    if (dir == std::ios_base::end) base = egptr() - eback();
    return seekpos(pos_type(base + off), which);
  }
  pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
    const off_type p = off_type(pos);
    if (!(which & std::ios_base::in) || p < 0 || p > egptr() - eback()) return pos_type(off_type(-1));
    setg(eback(), eback() + p, egptr());
    return pos;
  }
  std::streamsize xsgetn(char* s, std::streamsize n) override {
    const std::streamsize avail = egptr() - gptr();
    const std::streamsize count = n < avail ? n : avail;
    if (count > 0) {
      std::memcpy(s, gptr(), static_cast<std::size_t>(count));
      gbump(static_cast<int>(count));  // count <= avail, which fits: see open
    }
    return count;
  }
};

// Readers accept the header anywhere in the first 1024 bytes; without one
// this is not a PDF, whatever qpdf's recovery could make of it.
bool hasPdfHeader(const unsigned char* data, std::size_t size) {
  const std::size_t window = size < 1024 ? size : 1024;
  static const char kHeader[] = "%PDF-";
  for (std::size_t i = 0; i + 5 <= window; ++i) {
    if (std::memcmp(data + i, kHeader, 5) == 0) return true;
  }
  return false;
}

void setWhy(std::string* whyNot, const std::string& text) {
  if (whyNot) *whyNot = text;
}

std::string reasonOf(const QPDFExc& e, bool triedPassword) {
  if (e.getErrorCode() == qpdf_e_password) return triedPassword ? "wrong password" : "password required";
  if (e.getErrorCode() == qpdf_e_unsupported) return "unsupported: " + e.getMessageDetail();
  return "damaged file: " + e.getMessageDetail();
}

// Runs one step of opening; qpdf tells what went wrong by throwing.
template <class Step>
bool guarded(Step step, const std::string& password, std::string* whyNot) {
  try {
    return step();
  } catch (const QPDFExc& e) {
    setWhy(whyNot, reasonOf(e, !password.empty()));
  } catch (const std::exception& e) {
    setWhy(whyNot, std::string("damaged file: ") + e.what());
  }
  return false;
}

// Opening succeeded only if the catalog can be reached.
bool finishOpen(PDFDocument::Impl& impl, const std::string& password, std::string* whyNot) {
  return guarded(
      [&] {
        if (!impl.qpdf->getRoot().isDictionary()) {
          setWhy(whyNot, "damaged file: no document catalog");
          return false;
        }
        impl.encrypted = impl.qpdf->isEncrypted();
        return true;
      },
      password, whyNot);
}

bool process(QPDF& qpdf, const char* path, const std::vector<unsigned char>& bytes,
             const std::string& password, std::string* whyNot) {
  return guarded(
      [&] {
        if (path) {
          qpdf.processInputSource(std::make_shared<PagedFileSource>(path), password.c_str());
        } else {
          qpdf.processMemoryFile("memory", reinterpret_cast<const char*>(bytes.data()), bytes.size(),
                                 password.c_str());
        }
        return true;
      },
      password, whyNot);
}

// An update whose trailer says /Prev 0 points its chain at the file header,
// and qpdf then loses every object of the older revisions.
bool brokenChain(QPDF& qpdf) {
  try {
    QPDFObjectHandle prev = qpdf.getTrailer().getKey("/Prev");
    return prev.isInteger() && prev.getIntValue() == 0;
  } catch (const std::exception&) {
    return false;
  }
}

std::vector<unsigned char> readWholeFile(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Opens the document with qpdf: from path, or else from impl.memory.
bool load(PDFDocument::Impl& impl, const char* path, const std::string& password, std::string* whyNot) {
  if (!process(*impl.qpdf, path, impl.memory, password, whyNot)) return false;
  if (!finishOpen(impl, password, whyNot)) return false;
  if (!brokenChain(*impl.qpdf)) return true;

  // Readers rebuild the cross-reference from the objects themselves in that
  // case.  qpdf does so when it finds no "startxref", so give it a copy in
  // which the keyword is spelt otherwise; offsets stay as in the file.
  impl.rebuilt = path ? readWholeFile(path) : impl.memory;
  static const char kKeyword[] = "startxref";
  const std::size_t n = sizeof kKeyword - 1;
  for (std::size_t i = 0; i + n <= impl.rebuilt.size(); ++i) {
    if (std::memcmp(impl.rebuilt.data() + i, kKeyword, n) == 0) impl.rebuilt[i + n - 1] = 'X';
  }
  auto again = std::make_unique<QPDF>();
  again->setSuppressWarnings(true);
  if (!process(*again, nullptr, impl.rebuilt, password, whyNot)) return false;
  impl.qpdf = std::move(again);
  return finishOpen(impl, password, whyNot);
}

}  // namespace

PDFDocument::Impl::Impl() {
  qpdf->setSuppressWarnings(true);
}

PDFDocument::Impl::~Impl() = default;

PDFDocument::PDFDocument(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
PDFDocument::~PDFDocument() = default;

std::unique_ptr<PDFDocument> PDFDocument::open(const std::string& path, const std::string& password,
                                               std::string* whyNot) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    setWhy(whyNot, std::strerror(errno));
    return nullptr;
  }
  if (!S_ISREG(st.st_mode)) {
    setWhy(whyNot, "not a regular file");
    return nullptr;
  }
  auto impl = std::make_unique<Impl>();
  auto file = std::make_unique<std::ifstream>(path, std::ios::binary);
  if (!*file) {
    setWhy(whyNot, std::strerror(errno ? errno : EACCES));
    return nullptr;
  }
  unsigned char head[1024];
  file->read(reinterpret_cast<char*>(head), sizeof head);
  const auto got = static_cast<std::size_t>(file->gcount());
  file->clear();
  file->seekg(0);
  if (!hasPdfHeader(head, got)) {
    setWhy(whyNot, "not a PDF file");
    return nullptr;
  }
  impl->fileSize = static_cast<std::uint64_t>(st.st_size);
  if (!load(*impl, path.c_str(), password, whyNot)) return nullptr;
  impl->path = path;
  impl->stream = std::move(file);
  return std::unique_ptr<PDFDocument>(new PDFDocument(std::move(impl)));
}

std::unique_ptr<PDFDocument> PDFDocument::openMemory(std::vector<unsigned char> bytes,
                                                     const std::string& password, std::string* whyNot) {
  if (!hasPdfHeader(bytes.data(), bytes.size())) {
    setWhy(whyNot, "not a PDF file");
    return nullptr;
  }
  // The stream buffer advances with gbump(int), so keep within int range.
  if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    setWhy(whyNot, "file too large to open from memory");
    return nullptr;
  }
  auto impl = std::make_unique<Impl>();
  impl->memory = std::move(bytes);
  impl->fileSize = impl->memory.size();
  if (!load(*impl, nullptr, password, whyNot)) return nullptr;
  impl->memoryBuf = std::make_unique<ByteViewBuf>(impl->memory.data(), impl->memory.size());
  impl->stream = std::make_unique<std::istream>(impl->memoryBuf.get());
  return std::unique_ptr<PDFDocument>(new PDFDocument(std::move(impl)));
}

// Each reader starts from a usable stream: a read that ran past the end of
// the file earlier must not blind the next one.
std::istream* PDFDocument::getIstream() {
  impl_->stream->clear();
  return impl_->stream.get();
}
std::uint64_t PDFDocument::getFileSize() const { return impl_->fileSize; }
bool PDFDocument::isEncrypted() const { return impl_->encrypted; }

PDFSmartPtr<PDFObject> PDFDocument::Impl::convert(QPDFObjectHandle h, bool top) {
  // qpdf may throw on damaged input here; callers catch.
  if (!top && h.isIndirect()) return new PDFIndirect(h.getObjectID(), h.getGeneration());
  if (h.isBool()) return new PDFBoolean(h.getBoolValue());
  if (h.isInteger()) return new PDFNumeric(h.getIntValue());
  if (h.isReal()) return new PDFNumeric(h.getNumericValue());
  if (h.isName()) return new PDFName(h.getName());
  if (h.isString()) return new PDFString(h.getStringValue());
  if (h.isArray()) {
    PDFSmartPtr<PDFArray> array(new PDFArray);
    for (auto& item : h.getArrayAsVector()) array->append(convert(item).get());
    return array;
  }
  if (h.isDictionary() || h.isStream()) {
    PDFSmartPtr<PDFDictionary> dict(h.isStream() ? new PDFStream : new PDFDictionary);
    QPDFObjectHandle d = h.isStream() ? h.getDict() : h;
    for (auto& entry : d.getDictAsMap()) {
      if (entry.second.isNull()) continue;  // a null value means the key is absent
      dict->setValue(entry.first, convert(entry.second).get());
    }
    return dict;
  }
  return new PDFNull;
}

QPDFObjectHandle PDFDocument::Impl::readAsStored(int num, int gen) {
  if (!xrefLoaded) {
    xref = qpdf->getXRefTable();
    xrefLoaded = true;
  }
  const auto it = xref.find(QPDFObjGen(num, gen));
  if (it == xref.end()) return QPDFObjectHandle::newNull();
  // Objects inside object streams are encrypted as part of their stream,
  // never string by string, so for them "as stored" is what qpdf reads.
  if (it->second.getType() != 1) return qpdf->getObjectByID(num, gen);

  if (!rawInput) {
    if (!memory.empty()) {
      rawBuffer = std::make_unique<Buffer>(const_cast<unsigned char*>(memory.data()), memory.size());
      rawInput = std::make_shared<BufferInputSource>("memory", rawBuffer.get());
    } else {
      rawInput = std::make_shared<PagedFileSource>(path);
    }
  }
  rawInput->seek(it->second.getOffset(), SEEK_SET);
  QPDFTokenizer tokenizer;
  const auto objNum = tokenizer.readToken(rawInput, "object");
  const auto genNum = tokenizer.readToken(rawInput, "object");
  const auto keyword = tokenizer.readToken(rawInput, "object");
  if (objNum.getType() != QPDFTokenizer::tt_integer || genNum.getType() != QPDFTokenizer::tt_integer ||
      keyword.getType() != QPDFTokenizer::tt_word || keyword.getValue() != "obj") {
    return QPDFObjectHandle::newNull();
  }
  bool empty = false;
  // No decrypter: strings come out exactly as the file holds them.
  return QPDFObjectHandle::parse(rawInput, "object", tokenizer, empty, nullptr, qpdf.get());
}

PDFObject* PDFDocument::Impl::object(int num, int gen, bool decrypt) {
  const bool asStored = !decrypt && encrypted;
  const auto key = std::make_tuple(num, gen, asStored);
  auto found = objects.find(key);
  if (found != objects.end()) return found->second.get();
  PDFSmartPtr<PDFObject> result;
  try {
    QPDFObjectHandle h = asStored ? readAsStored(num, gen) : qpdf->getObjectByID(num, gen);
    // The top object is converted by value, not as a reference to itself.
    result = convert(h, true);
  } catch (const std::exception&) {
    result = new PDFNull;
  }
  if (!result) result = new PDFNull;
  if (result->isA(kPDFDictionary)) static_cast<PDFDictionary*>(result.get())->setOrigin(num, gen);
  return objects.emplace(key, result).first->second.get();
}

PDFObject* PDFDocument::parseIndirectObj(PDFIndirect* ref, bool decrypt) {
  if (!ref) return nullptr;
  return impl_->object(ref->getObjNum(), ref->getGenNum(), decrypt);
}

PDFDictionary* PDFDocument::getRoot() {
  if (!impl_->rootLoaded) {
    impl_->rootLoaded = true;
    try {
      QPDFObjectHandle root = impl_->qpdf->getTrailer().getKey("/Root");
      if (root.isIndirect()) impl_->root = impl_->object(root.getObjectID(), root.getGeneration(), true);
    } catch (const std::exception&) {
    }
  }
  return impl_->root.get();
}

void PDFDocument::Impl::loadPages() {
  if (pagesLoaded) return;
  pagesLoaded = true;
  try {
    const auto& all = qpdf->getAllPages();
    for (std::size_t i = 0; i < all.size(); ++i) {
      QPDFObjectHandle page = all[i];
      pages.push_back(std::make_unique<PDFPage>(new PDFIndirect(page.getObjectID(), page.getGeneration())));
    }
  } catch (const std::exception&) {
    // A page tree qpdf can't walk has as many pages as were found.
  }
  const int count = static_cast<int>(pages.size());
  for (int i = 0; i < count; ++i) {
    try {
      auto* ref = static_cast<PDFIndirect*>(pages[i]->getPageIndObj());
      QPDFObjectHandle annots = qpdf->getObjectByID(ref->getObjNum(), ref->getGenNum()).getKey("/Annots");
      if (!annots.isArray()) continue;
      for (auto& annot : annots.getArrayAsVector()) {
        if (annot.isIndirect()) annotPage.emplace(std::make_pair(annot.getObjectID(), annot.getGeneration()), i + 1);
      }
    } catch (const std::exception&) {
    }
  }
}

int PDFDocument::getPageNum() const {
  impl_->loadPages();
  return static_cast<int>(impl_->pages.size());
}

PDFPage* PDFDocument::getPage(const int& number) {
  impl_->loadPages();
  if (number < 1 || number > static_cast<int>(impl_->pages.size())) return nullptr;
  return impl_->pages[static_cast<std::size_t>(number - 1)].get();
}

int PDFDocument::findPageOfAnnot(int objNum, int genNum) {
  impl_->loadPages();
  auto it = impl_->annotPage.find(std::make_pair(objNum, genNum));
  return it == impl_->annotPage.end() ? 0 : it->second;
}

// --- the wrapper ------------------------------------------------------------

PDFAcroform::PDFAcroform(PDFSmartPtr<PDFDictionary> dict, PDFDocument* doc) : dict_(dict), doc_(doc) {}
PDFAcroform::~PDFAcroform() = default;

void PDFAcroform::setAcroformDic(PDFDictionary* dict) { dict_ = dict; }

PDFObject* PDFAcroform::getContents(const char* key) {
  if (!dict_ || !key) return nullptr;
  return dict_->getParsedValueOf(doc_, PDFName(key));
}

PDFIndirect* PDFAcroform::getPageIndirect() const {
  if (!dict_) return nullptr;
  const PDFName kP("/P");
  PDFSmartPtr<PDFIndirect> page(dict_->getValueOf(kP));
  if (page) return page.get();

  // A field whose widgets are separate objects: the first widget that names
  // its page decides.
  std::vector<std::pair<int, int>> widgets;
  if (dict_->getObjNum() > 0) widgets.emplace_back(dict_->getObjNum(), dict_->getGenNum());
  if (doc_) {
    PDFSmartPtr<PDFArray> kids(dict_->getParsedValueOf(doc_, PDFName("/Kids")));
    for (std::size_t i = 0; kids && i < kids->size(); ++i) {
      PDFSmartPtr<PDFIndirect> kidRef(kids->getAt(i));
      if (!kidRef) continue;
      PDFSmartPtr<PDFDictionary> kid(doc_->parseIndirectObj(kidRef.get(), true));
      if (!kid) continue;
      PDFSmartPtr<PDFIndirect> kidPage(kid->getValueOf(kP));
      if (kidPage) return kidPage.get();
      widgets.emplace_back(kidRef->getObjNum(), kidRef->getGenNum());
    }
    for (const auto& w : widgets) {
      const int number = doc_->findPageOfAnnot(w.first, w.second);
      if (number > 0) return static_cast<PDFIndirect*>(doc_->getPage(number)->getPageIndObj());
    }
  }
  return nullptr;
}

void PDFAcroform::getByteRange(long& offset1, long& length1, long& offset2, long& length2) {
  offset1 = length1 = offset2 = length2 = -1;
  if (!dict_) return;
  PDFSmartPtr<PDFArray> range(dict_->getParsedValueOf(doc_, PDFName("/ByteRange")));
  if (!range || range->size() != 4) return;
  long values[4];
  for (std::size_t i = 0; i < 4; ++i) {
    PDFObject* item = range->getAt(i);
    if (item && item->isA(kPDFIndirect) && doc_) item = doc_->parseIndirectObj(static_cast<PDFIndirect*>(item), true);
    PDFSmartPtr<PDFNumeric> number(item);
    if (!number || !number->isInteger()) return;
    const long v = number->getInt();
    if (v < std::numeric_limits<std::int32_t>::min() || v > std::numeric_limits<std::int32_t>::max()) return;
    values[i] = v;
  }
  offset1 = values[0];
  length1 = values[1];
  offset2 = values[2];
  length2 = values[3];
}

}  // namespace PDF_Vellum
