// Contract: any bytes may be read revision by revision; the worst outcome is
// a revision whose cross-reference data can't be read.  The bounds hold: no
// more revisions compared, and no more objects listed, than asked for, and
// the listed objects are among the ones counted.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "pdfsealmark/PDFRevisionChanges.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Changes = PDF_Sealmark::PDFRevisionChanges;
  Changes::Options options;
  options.maxRevisions = 6;
  options.maxObjects = 20;
  Changes::Result result;
  if (!Changes::readMemory(std::vector<unsigned char>(data, data + size), "", result, nullptr, options))
    return 0;
  std::size_t compared = 0;
  std::uint64_t end = 0;
  for (const Changes::Revision& r : result.revisions) {
    compared += r.compared;
    if (r.start != end || r.end <= r.start || r.objects.size() > options.maxObjects ||
        r.objects.size() > r.added + r.replaced || (r.readable && !r.compared))
      std::abort();
    end = r.end;
  }
  if (compared > options.maxRevisions || end != size) std::abort();
  return 0;
}
