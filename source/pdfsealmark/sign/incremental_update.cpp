#include "pdfsealmark/sign/incremental_update.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <qpdf/QPDFExc.hh>
#include <set>
#include <stdexcept>

namespace PDF_Sealmark {
namespace sign {

namespace {

// One line, whatever qpdf's message holds.
void setWhy(std::string* why, std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::replace(text.begin(), text.end(), '\r', ' ');
  if (why) *why = text;
}

// Room for "0 A B C" with offsets of up to twelve digits each.
constexpr std::size_t kByteRangeSlot = 48;
// Fields nest through /Kids; deeper trees than this are not forms anyone made.
constexpr int kMaxFieldDepth = 64;

// A PDF text string: PDFDocEncoding when it can hold the text, else UTF-16BE
// with a byte order mark.
std::string textString(const std::string& utf8) {
  return QPDFObjectHandle::newUnicodeString(utf8).getStringValue();
}

bool isSpace(unsigned char c) {
  return c == ' ' || c == '\r' || c == '\n' || c == '\t' || c == '\f' || c == 0;
}

// The offset after the last "startxref", or -1.
std::int64_t lastStartXref(const std::vector<unsigned char>& bytes) {
  static const char kKeyword[] = "startxref";
  const std::size_t n = sizeof kKeyword - 1;
  if (bytes.size() < n) return -1;
  for (std::size_t i = bytes.size() - n + 1; i-- > 0;) {
    if (std::memcmp(bytes.data() + i, kKeyword, n) != 0) continue;
    std::size_t at = i + n;
    while (at < bytes.size() && isSpace(bytes[at])) ++at;
    std::int64_t value = 0;
    std::size_t digits = 0;
    while (at < bytes.size() && bytes[at] >= '0' && bytes[at] <= '9' && digits < 15) {
      value = value * 10 + (bytes[at++] - '0');
      ++digits;
    }
    return digits ? value : -1;
  }
  return -1;
}

struct FieldInfo {
  std::string name;
  QPDFObjectHandle node;
  std::string type;
  bool terminal = true;
};

void collectFields(QPDFObjectHandle node, const std::string& parent, const std::string& inheritedType,
                   std::set<QPDFObjGen>& seen, std::vector<FieldInfo>& out, int depth) {
  if (depth > kMaxFieldDepth || !node.isDictionary()) return;
  if (node.isIndirect() && !seen.insert(node.getObjGen()).second) return;
  QPDFObjectHandle title = node.getKey("/T");
  std::string name = parent;
  if (title.isString()) name = parent.empty() ? title.getUTF8Value() : parent + "." + title.getUTF8Value();
  QPDFObjectHandle ft = node.getKey("/FT");
  const std::string type = ft.isName() ? ft.getName() : inheritedType;
  bool terminal = true;
  QPDFObjectHandle kids = node.getKey("/Kids");
  if (kids.isArray()) {
    for (QPDFObjectHandle kid : kids.getArrayAsVector()) {
      // Kids without /T are the field's widgets, not fields.
      if (kid.isDictionary() && kid.getKey("/T").isString()) terminal = false;
      collectFields(kid, name, type, seen, out, depth + 1);
    }
  }
  if (title.isString()) out.push_back({name, node, type, terminal});
}

std::vector<FieldInfo> allFields(QPDF& qpdf) {
  std::vector<FieldInfo> out;
  std::set<QPDFObjGen> seen;
  QPDFObjectHandle fields = qpdf.getRoot().getKey("/AcroForm").getKey("/Fields");
  if (fields.isArray()) {
    for (const QPDFObjectHandle& field : fields.getArrayAsVector())
      collectFields(field, "", "", seen, out, 0);
  }
  return out;
}

std::string objectText(QPDFObjGen og, const std::string& body) {
  return std::to_string(og.getObj()) + " " + std::to_string(og.getGen()) + " obj\n" + body + "\nendobj\n";
}

}  // namespace

IncrementalUpdate::IncrementalUpdate() = default;
IncrementalUpdate::~IncrementalUpdate() = default;

bool IncrementalUpdate::open(const Bytes& input, const std::string& password, std::string* why) {
  input_ = &input;
  qpdf_ = std::make_unique<QPDF>();
  qpdf_->setSuppressWarnings(true);
  // The update chains to the file's own cross-reference: a file that qpdf
  // can read only by rebuilding it has none to chain to.
  qpdf_->setAttemptRecovery(false);
  try {
    qpdf_->processMemoryFile("input", reinterpret_cast<const char*>(input.data()), input.size(),
                             password.c_str());
    if (!qpdf_->getRoot().isDictionary() || !qpdf_->getRoot().isIndirect()) {
      setWhy(why, "damaged file: no document catalog");
      return false;
    }
    QPDFObjectHandle size = qpdf_->getTrailer().getKey("/Size");
    if (!size.isInteger() || size.getIntValue() < 1 || size.getIntValue() > 8388607) {
      setWhy(why, "damaged file: no usable /Size in the trailer");
      return false;
    }
    // New objects take numbers from /Size on; a file whose /Size is too
    // small would have them collide with its own.
    const std::size_t highest = qpdf_->getObjectCount();
    size_ = static_cast<int>(std::max<long long>(size.getIntValue(), static_cast<long long>(highest) + 1));
    if (!cipher_.init(*qpdf_, why)) return false;
  } catch (const QPDFExc& e) {
    if (e.getErrorCode() == qpdf_e_password) {
      setWhy(why, password.empty() ? "password required" : "wrong password");
    } else {
      setWhy(why, "damaged file: " + e.getMessageDetail());
    }
    return false;
  } catch (const std::exception& e) {
    setWhy(why, std::string("damaged file: ") + e.what());
    return false;
  }

  prevXref_ = lastStartXref(input);
  if (prevXref_ <= 0 || static_cast<std::size_t>(prevXref_) >= input.size()) {
    setWhy(why, "damaged file: no startxref");
    return false;
  }
  std::size_t at = static_cast<std::size_t>(prevXref_);
  while (at < input.size() && isSpace(input[at])) ++at;
  xrefStream_ = !(input.size() - at >= 4 && std::memcmp(input.data() + at, "xref", 4) == 0);
  return true;
}

bool IncrementalUpdate::findField(const std::string& name, std::string* why) {
  for (FieldInfo field : allFields(*qpdf_)) {
    if (field.name != name) continue;
    if (!field.terminal || field.type != "/Sig" || !field.node.isIndirect()) {
      setWhy(why, "field " + name + " is not a signature field");
      return false;
    }
    if (!field.node.getKey("/V").isNull()) {
      setWhy(why, "field " + name + " is already signed");
      return false;
    }
    existing_ = field.node;
    return true;
  }
  // No such field: a new one of that name.  Its /T is one partial name.
  if (name.find('.') != std::string::npos) {
    setWhy(why, "no field " + name + " (a new field's name can't contain '.')");
    return false;
  }
  return true;
}

bool IncrementalUpdate::plan(const SignatureRequest& request, std::string* why) {
  request_ = request;
  existing_ = QPDFObjectHandle();
  if (request.certify < 0 || request.certify > 3) {
    setWhy(why, "certification level must be 1, 2 or 3");
    return false;
  }
  try {
    if (!request.fieldName.empty()) {
      if (!findField(request.fieldName, why)) return false;
      fieldName_ = request.fieldName;
    } else {
      std::set<std::string> taken;
      for (const FieldInfo& field : allFields(*qpdf_)) taken.insert(field.name);
      for (int n = 1;; ++n) {
        fieldName_ = "Signature" + std::to_string(n);
        if (!taken.count(fieldName_)) break;
      }
    }
    if (existing_.isInitialized()) return true;
    const std::vector<QPDFObjectHandle>& pages = qpdf_->getAllPages();
    if (request.page < 1 || static_cast<std::size_t>(request.page) > pages.size()) {
      setWhy(why, "page " + std::to_string(request.page) + " doesn't exist (the document has " +
                      std::to_string(pages.size()) + ")");
      return false;
    }
    page_ = pages[static_cast<std::size_t>(request.page - 1)];
  } catch (const std::exception& e) {
    setWhy(why, std::string("damaged file: ") + e.what());
    return false;
  }
  return true;
}

std::string IncrementalUpdate::sigDictionary(QPDFObjGen owner, std::size_t reserved, std::size_t& byteRangeAt,
                                             std::size_t& contentsAt) const {
  ObjectWriter writer(&cipher_);
  std::string s = "<</Type" + request_.type + "/Filter/Adobe.PPKLite/SubFilter" + request_.subFilter;
  if (!request_.date.empty()) s += "/M " + writer.string(request_.date, owner);
  if (!request_.reason.empty()) s += "/Reason " + writer.string(textString(request_.reason), owner);
  if (!request_.location.empty()) s += "/Location " + writer.string(textString(request_.location), owner);
  if (request_.certify) {
    s += "/Reference[<</Type/SigRef/TransformMethod/DocMDP/TransformParams<</Type/TransformParams/P " +
         std::to_string(request_.certify) + "/V/1.2>>>>]";
  }
  s += "/ByteRange[";
  byteRangeAt = s.size();
  s += std::string(kByteRangeSlot, ' ') + "]/Contents<";
  contentsAt = s.size();
  s += std::string(2 * reserved, '0') + ">>>";
  return s;
}

bool IncrementalUpdate::build(std::size_t reserved, Bytes& out, std::string* why) {
  out.clear();
  try {
    ObjectWriter writer(&cipher_);
    ObjectWriter clear(nullptr);
    int next = size_;
    const QPDFObjGen sigRef(next++, 0);
    const bool newField = !existing_.isInitialized();
    const QPDFObjGen fieldRef = newField ? QPDFObjGen(next++, 0) : existing_.getObjGen();
    const std::string fieldRefText = reference(fieldRef);

    // Object number -> body.  An object the plan touches twice would need
    // both changes merged; no document made by a PDF writer does that.
    std::map<QPDFObjGen, std::string> objects;
    std::size_t byteRangeAt = 0;
    std::size_t contentsInSig = 0;
    objects[sigRef] = sigDictionary(sigRef, reserved, byteRangeAt, contentsInSig);
    auto put = [&](QPDFObjGen og, std::string body) {
      if (!objects.emplace(og, std::move(body)).second) {
        throw std::runtime_error("object " + std::to_string(og.getObj()) + " would be rewritten twice");
      }
    };

    if (newField) {
      put(fieldRef, "<</Type/Annot/Subtype/Widget/FT/Sig/T " +
                        writer.string(textString(fieldName_), fieldRef) + "/V " + reference(sigRef) +
                        "/Rect[0 0 0 0]/F 132/P " + reference(page_.getObjGen()) + ">>");
      QPDFObjectHandle annots = page_.getKey("/Annots");
      if (annots.isArray() && annots.isIndirect()) {
        put(annots.getObjGen(), writer.arrayWith(annots, annots.getObjGen(), fieldRefText));
      } else {
        const std::string list = annots.isArray() ? writer.arrayWith(annots, page_.getObjGen(), fieldRefText)
                                                  : "[" + fieldRefText + "]";
        put(page_.getObjGen(), writer.dict(page_, page_.getObjGen(), {{"/Annots", list}}));
      }
    } else {
      put(fieldRef, writer.dict(existing_, fieldRef, {{"/V", reference(sigRef)}}));
    }

    QPDFObjectHandle root = qpdf_->getRoot();
    const QPDFObjGen rootRef = root.getObjGen();
    ObjectWriter::Overrides catalog;
    QPDFObjectHandle form = root.getKey("/AcroForm");
    const bool formObject = form.isDictionary() && form.isIndirect();
    const QPDFObjGen formOwner = formObject ? form.getObjGen() : rootRef;
    ObjectWriter::Overrides formChanges;
    QPDFObjectHandle flags = form.isDictionary() ? form.getKey("/SigFlags") : QPDFObjectHandle();
    formChanges["/SigFlags"] = std::to_string((flags.isInteger() ? flags.getIntValue() : 0) | 3);
    if (newField) {
      QPDFObjectHandle fields = form.isDictionary() ? form.getKey("/Fields") : QPDFObjectHandle();
      if (fields.isArray() && fields.isIndirect()) {
        put(fields.getObjGen(), writer.arrayWith(fields, fields.getObjGen(), fieldRefText));
      } else {
        formChanges["/Fields"] =
            fields.isArray() ? writer.arrayWith(fields, formOwner, fieldRefText) : "[" + fieldRefText + "]";
      }
    }
    if (formObject) {
      put(form.getObjGen(), writer.dict(form, form.getObjGen(), formChanges));
    } else {
      catalog["/AcroForm"] = writer.dict(form, rootRef, formChanges);
    }
    if (request_.certify) {
      QPDFObjectHandle perms = root.getKey("/Perms");
      catalog["/Perms"] = writer.dict(perms, rootRef, {{"/DocMDP", reference(sigRef)}});
    }
    if (!catalog.empty()) put(rootRef, writer.dict(root, rootRef, catalog));

    // --- the bytes -------------------------------------------------------------
    const Bytes& input = *input_;
    const std::size_t base = input.size();
    std::string body;
    if (base == 0 || (input.back() != '\n' && input.back() != '\r')) body = "\r\n";
    std::map<QPDFObjGen, std::size_t> offsets;
    std::size_t sigAt = 0;
    for (const auto& object : objects) {
      offsets[object.first] = base + body.size();
      if (object.first == sigRef) {
        sigAt = body.size() + std::to_string(sigRef.getObj()).size() + std::strlen(" 0 obj\n");
      }
      body += objectText(object.first, object.second);
    }

    QPDFObjectHandle trailer = qpdf_->getTrailer();
    std::string trailerKeys;
    for (const char* key : {"/Root", "/Info", "/ID", "/Encrypt"}) {
      QPDFObjectHandle value = trailer.getKey(key);
      if (!value.isNull()) trailerKeys += std::string(key) + " " + clear.value(value, QPDFObjGen());
    }
    trailerKeys += "/Prev " + std::to_string(prevXref_);

    std::size_t xrefAt = base + body.size();
    if (!xrefStream_) {
      body += "xref\n";
      for (auto it = offsets.begin(); it != offsets.end();) {
        auto end = it;
        int count = 0;
        while (end != offsets.end() && end->first.getObj() == it->first.getObj() + count) ++end, ++count;
        body += std::to_string(it->first.getObj()) + " " + std::to_string(count) + "\n";
        for (; it != end; ++it) {
          char entry[32];
          std::snprintf(entry, sizeof entry, "%010llu %05d n\r\n",
                        static_cast<unsigned long long>(it->second), it->first.getGen());
          body += entry;
        }
      }
      body += "trailer\n<</Size " + std::to_string(next) + trailerKeys + ">>\n";
    } else {
      const QPDFObjGen xrefRef(next++, 0);
      offsets[xrefRef] = xrefAt;
      const int width = xrefAt > 0xffffffffu ? 8 : 4;
      std::string data;
      std::string index;
      for (auto it = offsets.begin(); it != offsets.end();) {
        auto end = it;
        int count = 0;
        while (end != offsets.end() && end->first.getObj() == it->first.getObj() + count) ++end, ++count;
        index += std::to_string(it->first.getObj()) + " " + std::to_string(count) + " ";
        for (; it != end; ++it) {
          data += '\x01';
          for (int b = width - 1; b >= 0; --b) data += static_cast<char>((it->second >> (8 * b)) & 0xff);
          data += static_cast<char>((it->first.getGen() >> 8) & 0xff);
          data += static_cast<char>(it->first.getGen() & 0xff);
        }
      }
      index.pop_back();
      // Cross-reference streams are never encrypted (ISO 32000-1, 7.5.8.2).
      body +=
          objectText(xrefRef, "<</Type/XRef/Size " + std::to_string(next) + "/Index[" + index + "]/W[1 " +
                                  std::to_string(width) + " 2]" + trailerKeys + "/Length " +
                                  std::to_string(data.size()) + ">>\nstream\r\n" + data + "\r\nendstream");
    }
    body += "startxref\n" + std::to_string(xrefAt) + "\n%%EOF\r\n";

    // The signed ranges: everything but the hex string with its brackets.
    const std::size_t open = base + sigAt + contentsInSig - 1;
    const std::size_t close = base + sigAt + contentsInSig + 2 * reserved + 1;
    const std::size_t total = base + body.size();
    range[0] = 0;
    range[1] = static_cast<std::int64_t>(open);
    range[2] = static_cast<std::int64_t>(close);
    range[3] = static_cast<std::int64_t>(total - close);
    std::string numbers =
        "0 " + std::to_string(range[1]) + " " + std::to_string(range[2]) + " " + std::to_string(range[3]);
    if (numbers.size() > kByteRangeSlot) throw std::runtime_error("file too large");
    body.replace(sigAt + byteRangeAt, numbers.size(), numbers);
    contentsAt = open + 1;

    out.reserve(total);
    out.assign(input.begin(), input.end());
    out.insert(out.end(), body.begin(), body.end());
  } catch (const std::exception& e) {
    out.clear();
    setWhy(why, std::string("can't write the update: ") + e.what());
    return false;
  }
  return true;
}

}  // namespace sign
}  // namespace PDF_Sealmark
