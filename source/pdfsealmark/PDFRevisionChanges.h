// What each incremental update of a PDF file changed.
//
// A signed PDF grows by incremental updates: each appends new versions of
// some objects and a cross-reference section that lists them, and ends with
// "%%EOF".  A signature seals the revision it ends with; whatever later
// updates replace is outside it.  This class reads the cross-reference data
// as it stood at the end of each revision (through qpdf) and compares it with
// the revision before, so it can say, per revision, which objects were added
// or replaced, and what they are: the catalog, a page, an annotation on
// page 2, the form field "Name".
//
//   PDF_Sealmark::PDFRevisionChanges::Result changes;
//   std::string why;
//   if (PDF_Sealmark::PDFRevisionChanges::read("signed.pdf", "", changes, &why)) {
//     for (const auto& r : changes.revisions)
//       std::cout << r.end << ": " << r.added << " added, " << r.replaced << " replaced\n";
//   }
//
// The work is bounded for hostile files: at most Options::maxRevisions
// revisions are compared (the first and the latest ones), and at most
// Options::maxObjects objects of each are looked at and listed; the counts
// cover all of them.  It reads, it does not judge: whether a change was
// allowed after a signature is the verifier's question.
#ifndef PDFSEALMARK_PDFREVISIONCHANGES_H
#define PDFSEALMARK_PDFREVISIONCHANGES_H

#include <cstdint>
#include <string>
#include <vector>

#include "pdfsealmark/PDFSealmarkExport.h"

namespace PDF_Sealmark {

class PDFSEALMARK_API PDFRevisionChanges {
 public:
  enum class Kind {
    kOther,           // anything below; see type and subtype
    kCatalog,         // the document catalog (/Root)
    kPageTree,        // /Type /Pages
    kPage,            // /Type /Page
    kAnnotation,      // /Type /Annot, or a dictionary with /Subtype and /Rect
    kFormField,       // a dictionary with /FT (a widget that is also its field too)
    kSignatureValue,  // /Type /Sig or /DocTimeStamp: a signature dictionary
    kAcroForm,        // the catalog's /AcroForm
    kSecurityStore,   // the catalog's /DSS (validation data)
    kInfo,            // the trailer's /Info
    kXRefStream,      // /Type /XRef
    kObjectStream,    // /Type /ObjStm
  };

  // One object that an update added or replaced, as that revision has it.
  struct PDFSEALMARK_API Object {
    int number = 0;
    int generation = 0;
    // An earlier revision had an object of this number.
    bool replaces = false;
    Kind kind = Kind::kOther;
    std::string type;     // /Type as stored ("/Annot"); empty when absent
    std::string subtype;  // /Subtype ("/Widget", "/Form"); empty when absent
    bool stream = false;
    // A page's number, or the page an annotation or widget is on (its /P,
    // else the page whose /Annots holds it); 0 when unknown.
    int page = 0;
    // A form field's /T, as UTF-8, cut to 200 bytes.
    std::string name;
    // The object stream that holds it; 0 when it stands on its own.
    int objectStream = 0;
    // The object could not be read.
    bool unreadable = false;
  };

  struct PDFSEALMARK_API Revision {
    Revision();
    ~Revision();
    Revision(const Revision&);
    Revision& operator=(const Revision&);

    // Bytes [start, end) of the file.
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    // False for bytes after the last "%%EOF": no marker ends them.
    bool marked = true;
    // Compared with the revision before; false when it was left out to bound
    // the work (then nothing below is known).
    bool compared = false;
    // Its cross-reference data could be read as the file stood at its end.
    // A revision that can't be (the first-page section of a linearized file,
    // a damaged update) has its changes counted in the next one that can.
    bool readable = false;
    std::string problem;  // why not, when not
    // The revision the objects are compared with: the last readable one
    // before; -1 when there is none, so that every object counts as added.
    int base = -1;
    std::size_t added = 0;     // in use now, no object of that number in base
    std::size_t replaced = 0;  // in use in both, with another entry now
    std::size_t freed = 0;     // in use in base, not any more
    // The first Options::maxObjects of the added and replaced ones, by number.
    std::vector<Object> objects;
  };

  struct PDFSEALMARK_API Result {
    Result();
    ~Result();
    Result(const Result&);
    Result& operator=(const Result&);

    std::uint64_t fileSize = 0;
    // One per revision, oldest first: one per revision end, and one more for
    // bytes after the last "%%EOF" when there are any.
    std::vector<Revision> revisions;
  };

  struct PDFSEALMARK_API Options {
    Options();
    ~Options();
    Options(const Options&);
    Options& operator=(const Options&);

    // Where revisions end, as PDFDocumentCheck::Result::revisionEnds gives
    // them; when empty, found with the same rule ("%%EOF" followed by CR LF,
    // LF, CR or the end of the file).
    std::vector<std::uint64_t> revisionEnds;
    // Revisions compared: the first one and the latest maxRevisions - 1.
    std::size_t maxRevisions = 48;
    // Objects per revision looked at and listed.
    std::size_t maxObjects = 400;
  };

  // False, with `why`, only when the file can't be read at all; revisions
  // whose cross-reference data is damaged are results.
  static bool read(const std::string& path, const std::string& password, Result& result, std::string* why,
                   const Options& options = Options());
  static bool readMemory(std::vector<unsigned char> bytes, const std::string& password, Result& result,
                         std::string* why, const Options& options = Options());
};

}  // namespace PDF_Sealmark

#endif
