// PDF objects and documents.
//
// A PDFDocument is opened from a file or from memory, with an optional
// password.  Its objects come out as reference-counted PDFObject values; an
// indirect reference stays a PDFIndirect until the caller resolves it with
// parseIndirectObj.  Raw PDFObject* results are borrowed: the document (or
// the container they came from) keeps them alive for as long as it lives.
//
//   std::string why;
//   auto doc = PDF_Vellum::PDFDocument::open("signed.pdf", "", &why);
//   if (!doc) { std::cerr << why << "\n"; return; }
//   PDF_Vellum::PDFSmartPtr<PDF_Vellum::PDFDictionary> root(doc->getRoot());
//
// Damaged objects never throw out of this layer: they read as null.
#ifndef PDFSEALMARK_PDFVELLUM_H
#define PDFSEALMARK_PDFVELLUM_H

#include <cstdint>
#include <istream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "pdfsealmark/PDFSealmarkExport.h"

namespace PDF_Vellum {

enum ObjType {
  kPDFAnyObject = -1,  // what PDFSmartPtr<PDFObject> accepts: everything
  kPDFNull = 0,
  kPDFBoolean = 1,
  kPDFNumeric = 2,
  kPDFString = 3,
  kPDFName = 4,
  kPDFStream = 5,
  kPDFArray = 6,
  kPDFDictionary = 7,
  kPDFIndirect = 10,
};

class PDFDocument;

// Base of all objects: an intrusive count that starts at 0.
class PDFSEALMARK_API PDFRCObject {
 public:
  PDFRCObject(const PDFRCObject&) = delete;
  PDFRCObject& operator=(const PDFRCObject&) = delete;
  int addRef() const;
  // The release that reaches 0 deletes the object.
  int release() const;
  virtual bool isA(ObjType type) const = 0;

 protected:
  PDFRCObject() = default;
  virtual ~PDFRCObject();

 private:
  mutable int refCount_ = 0;
};

class PDFSEALMARK_API PDFObject : public PDFRCObject {
 public:
  static ObjType getStaticType() { return kPDFAnyObject; }
  virtual ObjType getType() const = 0;
  bool isA(ObjType type) const override;
  // Strings and names answer with their bytes (a name with its "/"); every
  // other object answers null and 0.
  virtual const char* getString() const;
  virtual long getLenth() const;
};

// Holds one counted reference.  Built or assigned from a PDFObject*, it keeps
// the pointer only when the object is a T; otherwise it holds null.
template <class T>
class PDFSmartPtr {
 public:
  PDFSmartPtr() = default;
  PDFSmartPtr(PDFObject* p) { reset(p); }  // NOLINT: implicit by design
  PDFSmartPtr(const PDFSmartPtr& other) { reset(other.ptr_); }
  template <class U>
  PDFSmartPtr(const PDFSmartPtr<U>& other) {  // NOLINT
    reset(other.get());
  }
  PDFSmartPtr& operator=(const PDFSmartPtr& other) {
    reset(other.ptr_);
    return *this;
  }
  PDFSmartPtr& operator=(PDFObject* p) {
    reset(p);
    return *this;
  }
  ~PDFSmartPtr() { reset(nullptr); }

  T* get() const { return ptr_; }
  T* operator->() const { return ptr_; }
  T& operator*() const { return *ptr_; }
  explicit operator bool() const { return ptr_ != nullptr; }

 private:
  void reset(PDFObject* p) {
    const bool fits = p && (T::getStaticType() == kPDFAnyObject || p->isA(T::getStaticType()));
    T* next = fits ? static_cast<T*>(p) : nullptr;
    if (next) next->addRef();
    T* old = ptr_;
    ptr_ = next;
    if (old) old->release();
  }
  T* ptr_ = nullptr;
};

class PDFSEALMARK_API PDFNull : public PDFObject {
 public:
  static ObjType getStaticType() { return kPDFNull; }
  ObjType getType() const override { return kPDFNull; }
};

class PDFSEALMARK_API PDFBoolean : public PDFObject {
 public:
  explicit PDFBoolean(bool value) : value_(value) {}
  static ObjType getStaticType() { return kPDFBoolean; }
  ObjType getType() const override { return kPDFBoolean; }
  bool getValue() const { return value_; }

 private:
  bool value_;
};

// An integer or a real number.
class PDFSEALMARK_API PDFNumeric : public PDFObject {
 public:
  explicit PDFNumeric(long long value) : int_(value), real_(static_cast<double>(value)), isInt_(true) {}
  explicit PDFNumeric(double value) : int_(truncate(value)), real_(value), isInt_(false) {}
  static ObjType getStaticType() { return kPDFNumeric; }
  ObjType getType() const override { return kPDFNumeric; }
  // A real answers its value truncated toward zero.
  long getInt() const { return static_cast<long>(int_); }
  double getReal() const { return real_; }
  bool isInteger() const { return isInt_; }

 private:
  // Toward zero, saturating; not-a-number gives 0.  A file may hold any real.
  static long long truncate(double v) {
    if (!(v == v)) return 0;
    if (v >= 9.2e18) return 9200000000000000000LL;
    if (v <= -9.2e18) return -9200000000000000000LL;
    return static_cast<long long>(v);
  }
  long long int_;
  double real_;
  bool isInt_;
};

class PDFSEALMARK_API PDFString : public PDFObject {
 public:
  explicit PDFString(std::string bytes) : bytes_(std::move(bytes)) {}
  static ObjType getStaticType() { return kPDFString; }
  ObjType getType() const override { return kPDFString; }
  const char* getString() const override { return bytes_.data(); }
  long getLenth() const override { return static_cast<long>(bytes_.size()); }

 private:
  std::string bytes_;
};

// A name; its text carries the leading "/".
class PDFSEALMARK_API PDFName : public PDFObject {
 public:
  explicit PDFName(const char* text) : text_(text ? text : "") {}
  explicit PDFName(std::string text) : text_(std::move(text)) {}
  static ObjType getStaticType() { return kPDFName; }
  ObjType getType() const override { return kPDFName; }
  const char* getString() const override { return text_.c_str(); }
  long getLenth() const override { return static_cast<long>(text_.size()); }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

class PDFSEALMARK_API PDFIndirect : public PDFObject {
 public:
  PDFIndirect(int objNum, int genNum) : objNum_(objNum), genNum_(genNum) {}
  static ObjType getStaticType() { return kPDFIndirect; }
  ObjType getType() const override { return kPDFIndirect; }
  int getObjNum() const { return objNum_; }
  int getGenNum() const { return genNum_; }

 private:
  int objNum_;
  int genNum_;
};

class PDFSEALMARK_API PDFArray : public PDFObject {
 public:
  static ObjType getStaticType() { return kPDFArray; }
  ObjType getType() const override { return kPDFArray; }
  std::size_t size() const { return items_.size(); }
  // Borrowed; null past the end.
  PDFObject* getAt(std::size_t index) const;
  void append(PDFObject* item);

 private:
  std::vector<PDFSmartPtr<PDFObject>> items_;
};

class PDFSEALMARK_API PDFDictionary : public PDFObject {
 public:
  static ObjType getStaticType() { return kPDFDictionary; }
  ObjType getType() const override { return kPDFDictionary; }

  // The value as stored (a reference stays one), borrowed; null when absent.
  PDFObject* getValueOf(const PDFName& key) const;
  // The same, with a reference resolved through doc (strings decrypted).
  PDFObject* getParsedValueOf(PDFDocument* doc, const PDFName& key) const;
  void setValue(const std::string& key, PDFObject* value);
  const std::map<std::string, PDFSmartPtr<PDFObject>>& entries() const { return entries_; }

  // Object number and generation when the dictionary was read as an
  // indirect object, else 0 and 0.
  int getObjNum() const { return objNum_; }
  int getGenNum() const { return genNum_; }
  void setOrigin(int objNum, int genNum) {
    objNum_ = objNum;
    genNum_ = genNum;
  }

 private:
  std::map<std::string, PDFSmartPtr<PDFObject>> entries_;
  int objNum_ = 0;
  int genNum_ = 0;
};

// A stream is seen through its dictionary; the data isn't loaded.
class PDFSEALMARK_API PDFStream : public PDFDictionary {
 public:
  static ObjType getStaticType() { return kPDFStream; }
  ObjType getType() const override { return kPDFStream; }
  // A stream is also a dictionary, so PDFSmartPtr<PDFDictionary> keeps it.
  bool isA(ObjType type) const override { return type == kPDFStream || type == kPDFDictionary; }
};

class PDFSEALMARK_API PDFPage {
 public:
  explicit PDFPage(PDFIndirect* ref) : ref_(ref) {}
  // The page's own reference, as a PDFIndirect; borrowed.
  PDFObject* getPageIndObj() const { return ref_.get(); }

 private:
  PDFSmartPtr<PDFIndirect> ref_;
};

class PDFSEALMARK_API PDFDocument {
 public:
  // Opens a document.  On failure gives null and, when whyNot is given, a
  // short reason ("no such file", "not a PDF file", "damaged file",
  // "password required", "wrong password", ...).  An empty password tries
  // the empty user password.
  static std::unique_ptr<PDFDocument> open(const std::string& path, const std::string& password,
                                           std::string* whyNot = nullptr);
  static std::unique_ptr<PDFDocument> openMemory(std::vector<unsigned char> bytes,
                                                 const std::string& password,
                                                 std::string* whyNot = nullptr);
  ~PDFDocument();
  PDFDocument(const PDFDocument&) = delete;
  PDFDocument& operator=(const PDFDocument&) = delete;

  // The whole file as a seekable stream.  Its read position is shared by
  // everyone who reads the document.
  std::istream* getIstream();
  // Size of the file in bytes.
  std::uint64_t getFileSize() const;
  bool isEncrypted() const;

  // The object behind a reference; with decrypt true its strings are
  // decrypted, with false they are left as stored in the file.  Borrowed,
  // owned by the document; null for a null argument.  A missing or damaged
  // object reads as PDFNull.
  PDFObject* parseIndirectObj(PDFIndirect* ref, bool decrypt);
  int getPageNum() const;
  // Pages are numbered from 1; null outside 1..getPageNum().
  PDFPage* getPage(const int& number);
  // The trailer's /Root, resolved; null when there is none.
  PDFDictionary* getRoot();

  // 1-based number of the page whose /Annots holds the annotation with this
  // object number, or 0.
  int findPageOfAnnot(int objNum, int genNum);

  struct Impl;
  Impl* impl() const { return impl_.get(); }

 private:
  explicit PDFDocument(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// Wraps one dictionary (a form field, or a signature dictionary) together
// with its document.
class PDFSEALMARK_API PDFAcroform {
 public:
  PDFAcroform(PDFSmartPtr<PDFDictionary> dict, PDFDocument* doc);
  virtual ~PDFAcroform();

  PDFDocument* getDoc() const { return doc_; }
  PDFSmartPtr<PDFDictionary> getAcroformDic() const { return dict_; }
  void setAcroformDic(PDFDictionary* dict);
  // The key's value, a reference resolved; null when absent.  Borrowed.
  PDFObject* getContents(const char* key);
  // The reference of the page the field lies on: the widget's /P, or else
  // the page whose /Annots holds the widget; null when neither.  Borrowed.
  PDFIndirect* getPageIndirect() const;
  // The four numbers of /ByteRange in file order.  All four are always
  // written; a missing or malformed entry (not four integers in the 32-bit
  // range) gives -1 for each.
  void getByteRange(long& offset1, long& length1, long& offset2, long& length2);

 private:
  PDFSmartPtr<PDFDictionary> dict_;
  PDFDocument* doc_;
};

}  // namespace PDF_Vellum

#endif
