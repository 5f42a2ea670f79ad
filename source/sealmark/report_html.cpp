// The HTML of `sealmark report`.  Everything is inline (CSS, SVG), nothing
// runs and nothing is fetched; the page's Content-Security-Policy says so to
// the browser as well.  Every text that comes from the file goes through
// text(), which makes it valid UTF-8 and escapes it.  Long lists are cut so
// that a hostile file still gives a page of bounded size.
#include "report_html.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>
#include <vector>

namespace sealmark {

namespace {

using Changes = PDF_Sealmark::PDFRevisionChanges;
using Kind = Changes::Kind;

// Bounds on what one page shows.
constexpr std::size_t kMaxSignatures = 100;  // bars and cards
constexpr std::size_t kMaxSegments = 60;     // revisions drawn one by one
constexpr std::size_t kMaxRows = 60;         // objects listed per revision
constexpr std::size_t kMaxJsonItems = 20;    // array items on a card
constexpr double kWidth = 1000;              // of the bars, in SVG units

std::string text(const std::string& raw) {
  const std::string valid = toValidUtf8(raw);
  std::string out;
  out.reserve(valid.size());
  for (char c : valid) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        // Control characters are no text; they would only confuse a reader.
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r') {
          out += "\xEF\xBF\xBD";
        } else {
          out += c;
        }
    }
  }
  return out;
}

// 1234567 as "1,234,567".
std::string number(std::uint64_t n) {
  std::string digits = std::to_string(n), out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return out;
}

std::string plural(std::size_t n, const std::string& one, const std::string& many) {
  return number(n) + " " + (n == 1 ? one : many);
}

std::string fixed(double v) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.1f", v);
  return buffer;
}

// "20240315120000Z" as "2024-03-15 12:00:00Z".
std::string displayTime(const std::string& s) {
  if (s.size() != 15) return s;
  return s.substr(0, 4) + "-" + s.substr(4, 2) + "-" + s.substr(6, 2) + " " + s.substr(8, 2) + ":" +
         s.substr(10, 2) + ":" + s.substr(12, 2) + "Z";
}

std::string quoted(const std::string& name) { return "\xE2\x80\x9C" + name + "\xE2\x80\x9D"; }

// --- what the objects are ----------------------------------------------------

std::string describe(const Changes::Object& o) {
  auto onPage = [&](const std::string& what) {
    return o.page ? what + " on page " + std::to_string(o.page) : what;
  };
  std::string what;
  switch (o.kind) {
    case Kind::kCatalog:
      what = "document catalog";
      break;
    case Kind::kPageTree:
      what = "page tree";
      break;
    case Kind::kPage:
      what = o.page ? "page " + std::to_string(o.page) : "page (not in the page tree)";
      break;
    case Kind::kAnnotation:
      what = onPage((o.subtype.empty() ? std::string("") : o.subtype.substr(1) + " ") + "annotation");
      break;
    case Kind::kFormField:
      what = "form field " + quoted(o.name);
      if (o.subtype == "/Widget") what += onPage(" with its widget");
      break;
    case Kind::kSignatureValue:
      what = o.type == "/DocTimeStamp" ? "document time stamp value" : "signature value";
      break;
    case Kind::kAcroForm:
      what = "interactive form (/AcroForm)";
      break;
    case Kind::kSecurityStore:
      what = "validation data (/DSS)";
      break;
    case Kind::kInfo:
      what = "document information (/Info)";
      break;
    case Kind::kXRefStream:
      what = "cross-reference stream";
      break;
    case Kind::kObjectStream:
      what = "object stream";
      break;
    case Kind::kOther:
      what = o.type + (o.type.empty() || o.subtype.empty() ? "" : " ") + o.subtype;
      if (what.empty())
        what = o.stream ? "stream" : "object without /Type";
      else if (o.stream)
        what += " stream";
      break;
  }
  if (o.unreadable) what = "object that could not be read";
  if (o.objectStream) what += " (in object stream " + std::to_string(o.objectStream) + ")";
  return what;
}

// The revisions after which each signature's signed bytes end; -1 when they
// end at no revision.
int lastSignedRevision(const DocumentReport& doc) {
  int last = -1;
  for (const FieldReport& f : doc.fields) {
    if (f.isSigned && f.revision) last = std::max(last, *f.revision);
  }
  return last;
}

// --- the one-line answer -----------------------------------------------------

std::string joinWords(const std::vector<std::string>& parts) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i) out += i + 1 == parts.size() ? " and " : ", ";
    out += parts[i];
  }
  return out;
}

std::string pageList(const std::vector<int>& pages) {
  std::vector<std::string> words;
  for (int p : pages) words.push_back(std::to_string(p));
  return (pages.size() == 1 ? "page " : "pages ") + joinWords(words);
}

// What the updates after the last signature did, in a few words each.
// Revisions [from, to) of the file.
std::vector<std::string> changeWords(const Changes::Result& changes, std::size_t from, std::size_t to,
                                     bool singular) {
  const std::string s = singular ? "s" : "";
  std::vector<int> newPages, annotationPages, changedAnnotationPages;
  std::size_t newAnnotations = 0, changedAnnotations = 0, objects = 0, unreadRevisions = 0, uncompared = 0;
  std::size_t unreadObjects = 0, replacedStreams = 0;
  std::vector<std::string> fields, streams;
  bool dss = false;
  auto addPage = [](std::vector<int>& list, int page) {
    if (page && std::find(list.begin(), list.end(), page) == list.end() && list.size() < 5)
      list.push_back(page);
  };
  auto addOnce = [](std::vector<std::string>& list, const std::string& item) {
    if (list.size() < 100 && std::find(list.begin(), list.end(), item) == list.end()) list.push_back(item);
  };
  for (std::size_t i = from; i < to && i < changes.revisions.size(); ++i) {
    const Changes::Revision& r = changes.revisions[i];
    if (!r.compared) ++uncompared;
    if (r.compared && !r.readable) ++unreadRevisions;
    objects += r.added + r.replaced;
    for (const Changes::Object& o : r.objects) {
      if (o.unreadable) {
        ++unreadObjects;
      } else if (o.kind == Kind::kPage && !o.replaces) {
        addPage(newPages, o.page);
      } else if (o.kind == Kind::kAnnotation) {
        ++(o.replaces ? changedAnnotations : newAnnotations);
        addPage(o.replaces ? changedAnnotationPages : annotationPages, o.page);
      } else if (o.kind == Kind::kFormField) {
        addOnce(fields, quoted(o.name));
      } else if (o.kind == Kind::kSecurityStore) {
        dss = true;
      } else if (o.kind == Kind::kOther && o.stream && o.replaces && o.type != "/Metadata" && r.base >= 0) {
        // An existing stream given new content: an appearance or page
        // content that other parts of the document may show too.
        ++replacedStreams;
        addOnce(streams, describe(o));
      }
    }
  }
  auto some = [](std::vector<std::string> list, std::size_t total) {
    if (list.size() > 3) list.resize(3);
    if (total > list.size()) list.push_back(number(total - list.size()) + " more");
    return joinWords(list);
  };
  std::vector<std::string> words;
  if (!newPages.empty()) words.push_back("add" + s + " " + pageList(newPages));
  auto annotations = [&](std::size_t n, const std::vector<int>& pages, const std::string& verb) {
    if (!n) return;
    std::string w = verb + s + " " + (n == 1 ? "an annotation" : number(n) + " annotations");
    if (!pages.empty()) w += " on " + pageList(pages);
    words.push_back(w);
  };
  annotations(newAnnotations, annotationPages, "add");
  annotations(changedAnnotations, changedAnnotationPages, "change");
  if (!fields.empty())
    words.push_back("change" + s + " form field" + (fields.size() == 1 ? " " : "s ") +
                    some(fields, fields.size()));
  if (dss) words.push_back("add" + s + " validation data (DSS)");
  if (replacedStreams) {
    words.push_back("replace" + s + " " + (replacedStreams == 1 ? "an existing " : "existing ") +
                    some(streams, replacedStreams));
  }
  if (unreadObjects)
    words.push_back(std::string(singular ? "has " : "have ") + plural(unreadObjects, "object", "objects") +
                    " that can't be read");
  if (words.empty() && objects) {
    words.push_back("change" + s + " " + plural(objects, "object", "objects") +
                    " (no page, annotation, field or stream)");
  }
  if (unreadRevisions)
    words.push_back(std::string(singular ? "has" : "have") + " cross-reference data that can't be read");
  if (uncompared)
    words.push_back("include" + s + " " + number(uncompared) + " not compared (too many revisions)");
  return words;
}

}  // namespace

std::string reportSummary(const HtmlReportInput& input) {
  const DocumentReport& doc = *input.document;
  std::size_t signatures = 0, stamps = 0, intact = 0, broken = 0, empty = 0;
  for (const FieldReport& f : doc.fields) {
    if (!f.isSigned) {
      ++empty;
      continue;
    }
    ++(f.kind == "document_timestamp" ? stamps : signatures);
    ++(f.intact.value_or(false) ? intact : broken);
  }
  const std::size_t all = signatures + stamps;
  std::string line;
  if (all == 0) {
    line = "no signatures";
  } else {
    line = signatures ? plural(signatures, "signature", "signatures") : "";
    if (stamps)
      line += (signatures ? " and " : "") + plural(stamps, "document time stamp", "document time stamps");
    if (broken == 0) {
      line += all == 1 ? ", intact" : all == 2 ? ", both intact" : ", all intact";
    } else if (intact == 0) {
      line += all == 1 ? ", NOT intact" : all == 2 ? ", neither intact" : ", none intact";
    } else {
      line += ", " + number(broken) + " NOT intact";
    }
  }
  if (empty) line += "; " + plural(empty, "empty signature field", "empty signature fields");

  const int last = lastSignedRevision(doc);
  int first = last;
  for (const FieldReport& f : doc.fields) {
    if (f.isSigned && f.revision) first = std::min(first, *f.revision);
  }
  const Changes::Result* changes = input.changes;
  if (changes && first < last) {
    // Updates between signatures: each later signature adds its own field,
    // and anything else it changes is worth a look.
    const std::size_t between = std::size_t(last - first);
    std::vector<std::string> words =
        changeWords(*changes, std::size_t(first) + 1, std::size_t(last) + 1, between == 1);
    if (!words.empty())
      line += "; " + plural(between, "update", "updates") + " after the first signature " + joinWords(words);
  }
  if (last >= 0) {
    const std::size_t revisions = changes ? changes->revisions.size() : doc.revisionEnds.size();
    const std::size_t after = revisions > std::size_t(last) + 1 ? revisions - std::size_t(last) - 1 : 0;
    if (after == 0) {
      line += "; no update after the last signature";
    } else {
      line += "; " + plural(after, "update", "updates") + " after the last signature";
      std::vector<std::string> words;
      if (changes) words = changeWords(*changes, std::size_t(last) + 1, revisions, after == 1);
      if (!words.empty()) line += " " + joinWords(words);
    }
  } else if (all) {
    line += "; no signature ends at a revision";
  }
  return line;
}

namespace {

// --- drawing -----------------------------------------------------------------

// Where a byte offset goes on the bars.  Every revision gets at least a few
// per cent of the width, so that a small update after a large original stays
// visible; within a revision, offsets are to scale.
class Scale {
 public:
  struct Segment {
    std::uint64_t start, end;
    std::size_t first, last;  // revisions it stands for
    bool tail = false;        // bytes after the last "%%EOF"
    double x = 0, width = 0;
  };

  Scale(const std::vector<std::uint64_t>& ends, std::uint64_t size) : size_(size) {
    std::vector<Segment> all;
    std::uint64_t from = 0;
    for (std::size_t i = 0; i < ends.size(); ++i) {
      if (ends[i] <= from || ends[i] > size) continue;
      all.push_back({from, ends[i], i, i});
      from = ends[i];
    }
    if (from < size || all.empty()) all.push_back({from, size, all.size(), all.size(), true});
    // Many revisions: the first few and the latest ones, one segment between.
    if (all.size() > kMaxSegments) {
      const std::size_t head = 10, tail = kMaxSegments - head - 1;
      Segment middle{all[head].start, all[all.size() - tail - 1].end, all[head].first,
                     all[all.size() - tail - 1].last};
      segments_.assign(all.begin(), all.begin() + head);
      segments_.push_back(middle);
      segments_.insert(segments_.end(), all.end() - tail, all.end());
    } else {
      segments_ = all;
    }
    const double minShare = std::min(0.04, 0.4 / segments_.size());
    double total = 0;
    for (Segment& s : segments_) {
      const double share = size ? double(s.end - s.start) / double(size) : 1.0 / segments_.size();
      s.width = std::max(share, minShare);
      total += s.width;
    }
    double x = 0;
    for (Segment& s : segments_) {
      s.width = s.width / total * kWidth;
      s.x = x;
      x += s.width;
    }
  }

  double x(std::uint64_t offset) const {
    if (offset >= size_) return kWidth;
    for (const Segment& s : segments_) {
      if (offset < s.end) return s.x + s.width * double(offset - s.start) / double(s.end - s.start);
    }
    return kWidth;
  }
  const std::vector<Segment>& segments() const { return segments_; }

 private:
  std::uint64_t size_;
  std::vector<Segment> segments_;
};

const char kStyle[] = R"CSS(
:root { --bg: #ffffff; --fg: #111111; --muted: #4a4a4a; --line: #111111; --rev-a: #e4e4e4; --rev-b: #c4c4c4;
  --ok: #0b4f9c; --bad: #b3261e; --none: #8a8a8a; --nc: #f2b233; --flag: #8c1d18; --flag-bg: #fde9e7;
  --card: #f6f6f6; color-scheme: light dark; }
@media (prefers-color-scheme: dark) {
  :root { --bg: #121212; --fg: #f2f2f2; --muted: #c8c8c8; --line: #f2f2f2; --rev-a: #3a3a3a; --rev-b: #5a5a5a;
    --ok: #8ab8ff; --bad: #ff8a80; --none: #9e9e9e; --nc: #ffd27a; --flag: #ffb4ab; --flag-bg: #3b1412;
    --card: #1e1e1e; }
}
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 72rem; padding: 1.5rem; background: var(--bg); color: var(--fg);
  font: 16px/1.45 system-ui, "DejaVu Sans", sans-serif; }
h1 { font-size: 1.5rem; margin: 0 0 .25rem; word-break: break-all; }
h2 { font-size: 1.2rem; margin: 2rem 0 .5rem; border-bottom: 2px solid var(--line); }
h3 { font-size: 1.05rem; margin: 0 0 .4rem; word-break: break-word; }
.answer { font-size: 1.2rem; font-weight: 600; margin: .5rem 0; }
.muted, figcaption, .bytes { color: var(--muted); }
svg.bar { width: 100%; height: auto; display: block; }
svg text { fill: var(--fg); font: 12px system-ui, "DejaVu Sans", sans-serif; }
.label-bg { fill: var(--bg); stroke: var(--line); stroke-width: .5; }
.rev-a { fill: var(--rev-a); } .rev-b { fill: var(--rev-b); }
.rev-after { fill: url(#p-after); } .rev-tail { fill: url(#p-nc); }
.cut { stroke: var(--line); stroke-width: 2; }
.thin-cut { stroke: var(--line); stroke-width: 1; stroke-dasharray: 3 2; }
.frame { fill: none; stroke: var(--line); stroke-width: 1; }
.ok { fill: var(--ok); } .bad { fill: url(#p-bad); } .none { fill: url(#p-none); }
.gap { fill: url(#p-gap); } .nc { fill: url(#p-nc); }
.seal { fill: var(--fg); }
.pat-bg { fill: var(--bg); } .pat-fg { stroke: var(--fg); stroke-width: 1.5; } .pat-dot { fill: var(--fg); }
.pat-bad { fill: var(--bad); } .pat-nc { fill: var(--nc); } .pat-light { stroke: var(--bg); stroke-width: 2; }
.pat-after { stroke: var(--flag); stroke-width: 3; }
figure { margin: 1rem 0; }
ul.legend { list-style: none; padding: 0; display: flex; flex-wrap: wrap; gap: .4rem 1.5rem; }
ul.legend svg { width: 2.2rem; height: 1rem; vertical-align: middle; margin-right: .4rem; border: 1px solid var(--line); }
.cards { display: grid; grid-template-columns: repeat(auto-fill, minmax(26rem, 1fr)); gap: 1rem; }
.card { background: var(--card); border: 1px solid var(--line); border-left-width: 6px; padding: .8rem 1rem; }
.card.ok-card { border-left-color: var(--ok); } .card.bad-card { border-left-color: var(--bad); border-left-style: double; }
dl { display: grid; grid-template-columns: 10rem 1fr; gap: .15rem .8rem; margin: 0; }
dt { font-weight: 600; } dd { margin: 0; word-break: break-word; }
dd dl { grid-template-columns: max-content 1fr; }
.verdict-bad { color: var(--bad); font-weight: 700; } .verdict-ok { color: var(--ok); font-weight: 700; }
.flag { background: var(--flag-bg); color: var(--flag); border: 2px solid var(--flag); padding: .3rem .6rem;
  font-weight: 600; }
.revision { border-top: 1px solid var(--muted); padding: .6rem 0; }
.revision.after { border-left: 6px double var(--flag); padding-left: .8rem; }
table { border-collapse: collapse; margin: .4rem 0; }
th, td { text-align: left; padding: .15rem .7rem .15rem 0; vertical-align: top; border-bottom: 1px solid var(--rev-b); }
td.num { font-variant-numeric: tabular-nums; white-space: nowrap; }
ol.revisions { columns: 2 22rem; }
)CSS";

// Fills shared by every bar: hatching and dots, so that nothing depends on
// colour alone.
const char kPatterns[] =
    R"SVG(<svg width="0" height="0" style="position:absolute" aria-hidden="true" focusable="false"><defs>
<pattern id="p-gap" width="8" height="8" patternUnits="userSpaceOnUse" patternTransform="rotate(45)"><rect class="pat-bg" width="8" height="8"/><line class="pat-fg" x1="0" y1="0" x2="0" y2="8"/></pattern>
<pattern id="p-bad" width="8" height="8" patternUnits="userSpaceOnUse"><rect class="pat-bad" width="8" height="8"/><path class="pat-light" d="M0 0L8 8M8 0L0 8"/></pattern>
<pattern id="p-none" width="6" height="6" patternUnits="userSpaceOnUse"><rect class="pat-bg" width="6" height="6"/><circle class="pat-dot" cx="3" cy="3" r="1"/></pattern>
<pattern id="p-nc" width="10" height="10" patternUnits="userSpaceOnUse"><rect class="pat-nc" width="10" height="10"/><path class="pat-fg" d="M0 5H10"/></pattern>
<pattern id="p-after" width="10" height="10" patternUnits="userSpaceOnUse" patternTransform="rotate(-45)"><rect class="pat-bg" width="10" height="10"/><line class="pat-after" x1="0" y1="0" x2="0" y2="10"/></pattern>
</defs></svg>
)SVG";

std::string rect(const char* cls, double x0, double x1, double y, double h) {
  if (x1 - x0 < 2) x1 = std::min(kWidth, x0 + 2);  // a region that exists stays visible
  return "<rect class=\"" + std::string(cls) + "\" x=\"" + fixed(x0) + "\" y=\"" + fixed(y) + "\" width=\"" +
         fixed(x1 - x0) + "\" height=\"" + fixed(h) + "\"/>";
}

// Words centred over [x0, x1] when they fit; on a bar, on a plain ground
// so that the hatching doesn't cross them.
std::string label(double x0, double x1, double y, const std::string& words, bool onBar = false) {
  const double width = 7.0 * words.size() + 6;
  if (x1 - x0 < width) return "";
  const double middle = (x0 + x1) / 2;
  std::string ground;
  if (onBar) {
    ground = "<rect class=\"label-bg\" x=\"" + fixed(middle - width / 2) + "\" y=\"" + fixed(y - 12) +
             "\" width=\"" + fixed(width) + "\" height=\"16\" rx=\"3\"/>";
  }
  return ground + "<text x=\"" + fixed(middle) + "\" y=\"" + fixed(y) + "\" text-anchor=\"middle\">" +
         text(words) + "</text>";
}

std::string revisionName(const Scale::Segment& s) {
  if (s.tail) return "after the last %%EOF";
  if (s.first != s.last) return "revisions " + number(s.first) + "\xE2\x80\x93" + number(s.last);
  return "revision " + number(s.first);
}

// The file as a bar, cut at each revision's end; revisions after the last
// signature are hatched.
void writeTimeline(std::ostream& out, const DocumentReport& doc, const Scale& scale) {
  const int last = lastSignedRevision(doc);
  std::ostringstream svg;
  std::string description = "The file, " + number(doc.size) + " bytes, in " +
                            plural(doc.revisionEnds.size(), "revision", "revisions") + ".";
  bool odd = false, anyAfter = false;
  for (const Scale::Segment& s : scale.segments()) {
    const bool after = last >= 0 && (s.tail || int(s.last) > last);
    anyAfter = anyAfter || after;
    const char* cls = s.tail ? "rev-tail" : after ? "rev-after" : (odd = !odd) ? "rev-a" : "rev-b";
    svg << rect(cls, s.x, s.x + s.width, 22, 30);
    std::string name = s.first == s.last && !s.tail ? std::to_string(s.first) : "";
    if (s.width > 90 || (s.first != s.last)) name = revisionName(s);
    svg << label(s.x, s.x + s.width, 16, name);
    if (after && s.width > 110) svg << label(s.x, s.x + s.width, 68, "after signing");
  }
  for (const Scale::Segment& s : scale.segments()) {
    if (s.end < doc.size)
      svg << "<line class=\"cut\" x1=\"" << fixed(s.x + s.width) << "\" x2=\"" << fixed(s.x + s.width)
          << "\" y1=\"18\" y2=\"56\"/>";
  }
  // Where each signature's signed bytes end.
  std::size_t shown = 0;
  for (const FieldReport& f : doc.fields) {
    if (!f.signedEnd || ++shown > kMaxSignatures) continue;
    const double x = scale.x(std::uint64_t(std::max<long long>(0, *f.signedEnd)));
    svg << "<path class=\"seal\" d=\"M" << fixed(x) << " 56l-5 8h10z\"><title>" << text(f.field)
        << " signed up to byte " << number(std::uint64_t(*f.signedEnd)) << "</title></path>";
  }
  svg << rect("frame", 0, kWidth, 22, 30);
  if (anyAfter)
    description +=
        " Revisions after " + number(std::size_t(last)) + " came after the last signature (hatched).";
  out << "<figure><svg class=\"bar timeline\" viewBox=\"-4 0 " << fixed(kWidth + 8)
      << " 76\" role=\"img\" aria-label=\"" << text(description) << "\">" << svg.str()
      << "</svg>\n<figcaption>" << text(description)
      << " Widths are to scale within a revision; every revision gets at least a sliver "
      << "so small updates stay visible. Triangles mark where signatures end.</figcaption></figure>\n";

  out << "<ol class=\"revisions\" start=\"0\">\n";
  for (const Scale::Segment& s : scale.segments()) {
    out << "<li value=\"" << s.first << "\""
        << (s.first != s.last || s.tail ? " style=\"list-style:none\"" : "") << ">"
        << (s.first != s.last || s.tail ? text(revisionName(s)) + ": " : "") << "bytes " << number(s.start)
        << "\xE2\x80\x93" << number(s.end) << " (" << number(s.end - s.start) << ")";
    std::vector<std::string> sealed;
    for (const FieldReport& f : doc.fields) {
      if (f.revision && std::size_t(*f.revision) >= s.first && std::size_t(*f.revision) <= s.last &&
          !s.tail && sealed.size() < 5)
        sealed.push_back(f.field);
    }
    if (!sealed.empty()) {
      out << ", signed by ";
      for (std::size_t i = 0; i < sealed.size(); ++i) out << (i ? ", " : "") << text(sealed[i]);
    }
    if (last >= 0 && (s.tail || int(s.last) > last)) out << " <strong>after the last signature</strong>";
    out << "</li>\n";
  }
  out << "</ol>\n";
}

// With --trust the validation verdict colours a signature: valid as intact,
// invalid as broken, indeterminate as no verdict.
const char* verdictClass(const FieldReport& f) {
  if (!f.isSigned || !f.intact) return "none";
  if (f.validation && *f.intact)
    return f.validation->verdict == "valid" ? "ok" : f.validation->verdict == "invalid" ? "bad" : "none";
  return *f.intact ? "ok" : "bad";
}

std::string verdictWords(const FieldReport& f) {
  if (!f.isSigned) return "not signed";
  if (!f.intact) return "no verdict";
  return std::string(*f.intact ? "intact" : "NOT intact") +
         (f.validation ? ", " + f.validation->verdict : "");
}

void writeLegend(std::ostream& out) {
  struct Item {
    const char* cls;
    const char* words;
  };
  static const Item kItems[] = {
      {"ok", "signed bytes, signature intact (solid)"},
      {"bad", "signed bytes, signature NOT intact (cross-hatched)"},
      {"none", "no verdict (dotted)"},
      {"gap", "/Contents: the signature value itself, left out of the signed bytes (diagonal hatching)"},
      {"nc", "not covered by this signature (striped band)"},
  };
  out << "<ul class=\"legend\">\n";
  for (const Item& item : kItems) {
    out << "<li><svg viewBox=\"0 0 22 10\" aria-hidden=\"true\"><rect class=\"" << item.cls
        << "\" width=\"22\" height=\"10\"/></svg>" << item.words << "</li>\n";
  }
  out << "</ul>\n";
}

// One bar per signature: the two signed ranges, the gap between them, and
// what they leave out, against the same scale as the timeline.
void writeCoverage(std::ostream& out, const DocumentReport& doc, const Scale& scale) {
  writeLegend(out);
  std::size_t shown = 0;
  for (std::size_t i = 0; i < doc.fields.size(); ++i) {
    const FieldReport& f = doc.fields[i];
    if (!f.isSigned) continue;
    if (++shown > kMaxSignatures) break;
    const char* verdict = verdictClass(f);
    std::ostringstream svg, caption;
    caption << text(f.field) << ": " << verdictWords(f) << ". ";
    svg << rect("nc", 0, kWidth, 8, 26);
    if (f.byteRange && f.byteRange->size() == 4) {
      const std::vector<long>& r = *f.byteRange;
      const auto at = [&](long v) { return scale.x(std::uint64_t(std::max(0L, v))); };
      const std::uint64_t end = std::uint64_t(r[2]) + std::uint64_t(r[3]);
      svg << rect(verdict, at(r[0]), at(r[0] + r[1]), 8, 26) << rect("gap", at(r[0] + r[1]), at(r[2]), 8, 26)
          << rect(verdict, at(r[2]), at(r[2] + r[3]), 8, 26);
      svg << label(at(r[0] + r[1]), at(r[2]), 26, "/Contents", true);
      if (std::uint64_t(r[0]) > 0) svg << label(0, at(r[0]), 26, "not covered", true);
      if (end < doc.size) svg << label(at(r[2] + r[3]), kWidth, 26, "not covered", true);
      caption << "Signed bytes " << number(std::uint64_t(r[0])) << "\xE2\x80\x93"
              << number(std::uint64_t(r[0] + r[1])) << " and " << number(std::uint64_t(r[2]))
              << "\xE2\x80\x93" << number(end) << "; the /Contents gap is "
              << number(std::uint64_t(r[2] - r[0] - r[1])) << " bytes; ";
      if (f.coverage) {
        caption << text(*f.coverage) << ".";
      } else if (end > doc.size) {
        caption << "the second range reaches " << number(end - doc.size)
                << " bytes past the end of the file.";
      } else if (end < doc.size || r[0] > 0) {
        caption << number(doc.size - end + std::uint64_t(r[0])) << " bytes of the file are not covered.";
      } else {
        caption << "nothing else is left out.";
      }
    } else {
      svg << label(0, kWidth, 26, "no valid /ByteRange", true);
      caption << "The signature has no valid /ByteRange.";
    }
    for (const Scale::Segment& s : scale.segments()) {
      if (s.end < doc.size)
        svg << "<line class=\"thin-cut\" x1=\"" << fixed(s.x + s.width) << "\" x2=\"" << fixed(s.x + s.width)
            << "\" y1=\"4\" y2=\"38\"/>";
    }
    svg << rect("frame", 0, kWidth, 8, 26);
    out << "<figure class=\"coverage\" id=\"coverage-" << i << "\"><svg class=\"bar coverage-bar " << verdict
        << "-bar\" data-field=\"" << text(f.field) << "\" viewBox=\"-4 0 " << fixed(kWidth + 8)
        << " 40\" role=\"img\" aria-label=\"" << caption.str() << "\">" << svg.str() << "</svg><figcaption>"
        << caption.str() << "</figcaption></figure>\n";
  }
  if (shown == 0) out << "<p>No field of this file is signed.</p>\n";
  if (shown > kMaxSignatures) {
    out << "<p>Only the first " << kMaxSignatures << " signatures are drawn; the others are counted in the "
        << "answer at the top.</p>\n";
  }
}

// --- signature cards, from the JSON that verify prints ------------------------

std::string label(const std::string& key) {
  std::string words = key;
  std::replace(words.begin(), words.end(), '_', ' ');
  if (!words.empty() && words[0] >= 'a' && words[0] <= 'z') words[0] = char(words[0] - 'a' + 'A');
  return words;
}

void writeValue(std::ostream& out, const Json& value, int depth);

void writeEntries(std::ostream& out, const Json& object, int depth) {
  out << "<dl>";
  for (auto it = object.begin(); it != object.end(); ++it) {
    out << "<dt>" << text(label(it.key())) << "</dt><dd>";
    writeValue(out, it.value(), depth + 1);
    out << "</dd>";
  }
  out << "</dl>";
}

void writeValue(std::ostream& out, const Json& value, int depth) {
  if (value.is_null()) {
    out << "\xE2\x80\x94";
  } else if (value.is_boolean()) {
    out << (value.get<bool>() ? "yes" : "no");
  } else if (value.is_string()) {
    // Times come as "YYYYMMDDHHMMSSZ", as everywhere in verify's JSON.
    const std::string& s = value.get_ref<const std::string&>();
    const bool time = s.size() == 15 && s.back() == 'Z' &&
                      std::all_of(s.begin(), s.end() - 1, [](char c) { return c >= '0' && c <= '9'; });
    out << text(time ? displayTime(s) : s);
  } else if (value.is_number()) {
    out << text(value.dump());
  } else if (value.is_array()) {
    std::size_t n = 0;
    for (const Json& item : value) {
      if (n++ == kMaxJsonItems) {
        out << " \xE2\x80\xA6 (" << number(value.size()) << " in all)";
        break;
      }
      if (n > 1) out << "; ";
      writeValue(out, item, depth + 1);
    }
  } else if (value.is_object() && depth < 4) {
    writeEntries(out, value, depth);
  } else {
    out << text(value.dump(-1, ' ', false, Json::error_handler_t::replace).substr(0, 200));
  }
}

std::string commonName(const Json& name) {
  if (!name.is_array()) return "";
  std::string last;
  for (const Json& pair : name) {
    if (!pair.is_array() || pair.size() != 2 || !pair[1].is_string()) continue;
    if (pair[0] == "2.5.4.3") return pair[1].get<std::string>();
    last = pair[1].get<std::string>();
  }
  return last;
}

std::string permissionWords(const Json& p) {
  if (!p.is_object() || !p.contains("P") || !p["P"].is_number_integer()) return "";
  static const char* const kNames[] = {"none stated", "no changes", "form filling and signing",
                                       "form filling, signing and annotations"};
  const long long v = p["P"].get<long long>();
  std::string words = v >= 0 && v <= 3 ? kNames[v] : "P=" + std::to_string(v);
  if (p.value("field_mdp", false)) words += "; fields locked (FieldMDP)";
  return words;
}

// The keys the card shows in its own words; anything else verify gives
// (a time stamp, a validation verdict, what later versions add) is listed
// under its own name.
bool handledKey(const std::string& key) {
  static const char* const kHandled[] = {"field",
                                         "page",
                                         "filter",
                                         "signed",
                                         "kind",
                                         "intact",
                                         "problem",
                                         "signing_time",
                                         "byte_range",
                                         "revision",
                                         "covers_whole_document",
                                         "coverage",
                                         "permission",
                                         "signer",
                                         "certificates",
                                         "timestamp"};
  return std::find_if(std::begin(kHandled), std::end(kHandled), [&](const char* k) { return key == k; }) !=
         std::end(kHandled);
}

// The time stamp over the signature value, in words, with who made it.
std::string timeStampWords(const FieldReport& f) {
  if (!f.timeStamp) return "\xE2\x80\x94 (none)";
  const TimeStampReport& t = *f.timeStamp;
  std::string words = text(timeStampVerdict(t));
  if (t.status >= 0 && t.status <= 2)
    words = std::string("<span class=\"") + (t.status == 0 ? "verdict-ok" : "verdict-bad") + "\">" + words +
            "</span>";
  if (t.time) words += " " + text(displayTime(*t.time));
  std::vector<std::string> about;
  if (t.source) about.push_back(*t.source);
  if (t.type) about.push_back(*t.type);
  if (!t.certificates.empty()) {
    const CertReport& c = t.certificates.front();
    std::string name = attributeValue(c.subject, "2.5.4.3");
    if (!name.empty()) about.push_back("by " + name);
  }
  std::string joined;
  for (const std::string& part : about) joined += (joined.empty() ? "" : ", ") + part;
  if (!joined.empty()) words += " <span class=\"muted\">(" + text(joined) + ")</span>";
  return words;
}

void writeCard(std::ostream& out, const FieldReport& f, const Json& s, std::size_t index) {
  out << "<article class=\"card " << verdictClass(f) << "-card\" id=\"signature-" << index << "\"><h3>"
      << text(s.value("field", f.field)) << "</h3><dl>";
  auto row = [&](const std::string& term, const std::string& html) {
    out << "<dt>" << term << "</dt><dd>" << html << "</dd>";
  };
  row("Kind", !f.isSigned                      ? "empty signature field"
              : f.kind == "document_timestamp" ? "document time stamp"
                                               : "signature");
  if (f.isSigned) {
    std::string intact = f.intact ? (*f.intact ? "<span class=\"verdict-ok\">yes</span>"
                                               : "<span class=\"verdict-bad\">NO</span>")
                                  : "\xE2\x80\x94";
    if (s.contains("problem") && s["problem"].is_string())
      intact += " \xE2\x80\x94 " + text(s["problem"].get<std::string>());
    row("Intact", intact);
    std::string signer = "(signer certificate not included)";
    const Json& certs = s.contains("certificates") ? s["certificates"] : Json();
    if (s.contains("signer") && s["signer"].is_number_unsigned() && certs.is_array() &&
        s["signer"].get<std::size_t>() < certs.size()) {
      const Json& cert = certs[s["signer"].get<std::size_t>()];
      signer = text(commonName(cert.value("subject", Json()))) + " <span class=\"muted\">issued by " +
               text(commonName(cert.value("issuer", Json()))) + "</span>";
    }
    row("Signer", signer);
    row("Signing time", s.contains("signing_time") && s["signing_time"].is_string()
                            ? text(displayTime(s["signing_time"].get<std::string>()))
                            : "\xE2\x80\x94 (no signing-time attribute)");
    if (f.kind != "document_timestamp") row("Time stamp", timeStampWords(f));
    if (f.validation) {
      std::string reasons;
      for (const std::string& r : f.validation->reasons) reasons += (reasons.empty() ? "" : "; ") + r;
      row("Verdict", "<strong>" + text(f.validation->verdict) + "</strong>" +
                         (reasons.empty() ? "" : " \xE2\x80\x94 " + text(reasons)));
    }
    row("Signed revision",
        f.revision ? number(std::size_t(*f.revision)) : "\xE2\x80\x94 (does not end at a revision)");
    std::string coverage = f.coversWholeDocument && *f.coversWholeDocument ? "the whole file" : "";
    if (f.coverage) coverage = text(*f.coverage);
    row("Coverage", coverage.empty() ? "\xE2\x80\x94" : coverage);
    const std::string permission = s.contains("permission") ? permissionWords(s["permission"]) : "";
    row("Permits after signing", permission.empty() ? "\xE2\x80\x94 (no /Reference)" : text(permission));
  }
  row("Page", f.page ? number(std::size_t(*f.page)) : "\xE2\x80\x94");
  for (auto it = s.begin(); it != s.end(); ++it) {
    if (handledKey(it.key())) continue;
    std::ostringstream value;
    writeValue(value, it.value(), 1);
    row(text(label(it.key())), value.str());
  }
  out << "</dl></article>\n";
}

void writeCards(std::ostream& out, const DocumentReport& doc, const Json& verify) {
  const Json empty = Json::object();
  const Json& signatures = verify.contains("signatures") ? verify["signatures"] : empty;
  out << "<div class=\"cards\">\n";
  std::size_t shown = 0;
  for (std::size_t i = 0; i < doc.fields.size() && shown < kMaxSignatures; ++i, ++shown) {
    writeCard(out, doc.fields[i], signatures.is_array() && i < signatures.size() ? signatures[i] : empty, i);
  }
  out << "</div>\n";
  if (doc.fields.size() > shown) {
    out << "<p>" << plural(doc.fields.size() - shown, "more signature field is", "more signature fields are")
        << " not shown; <code>sealmark verify</code> lists them all.</p>\n";
  }
  if (doc.fields.empty()) out << "<p>The file has no signature fields.</p>\n";
}

// --- what each revision changed --------------------------------------------------

void writeKindCounts(std::ostream& out, const Changes::Revision& r) {
  std::map<std::string, std::size_t> counts;
  for (const Changes::Object& o : r.objects) {
    std::string what = describe(o);
    if (o.kind == Kind::kPage) what = "page";
    if (o.kind == Kind::kAnnotation || o.kind == Kind::kFormField)
      what = o.kind == Kind::kAnnotation ? "annotation" : "form field";
    ++counts[what];
  }
  std::vector<std::pair<std::size_t, std::string>> order;
  for (const auto& [what, n] : counts) order.emplace_back(n, what);
  std::sort(order.rbegin(), order.rend());
  std::vector<std::string> words;
  for (std::size_t i = 0; i < order.size() && i < 12; ++i)
    words.push_back(number(order[i].first) + " \xC3\x97 " + order[i].second);
  if (order.size() > 12) words.push_back("\xE2\x80\xA6");
  out << "<p class=\"muted\">" << text(joinWords(words)) << "</p>\n";
}

void writeRevision(std::ostream& out, const DocumentReport& doc, const Changes::Revision& r, std::size_t i) {
  const int last = lastSignedRevision(doc);
  std::vector<std::string> sealedBy, after;
  for (const FieldReport& f : doc.fields) {
    if (!f.isSigned || !f.revision) continue;
    if (std::size_t(*f.revision) == i && r.marked && sealedBy.size() < 5) sealedBy.push_back(f.field);
    if (std::size_t(*f.revision) < i && after.size() < 5) after.push_back(f.field);
  }
  const bool isAfter = !after.empty();
  out << "<section class=\"revision" << (isAfter ? " after" : "") << "\" id=\"revision-" << i << "\"><h3>"
      << (r.marked ? "Revision " + number(i) : std::string("Bytes after the last %%EOF"))
      << " <span class=\"bytes\">bytes " << number(r.start) << "\xE2\x80\x93" << number(r.end) << " ("
      << number(r.end - r.start) << ")</span></h3>\n";
  auto names = [](const std::vector<std::string>& list) {
    std::string html;
    for (std::size_t k = 0; k < list.size(); ++k) html += (k ? ", " : "") + text(list[k]);
    return html;
  };
  if (isAfter) {
    out << "<p class=\"flag\">\xE2\x9A\xA0 Changed after signing: this update came after " << names(after)
        << (after.size() < 5 ? "" : " and others") << " signed"
        << (int(i) > last && after.size() > 1 ? ", after every signature" : "") << ".</p>\n";
  }
  if (!sealedBy.empty()) out << "<p>Signed by " << names(sealedBy) << ": the signed bytes end here.</p>\n";
  if (!r.compared) {
    out << "<p class=\"muted\">Not compared: the file has too many revisions to compare them "
           "all.</p></section>\n";
    return;
  }
  if (!r.readable) {
    out << "<p>Its cross-reference data could not be read as the file stood at its end (" << text(r.problem)
        << "); what it changed is counted with the next revision that can be read.</p></section>\n";
    return;
  }
  const std::string base = r.base < 0 ? "nothing before it" : "revision " + number(std::size_t(r.base));
  out << "<p>" << plural(r.added, "object", "objects") << " added, " << number(r.replaced) << " replaced";
  if (r.freed) out << ", " << number(r.freed) << " no longer in use";
  out << " (compared with " << base << ").</p>\n";
  if (r.base < 0) {  // the original document: what it holds, not a list
    writeKindCounts(out, r);
    out << "</section>\n";
    return;
  }
  if (!r.objects.empty()) {
    out << "<table><thead><tr><th scope=\"col\">Object</th><th scope=\"col\">Change</th><th "
           "scope=\"col\">What it is</th>"
           "</tr></thead><tbody>\n";
    for (std::size_t k = 0; k < r.objects.size() && k < kMaxRows; ++k) {
      const Changes::Object& o = r.objects[k];
      out << "<tr><td class=\"num\">" << o.number << " " << o.generation << "</td><td>"
          << (o.replaces ? "replaced" : "added") << (isAfter ? " after signing" : "") << "</td><td>"
          << text(describe(o)) << "</td></tr>\n";
    }
    out << "</tbody></table>\n";
  }
  const std::size_t total = r.added + r.replaced;
  const std::size_t listed = std::min(r.objects.size(), kMaxRows);
  if (total > listed)
    out << "<p class=\"muted\">" << plural(total - listed, "more object is", "more objects are")
        << " not listed.</p>\n";
  out << "</section>\n";
}

void writeChanges(std::ostream& out, const HtmlReportInput& input) {
  if (!input.changes) {
    out << "<p>The changes of the revisions could not be read: " << text(input.whyNoChanges) << ".</p>\n";
    return;
  }
  const auto& revisions = input.changes->revisions;
  std::size_t skipped = 0;
  for (std::size_t i = 0; i < revisions.size(); ++i) {
    if (!revisions[i].compared && i + 1 < revisions.size() && !revisions[i + 1].compared) {
      ++skipped;
      continue;
    }
    if (skipped) {
      out << "<p class=\"muted\">" << plural(skipped, "more revision was", "more revisions were")
          << " not compared: the file has too many revisions to compare them all.</p>\n";
      skipped = 0;
    }
    writeRevision(out, *input.document, revisions[i], i);
  }
}

}  // namespace

void writeHtmlReport(std::ostream& out, const HtmlReportInput& input) {
  const DocumentReport& doc = *input.document;
  const Scale scale(doc.revisionEnds, doc.size);
  const std::string summary = reportSummary(input);
  out << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      << "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
         "'unsafe-inline'\">\n"
      << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      << "<meta name=\"color-scheme\" content=\"light dark\">\n"
      << "<title>Signatures of " << text(doc.file) << "</title>\n<style>" << kStyle
      << "</style>\n</head>\n<body>\n"
      << kPatterns << "<header>\n<h1>Signatures of <span class=\"file\">" << text(doc.file)
      << "</span></h1>\n"
      << "<p class=\"answer\" id=\"answer\">" << text(summary) << "</p>\n<p class=\"muted\">"
      << number(doc.size) << " bytes, " << plural(doc.revisionEnds.size(), "revision", "revisions") << ", "
      << plural(doc.fields.size(), "signature field", "signature fields")
      << ". \xE2\x80\x9CIntact\xE2\x80\x9D says the signed bytes are unchanged since signing; whether the "
         "signer is "
         "trusted is another question.</p>\n</header>\n<main>\n"
      << "<section id=\"timeline\"><h2>Revisions</h2>\n";
  writeTimeline(out, doc, scale);
  out << "</section>\n<section id=\"coverage\"><h2>What each signature covers</h2>\n";
  writeCoverage(out, doc, scale);
  out << "</section>\n<section id=\"signatures\"><h2>Signatures</h2>\n";
  writeCards(out, doc, input.verify);
  out << "</section>\n<section id=\"changes\"><h2>What each revision changed</h2>\n"
      << "<p class=\"muted\">From the cross-reference data of each update: the objects it added or replaced. "
         "Whether a change was allowed after a signature is for the verifier to say.</p>\n";
  writeChanges(out, input);
  out << "</section>\n</main>\n<footer><p class=\"muted\">Written by sealmark "
         "report.</p></footer>\n</body>\n</html>\n";
}

}  // namespace sealmark
